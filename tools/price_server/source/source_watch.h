// News of the sources that a context finds.
#pragma once

#include <functional>
#include <string>

#include "lbm/attributes.h"
#include "task_loop.h"

namespace price_server {

// Threads: the handler is called on the loop's.
class SourceWatch {
 public:
  using Handler = std::function<void(const std::string& topic)>;

  explicit SourceWatch(TaskLoop& loop) : m_loop(loop) {}
  SourceWatch(const SourceWatch&) = delete;
  SourceWatch& operator=(const SourceWatch&) = delete;

  // For a context that is yet to be made, which this has to outlive. Throws lbm::LbmError.
  void Install(lbm::ContextAttributes& attributes);

  // Called for every source found, the ones found before the loop was started included. While the loop is not running.
  void SetHandler(Handler handler) { m_handler = std::move(handler); }

 private:
  static int OnSource(const char* topic, const char* source, void* clientd);

  TaskLoop& m_loop;
  Handler m_handler;
};

}  // namespace price_server
