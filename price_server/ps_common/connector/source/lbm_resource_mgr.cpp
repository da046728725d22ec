#include "ps_common/connector/lbm_resource_mgr.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

namespace ps_ns {

LbmResourceMgr::LbmResourceMgr(bool isServer, unsigned int lbmProcessEventTimeout_ms,
                               BackgroundTaskExecutor backgroundTaskExecutor, unsigned int maxTasksToExecute)
    : m_lbmProcessEventTimeout_ms(lbmProcessEventTimeout_ms),
      m_backgroundTaskExecutor(std::move(backgroundTaskExecutor)),
      m_maxTasksToExecute(maxTasksToExecute),
      m_isServer(isServer) {}

SourcePtr LbmResourceMgr::GetSourceByTopicName(const std::string& topicName) const {
  return Find(m_sourcesByTopicName, topicName);
}

std::map<std::string, std::string> LbmResourceMgr::GetAllContextAttributes(lbm_context_t* context) {
  constexpr std::size_t kUsualCount = 128;
  std::vector<lbm_option_text_t> options(kUsualCount);
  std::size_t count = options.size();
  while (lbm::details::Failed(lbm_context_str_getopt_all(context, options.data(), &count))) {
    // With too little room the call says how much it needs; any other failure leaves the count alone.
    if (count <= options.size()) {
      lbm::details::ThrowLbmError("Failed to get LBM context attributes");
    }
    options.resize(count);
  }

  std::map<std::string, std::string> attributes;
  for (std::size_t i = 0; i < count; ++i) {
    attributes.emplace(options[i].name, options[i].value);
  }
  return attributes;
}

std::string LbmResourceMgr::GetContextAttribute(lbm_context_t* context, const std::string& name) {
  std::array<char, LBM_OPTION_VALUE_MAX> value{};
  std::size_t length = value.size();
  lbm::details::ThrowIfFailed(lbm_context_str_getopt(context, name.c_str(), value.data(), &length),
                              "Failed to get LBM context attribute");
  // A value may fill the buffer, without a terminating zero.
  return std::string(value.data(), strnlen(value.data(), value.size()));
}

}  // namespace ps_ns
