// What operators are told.
#pragma once

#include <functional>
#include <new>
#include <string>
#include <utility>

namespace engine::transport {

// Something an operator should know of while the context itself goes on. Called on any thread; must not call back.
using WarningHandler = std::function<void(const std::string& text)>;

// Composes warnings and hands them to the handler, if there is one.
class Warnings {
 public:
  explicit Warnings(WarningHandler handler) : m_handler(std::move(handler)) {}

  // compose returns the text; an empty one is not told. False when there was no memory for it, and nothing was told.
  template <typename Compose>
  bool Tell(Compose compose) const noexcept {
    try {
      if (const std::string text = compose(); m_handler && !text.empty()) {
        m_handler(text);
      }
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

 private:
  const WarningHandler m_handler;
};

}  // namespace engine::transport
