// Everything that the client has to do with one server instance.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "instance_monitor.h"
#include "instance_notices.h"
#include "mailbox.h"
#include "product_inquiry.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "server_life.h"
#include "snapshot.h"

namespace price_client {

// Receives all that the instance sends, and asks it for its products whenever it comes up.
//
// Threads: prices belong to the dispatch thread. All else is put into the mailbox there, and taken in by the other
// functions, which are for one thread.
class Subscription {
 public:
  using Clock = ServerLife::Clock;

  // Prices are not received yet. index names the instance in its mail. manager and mailbox have to outlive it. Throws
  // lbm::LbmError. Without a number of segments: the first one, and those that products name.
  Subscription(ps_ns::LbmClientResourceMgr& manager, Mailbox& mailbox, std::size_t index,
               const ps_ns::ServerInstance& instance, std::optional<unsigned short> segments,
               Clock::duration maxSilence);

  // ---- For the dispatch thread, or when there is none any more ----

  // Receives prices of those segments that are not received yet. Throws lbm::LbmError.
  void StartPrices();

  // No prices arrive when it returns. What mail there is by then has to be taken in before PricesStopped.
  void StopPrices();

  // Makes known to Read what has arrived by now.
  void NotePrices() { m_prices = m_monitor.Prices(); }

  // ---- For the owner's thread ----

  void PricesStopped() { m_life.PricesDropped(); }

  void TakeIn(const Mail& mail, Clock::time_point now);

  // Makes those segments that products name, if the subscription is for these, part of what StartPrices receives.
  // Returns whether there were new ones. Not to run at the same time as that.
  bool AddNamedSegments();

  // To be called now and then, when the mail has been taken in: asks for products when it is time.
  void Pursue(Clock::time_point now);

  // With prices as of the last NotePrices, which is not to run at the same time; without the current rate.
  InstanceSnapshot Read(Clock::time_point now) const;

  // Ends all endpoints. Nothing but Read may be called afterwards.
  void Close();

 private:
  void TakePrice(unsigned segment, const lbm::Message& message) noexcept;
  void TakeStatus(const lbm::Message& message, Clock::time_point now);
  void TakeResponse(const lbm::Message& message);
  void TakeNotice(Mail::Kind kind, std::string_view bytes);
  void Post(Mail::Kind kind, lbm::Message message) const noexcept;

  ps_ns::LbmClientResourceMgr& m_manager;
  Mailbox& m_mailbox;
  const std::size_t m_index;
  const ps_ns::ServerInstance m_instance;
  const bool m_followsProducts;
  std::set<unsigned short> m_segments;

  // The dispatch thread's.
  InstanceMonitor m_monitor;
  std::map<unsigned short, ps_ns::ReceiverPtr> m_priceReceivers;  // by segment

  PricesSnapshot m_prices;
  ServerLife m_life;
  InstanceNotices m_notices;
  std::uint64_t m_runAskedFor = 0;  // of the server, for its products

  std::vector<ps_ns::ReceiverPtr> m_receivers;  // of all but prices
  std::optional<ProductInquiry> m_inquiry;
};

}  // namespace price_client
