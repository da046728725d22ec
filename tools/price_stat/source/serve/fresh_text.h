// A text that is made anew when it is asked for, but not for each of many who ask at the same time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace price_stat {

// Threads: any.
class FreshText {
 public:
  using Clock = std::chrono::steady_clock;

  // How much older a text may be than the question.
  static constexpr auto kAge = std::chrono::milliseconds(250);

  explicit FreshText(std::function<std::string()> make) : m_make(std::move(make)) {}

  // What make throws is thrown here, and then there is no text.
  std::shared_ptr<const std::string> Get() {
    const auto asked = Clock::now();
    const std::lock_guard lock(m_mutex);
    if (m_text == nullptr || m_begun + kAge < asked) {
      m_text = nullptr;
      m_begun = Clock::now();
      m_text = std::make_shared<const std::string>(m_make());
    }
    return m_text;
  }

 private:
  const std::function<std::string()> m_make;
  std::mutex m_mutex;
  std::shared_ptr<const std::string> m_text;  // with m_mutex, like when making it began
  Clock::time_point m_begun;
};

}  // namespace price_stat
