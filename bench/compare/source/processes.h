// The processes of one measurement.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

namespace compare {

// Every process ends when the one that started it does. The destructor ends those that are left.
class Processes {
 public:
  Processes();
  ~Processes();
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;

  // Runs the part in a process of its own, on that processor when one is given. Reports what it throws on standard
  // error; its standard output goes nowhere.
  void Start(const std::function<void()>& part, std::optional<int> processor = {});

  // Throws when one of those that are to run until they are ended has ended by itself.
  void ThrowIfAnyEnded();

  // Throws when one of them fails, or when they have not all ended after that time.
  void Wait(std::chrono::milliseconds atMost);

 private:
  std::vector<pid_t> m_running;
};

// The processor for the process of that number, spread over those that this process may use; nothing when there is but
// one.
std::optional<int> ProcessorFor(std::size_t number);

}  // namespace compare
