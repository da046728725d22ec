#include "transport/combined/combined_transport.h"

#include <algorithm>
#include <mutex>
#include <thread>
#include <utility>

#include "system/poller.h"
#include "transport/draining_thread.h"

namespace engine::transport::combined {

namespace {

constexpr Poller::Token kNearToken = 0;
constexpr Poller::Token kFarToken = 1;

// Whoever spins looks at what is near each time, and at what is far each so many times.
constexpr unsigned kFarEvery = 256;

// A send that both have to take, and one of them cannot yet, looks again after this time.
constexpr std::chrono::milliseconds kRetry{1};

class CombinedPublication final : public Publication {
 public:
  CombinedPublication(std::shared_ptr<Publication> near, std::shared_ptr<Publication> far, Pacing pacing)
      : Publication(near->Id(), near->Session()), m_near(std::move(near)), m_far(std::move(far)), m_pacing(pacing) {}

  Publication& Near() const noexcept { return *m_near; }
  Publication& Far() const noexcept { return *m_far; }
  Pacing GetPacing() const noexcept { return m_pacing; }

  std::mutex mutex;  // of sends that go both ways, so that both have the same order

 private:
  const std::shared_ptr<Publication> m_near;
  const std::shared_ptr<Publication> m_far;
  const Pacing m_pacing;
};

// Marks what comes from far, so that what is done with it later goes there.
class FarListener final : public Listener {
 public:
  FarListener(Listener& listener, Transport& far) : m_listener(listener), m_far(far) {}

  void OnSourceUp(const std::shared_ptr<RemoteSource>& source) override {
    source->carrier = &m_far;
    m_listener.OnSourceUp(source);
  }
  void OnSourceDown(const std::shared_ptr<RemoteSource>& source) override { m_listener.OnSourceDown(source); }
  bool Takes(RemoteSource& source) override { return m_listener.Takes(source); }
  bool MayRefuse() const noexcept override { return m_listener.MayRefuse(); }
  void OnMessage(RemoteSource& source, InboundMessage& message) override {
    if (message.replyPath != nullptr) {
      message.replyPath->carrier = &m_far;
    }
    m_listener.OnMessage(source, message);
  }
  void OnLoss(RemoteSource& source, std::uint32_t first, std::uint32_t count) override {
    m_listener.OnLoss(source, first, count);
  }
  void OnResponse(std::uint64_t requestId, const std::string& responder, std::span<const std::byte> payload) override {
    m_listener.OnResponse(requestId, responder, payload);
  }
  void OnSubscriberJoined(Publication& publication, const std::string& contextName) override {
    m_listener.OnSubscriberJoined(publication, contextName);
  }
  void OnSubscriberLeft(Publication& publication, const std::string& contextName) override {
    m_listener.OnSubscriberLeft(publication, contextName);
  }
  void OnWritable(Publication& publication) override { m_listener.OnWritable(publication); }

 private:
  Listener& m_listener;
  Transport& m_far;
};

class CombinedTransport final : public Transport {
 public:
  CombinedTransport(std::unique_ptr<Transport> near, std::unique_ptr<FarTransport> far)
      : m_near(std::move(near)), m_far(std::move(far)) {
    m_poller.Add(m_near->GetDescriptor(), kNearToken, EPOLLIN);
    m_poller.Add(m_far->GetDescriptor(), kFarToken, EPOLLIN);
  }

  const std::string& Identity() const noexcept override { return m_near->Identity(); }
  std::shared_ptr<Publication> Advertise(const PublicationInfo& info) override;
  void Withdraw(Publication& publication) override {
    m_near->Withdraw(static_cast<CombinedPublication&>(publication).Near());
    m_far->Withdraw(static_cast<CombinedPublication&>(publication).Far());
  }
  void Watch(const std::string& topic) override {
    m_near->Watch(topic);
    m_far->Watch(topic);
  }
  void Unwatch(const std::string& topic) override {
    m_near->Unwatch(topic);
    m_far->Unwatch(topic);
  }
  void WatchAll() override {
    m_near->WatchAll();
    m_far->WatchAll();
  }
  void Subscribe(RemoteSource& source) override { CarrierOf(source).Subscribe(source); }
  void Unsubscribe(RemoteSource& source) override { CarrierOf(source).Unsubscribe(source); }
  SendResult Publish(Publication& publication, const OutboundMessage& message, const SendWait& wait) override;
  bool HasSubscriber(const Publication& publication, std::string_view identity) override {
    return m_near->HasSubscriber(static_cast<const CombinedPublication&>(publication).Near(), identity);
  }
  SendResult Respond(ReplyPath& path, std::span<const iovec> pieces, const SendWait& wait) override {
    return CarrierOf(path).Respond(path, pieces, wait);
  }
  std::size_t DrainMemory(Listener& listener) override;
  std::size_t Drain(Listener& listener) override;
  int GetDescriptor() const noexcept override { return m_poller.GetDescriptor(); }
  bool Park() override;
  void Unpark() noexcept override;
  void Close(std::chrono::milliseconds linger) noexcept override;

