// What the manager shows of itself, beside what its context and its endpoints count.
#pragma once

#include <lbm/lbm_cpp>

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "zq/statistics/row.h"

namespace ps_ns {

namespace dispatch_thread_field {
enum : std::size_t {
  kThread,
  kRunning,
  kSockets,
  kBackgroundTasks,
  kInBackgroundTask,
  kTaskRuns,
  kCpuWanted,
  kCpuGot,
  kSpinning
};
}

class ManagerStatistics {
 public:
  explicit ManagerStatistics(lbm::Context& context);

  // The row of the kind "dispatch_thread".
  zq::statistics::Row& DispatchThread() noexcept { return m_dispatchThread; }

  // An option as it is in effect; origin: "default", "argument" or "file PATH".
  void ShowOption(std::string_view name, const std::string& value, const std::string& origin);

  void ShowCommandChannel(const std::string& hostTopic, const std::string& clientTopic,
                          const std::string& responseTopic);
  void HideCommandChannel() noexcept { m_commandChannel.reset(); }

 private:
  const std::string m_context;
  const std::string m_handle;
  zq::statistics::Row m_dispatchThread;
  std::deque<zq::statistics::Row> m_options;
  std::optional<zq::statistics::Row> m_commandChannel;
};

}  // namespace ps_ns
