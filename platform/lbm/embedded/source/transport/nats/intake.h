// What has arrived and not been handled yet.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "transport/nats/connection.h"
#include "zq/posix/event.h"

namespace engine::transport::nats {

class NatsRemoteSource;

// Kinds of subjects that a context listens to, in the order in which what arrived together is handled: an acceptance
// before the data that it begins, and all data of a source before the word that it is gone.
enum class RouteKind : std::uint8_t { kInbox, kWant, kData, kSource, kAlive };
inline constexpr std::size_t kRouteKinds = 5;

struct Route {
  RouteKind kind;
  std::string subject;
  std::shared_ptr<NatsRemoteSource> source;  // of kData
  std::uint32_t publication = 0;             // of kWant; 0: all
  SubscriptionHandle handle;                 // guarded by the intake
};

struct Arrival {
  std::shared_ptr<const Route> route;
  Message message;
};

// Listens to subjects on whatever connection there is, and keeps what arrived in order.
//
// Threads: any.
class Intake {
 public:
  // Sees every message as soon as it has been read, on the thread that read it, with the intake's lock held; it may use
  // the outbox, and nothing else. False: the message is not to be kept.
  using Filter = std::function<bool(const Arrival& arrival, std::size_t bytesKept)>;

  // arrived is notified when something comes to be kept.
  Intake(zq::posix::Event& arrived, Filter filter) : m_arrived(arrived), m_filter(std::move(filter)) {
    m_queue.reserve(kQueueUsual);
  }

  // What follows on the connection comes after the subscription.
  std::shared_ptr<Route> Listen(RouteKind kind, std::string subject, std::shared_ptr<NatsRemoteSource> source = nullptr,
                                std::uint32_t publication = 0);
  void Ignore(const std::shared_ptr<Route>& route);

  // Null: there is none. What had arrived stays.
  void SetConnection(std::shared_ptr<Connection> connection);

  // Reads what the socket has, once, without waiting. Whether there was something; false while another thread reads.
  bool Read();

  std::optional<Arrival> Take();
  bool Empty();

 private:
  static constexpr std::size_t kQueueUsual = 64;  // messages

  void Collect(std::size_t expected);
  bool CollectFrom(const std::shared_ptr<Route>& route, std::size_t& expected);

  zq::posix::Event& m_arrived;
  const Filter m_filter;

  std::mutex m_mutex;
  // Guarded by m_mutex:
  std::shared_ptr<Connection> m_connection;
  std::array<std::vector<std::shared_ptr<Route>>, kRouteKinds> m_routes;  // the busiest first
  std::vector<Arrival> m_queue;
  std::size_t m_next = 0;   // of m_queue
  std::size_t m_bytes = 0;  // from m_next on
};

}  // namespace engine::transport::nats
