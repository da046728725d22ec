#include "source_watch.h"

#include "log_statement.h"
#include "zq/logging/logger.h"

namespace price_server {

void SourceWatch::Install(lbm::ContextAttributes& attributes) {
  lbm_src_notify_func_t function{};
  function.notifyfunc = OnSource;
  function.clientd = this;
  attributes.Set("resolver_source_notification_function", function);
}

int SourceWatch::OnSource(const char* topic, const char*, void* clientd) {
  auto& self = *static_cast<SourceWatch*>(clientd);
  const bool isPosted = self.m_loop.Post([&self, name = std::string(topic)] {
    if (self.m_handler) {
      self.m_handler(name);
    }
  });
  if (!isPosted) {
    ZQLOG(ZQLOG_WARNING, kServerStatement, "Too busy to look at a source on topic=\"" << topic << '"');
  }
  return 0;
}

}  // namespace price_server