 private:
  SendResult TryBoth(CombinedPublication& publication, const OutboundMessage& message);

  template <typename Found>
  Transport& CarrierOf(const Found& found) const noexcept {
    return found.carrier != nullptr ? *found.carrier : *m_near;
  }

  const std::unique_ptr<Transport> m_near;
  const std::unique_ptr<FarTransport> m_far;
  Poller m_poller;
  DrainingThread m_draining;
  unsigned m_looks = 0;  // for the thread inside Drain
};

std::shared_ptr<Publication> CombinedTransport::Advertise(const PublicationInfo& info) {
  auto near = m_near->Advertise(info);
  PublicationInfo same = info;
  same.id = near->Id();
  same.statistics = nullptr;  // every message goes to the near one as well
  try {
    return std::make_shared<CombinedPublication>(near, m_far->Advertise(same), info.pacing);
  } catch (...) {
    m_near->Withdraw(*near);
    throw;
  }
}

SendResult CombinedTransport::Publish(Publication& publication, const OutboundMessage& message, const SendWait& wait) {
  auto& both = static_cast<CombinedPublication&>(publication);
  if (!m_far->HasSubscribers(both.Far())) {
    return m_near->Publish(both.Near(), message, wait);
  }
  for (;;) {
    const SendResult result = TryBoth(both, message);
    if (result != SendResult::kWouldBlock || !m_draining.Allowed(wait).GoesOn()) {
      return result;
    }
    std::this_thread::sleep_for(kRetry);
  }
}

// Both or none.
SendResult CombinedTransport::TryBoth(CombinedPublication& publication, const OutboundMessage& message) {
  const std::lock_guard lock(publication.mutex);
  if (publication.GetPacing() == Pacing::kReceiver && !m_far->HasRoom(publication.Far(), message)) {
    return SendResult::kWouldBlock;
  }
  const SendResult result = m_near->Publish(publication.Near(), message, {});
  if (result == SendResult::kSent) {
    m_far->PublishRegardless(publication.Far(), message);
  }
  return result;
}

std::size_t CombinedTransport::DrainMemory(Listener& listener) {
  const DrainingThread::Scope scope(m_draining);
  const std::size_t done = m_near->DrainMemory(listener);
  if (++m_looks % kFarEvery != 0) {
    return done;
  }
  FarListener far(listener, *m_far);
  return done + m_far->DrainMemory(far);
}

std::size_t CombinedTransport::Drain(Listener& listener) {
  const DrainingThread::Scope scope(m_draining);
  FarListener far(listener, *m_far);
  const std::size_t done = m_near->Drain(listener);
  return done + m_far->Drain(far);
}

bool CombinedTransport::Park() {
  if (!m_near->Park()) {
    return false;
  }
  if (m_far->Park()) {
    return true;
  }
  m_near->Unpark();
  return false;
}

void CombinedTransport::Unpark() noexcept {
  m_far->Unpark();
  m_near->Unpark();
}

void CombinedTransport::Close(std::chrono::milliseconds linger) noexcept {
  const auto deadline = std::chrono::steady_clock::now() + linger;
  m_near->Close(linger);
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  m_far->Close(std::max(left, std::chrono::milliseconds(0)));
}

}  // namespace

std::unique_ptr<Transport> Combine(std::unique_ptr<Transport> near, std::unique_ptr<FarTransport> far) {
  return std::make_unique<CombinedTransport>(std::move(near), std::move(far));
}

}  // namespace engine::transport::combined
