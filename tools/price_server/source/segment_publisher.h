// The sources of one server instance.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "feed/price_message.h"
#include "lbm/context.h"
#include "lbm/source.h"
#include "ps_common/connector/server_instance.h"

namespace price_server {

// One source for each segment of the instance, and the numbering of what is sent on it.
//
// Threads: for one thread; source events may come on another at the same time. ctx has to outlive it.
class SegmentPublisher {
 public:
  // session names this run, see feed::PriceMessage. Throws lbm::LbmError.
  SegmentPublisher(lbm::Context& ctx, const ps_ns::ServerInstance& instance, unsigned short segments,
                   std::uint64_t session);

  // Sends without waiting. false when there is no room: nothing was sent, the same update may be tried again. Throws
  // lbm::LbmError.
  bool Send(unsigned short segment, const feed::Symbol& symbol, feed::Date date, feed::Price price);

  bool EverySegmentHasSubscriber() const;

 private:
  struct Segment {
    std::atomic<int> subscribers{0};
    feed::PriceMessage message;
    std::unique_ptr<lbm::Source> source;  // last: its callback uses the count
  };

  std::vector<std::unique_ptr<Segment>> m_segments;
};

}  // namespace price_server
