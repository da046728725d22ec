#include "transport/nats/nats_transport.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

#include "transport/draining_thread.h"
#include "transport/gather.h"
#include "transport/nats/keeper.h"
#include "zq/posix/signals.h"

namespace engine::transport::nats {

namespace {

constexpr int kArrivalsPerDrain = 8;
constexpr int kReadsPerDrain = 4;
constexpr std::size_t kResponsePieceMax = std::size_t{64} << 10;
// Responses of which some pieces have come. A peer has one at a time.
constexpr std::size_t kPartialResponsesMax = 64;

class NatsTransport final : public FarTransport {
 public:
  explicit NatsTransport(const NatsSettings& settings);
  ~NatsTransport() override { Close(std::chrono::milliseconds(0)); }

  const std::string& Identity() const noexcept override { return m_keeper->identity; }
  std::shared_ptr<Publication> Advertise(const PublicationInfo& info) override;
  void Withdraw(Publication& publication) override;
  void Watch(const std::string& topic) override { m_keeper->sources.Watch(topic); }
  void Unwatch(const std::string& topic) override { m_keeper->sources.Unwatch(topic); }
  void WatchAll() override { m_keeper->sources.WatchAll(); }
  void Subscribe(RemoteSource& source) override { m_keeper->sources.Subscribe(static_cast<NatsRemoteSource&>(source)); }
  void Unsubscribe(RemoteSource& source) override {
    m_keeper->sources.Unsubscribe(static_cast<NatsRemoteSource&>(source));
  }
  SendResult Publish(Publication& publication, const OutboundMessage& message, const SendWait& wait) override {
    return m_keeper->publications.Publish(static_cast<NatsPublication&>(publication), message, m_draining.Allowed(wait),
                                          [this] { m_keeper->intake.Read(); });
  }
  bool HasSubscriber(const Publication& publication, std::string_view identity) override {
    return m_keeper->publications.HasSubscriber(static_cast<const NatsPublication&>(publication), identity);
  }
  bool HasSubscribers(const Publication& publication) const noexcept override {
    return static_cast<const NatsPublication&>(publication).wanted.load(std::memory_order_relaxed);
  }
  bool HasRoom(Publication& publication, const OutboundMessage& message) override {
    auto& ours = static_cast<NatsPublication&>(publication);
    // Whoever waits for room may be the only one to see it come.
    return m_keeper->publications.HasRoom(ours, message) ||
           (m_keeper->intake.Read() && m_keeper->publications.HasRoom(ours, message));
  }
  void PublishRegardless(Publication& publication, const OutboundMessage& message) override {
    m_keeper->publications.PublishRegardless(static_cast<NatsPublication&>(publication), message);
  }
  SendResult Respond(ReplyPath& path, std::span<const iovec> pieces, const SendWait& wait) override;
  std::size_t DrainMemory(Listener& listener) override;
  std::size_t Drain(Listener& listener) override;
  int GetDescriptor() const noexcept override { return m_keeper->poller.GetDescriptor(); }
  bool Park() override;
  void Unpark() noexcept override {}
  void Close(std::chrono::milliseconds linger) noexcept override;

 private:
  using Clock = std::chrono::steady_clock;

  struct PartialResponse {
    std::uint64_t request = 0;
    std::vector<std::byte> bytes;
  };

  std::size_t ReadAndHandle(Listener& listener);
  std::size_t HandleArrivals(Listener& listener);
  void Handle(const Arrival& arrival, Listener& listener);
  void OnResponse(std::uint64_t instance, Bytes message, Listener& listener);
  void PutResponse(const NatsReplyPath& path, std::span<const iovec> pieces, std::size_t size);

  const std::shared_ptr<Keeper> m_keeper;
  std::thread m_thread;
  std::atomic<bool> m_closed{false};
  DrainingThread m_draining;

  std::mutex m_wantsMutex;
  std::unordered_map<std::uint32_t, std::shared_ptr<Route>> m_wants;  // by publication; guarded by m_wantsMutex

  // For the thread inside Drain:
  Clock::time_point m_nextRead;
  std::unordered_map<std::uint64_t, PartialResponse> m_responses;  // by responder
};

NatsTransport::NatsTransport(const NatsSettings& settings) : m_keeper(std::make_shared<Keeper>(settings)) {
  const zq::posix::SignalBlocker blocker;  // the client library starts threads as well
  m_keeper->Connect();
  m_thread = std::thread([keeper = m_keeper] { keeper->Run(); });
}

std::shared_ptr<Publication> NatsTransport::Advertise(const PublicationInfo& info) {
  if (info.topic.size() > kNameMax) {
    throw std::invalid_argument("the topic \"" + info.topic.substr(0, 64) + "...\" has " +
                                std::to_string(info.topic.size()) + " bytes; at most " + std::to_string(kNameMax) +
                                " are possible");
  }
  auto publication = m_keeper->publications.Advertise(info, info.id);
  auto want =
      m_keeper->intake.Listen(RouteKind::kWant, m_keeper->subjects.Want(info.topic), nullptr, publication->Id());
  {
    const std::lock_guard lock(m_wantsMutex);
    m_wants.emplace(publication->Id(), std::move(want));
  }
  m_keeper->publications.Announce(*publication);
  return publication;
}

void NatsTransport::Withdraw(Publication& publication) {
  if (m_keeper->publications.Withdraw(static_cast<NatsPublication&>(publication))) {
    const std::lock_guard lock(m_wantsMutex);
    const auto want = m_wants.extract(publication.Id());
    if (!want.empty()) {
      m_keeper->intake.Ignore(want.mapped());
    }
  }
}

SendResult NatsTransport::Respond(ReplyPath& path, std::span<const iovec> pieces, const SendWait& wait) {
  const auto& to = static_cast<NatsReplyPath&>(path);
  const std::size_t size = MessageSize(pieces);
  const SendWait allowed = m_draining.Allowed(wait);
  Outbox& outbox = m_keeper->outbox;
  for (Outbox::Lock lock = outbox.Acquire();;) {
    if (outbox.Closed()) {
      return SendResult::kClosed;
    }
    if (to.requester->Down()) {
      return SendResult::kPeerGone;
    }
    if (outbox.Connected() && outbox.HasRoom(size)) {
      PutResponse(to, pieces, size);
      outbox.Send(std::move(lock));
      return SendResult::kSent;
    }
    if (!allowed.GoesOn()) {
      return SendResult::kWouldBlock;
    }
    if (!outbox.AwaitRoom(lock)) {
      lock.unlock();
      m_keeper->intake.Read();
      lock.lock();
    }
  }
}

void NatsTransport::PutResponse(const NatsReplyPath& path, std::span<const iovec> pieces, std::size_t size) {
  const std::string& identity = m_keeper->identity;
  PieceCursor cursor(pieces);
  std::vector<iovec> parts;
  wire::Response response{.request = path.request, .total = static_cast<std::uint32_t>(size)};
  response.identityLength = static_cast<std::uint32_t>(identity.size());
  do {
    const std::size_t length = std::min(size - response.offset, kResponsePieceMax);
    auto message = wire::Begin(wire::Kind::kResponse, m_keeper->instance);
    wire::AppendValue(message, response);
    wire::Append(message, identity);
    const std::size_t begin = message.size();
    message.resize(begin + length);
    parts.clear();
    cursor.Take(length, pieces.size(), parts);
    CopyPieces(parts, message.data() + begin);
    m_keeper->outbox.Put(m_keeper->subjects.Inbox(path.requester->Instance()), std::move(message));
    response.offset += static_cast<std::uint32_t>(length);
  } while (response.offset < size);
}

bool NatsTransport::Park() {
  return m_keeper->intake.Empty() && !m_keeper->publications.HasNews() && !m_keeper->sources.IsUntidy();
}

// The socket is looked at now and then: a context that spins finds what comes there without delay.
std::size_t NatsTransport::DrainMemory(Listener& listener) {
  const auto now = Clock::now();
  if (now < m_nextRead && m_keeper->intake.Empty()) {
    return m_keeper->sources.GiveWithheld(listener);
  }
  m_nextRead = now + m_keeper->settings.pollInterval;
  return ReadAndHandle(listener);
}

std::size_t NatsTransport::Drain(Listener& listener) {
  m_keeper->arrived.Clear();
  return ReadAndHandle(listener);
}

std::size_t NatsTransport::ReadAndHandle(Listener& listener) {
  const DrainingThread::Scope scope(m_draining);
  m_keeper->NoteDrain();
  if (m_closed.load(std::memory_order_relaxed)) {
    return 0;
  }
  std::size_t done = HandleArrivals(listener);
  for (int reads = 0; done == 0 && reads < kReadsPerDrain && m_keeper->intake.Read(); ++reads) {
    done += HandleArrivals(listener);
  }
  done += m_keeper->sources.GiveWithheld(listener);
  if (m_keeper->publications.HasNews()) {
    done += m_keeper->publications.Report(listener);
  }
  if (m_keeper->sources.IsUntidy()) {
    done += m_keeper->sources.TidyUp(m_keeper->intake.Empty(), listener);
  }
  return done;
}

std::size_t NatsTransport::HandleArrivals(Listener& listener) {
  std::size_t done = 0;
  for (int count = 0; count < kArrivalsPerDrain && !m_closed; ++count) {
    const auto arrival = m_keeper->intake.Take();
    if (!arrival) {
      break;
    }
    ++done;
    try {
      Handle(*arrival, listener);
    } catch (const Fault& fault) {
      m_keeper->TellStranger(*arrival, fault);
    } catch (const std::bad_alloc&) {
      // The message is as good as lost on its way.
    }
  }
  return done;
}

void NatsTransport::Handle(const Arrival& arrival, Listener& listener) {
  Bytes bytes = BytesOf(arrival.message);
  const wire::Prologue prologue = wire::TakePrologue(bytes);
  const bool inbox = arrival.route->kind == RouteKind::kInbox;
  switch (prologue.kind) {
    case wire::Kind::kData:
      if (arrival.route->kind == RouteKind::kData) {
        m_keeper->sources.OnData(arrival.route->source, bytes, listener);
      }
      return;
    case wire::Kind::kAnnounce:
      return m_keeper->sources.OnAnnounce(prologue.instance, bytes, listener);
    case wire::Kind::kGone:
      return m_keeper->sources.OnGone(prologue.instance, bytes, listener);
    case wire::Kind::kAlive:
      return m_keeper->sources.OnAlive(prologue.instance, bytes, listener);
    case wire::Kind::kBye:
      return m_keeper->sources.OnBye(prologue.instance, listener);
    case wire::Kind::kAccept:
      return inbox ? m_keeper->sources.OnAccept(prologue.instance, bytes, listener) : void();
    case wire::Kind::kResponse:
      return inbox ? OnResponse(prologue.instance, bytes, listener) : void();
    default:
      throw Fault("it has no known kind");
  }
}

void NatsTransport::OnResponse(std::uint64_t instance, Bytes message, Listener& listener) {
  const auto response = wire::Take<wire::Response>(message);
  const std::string identity(wire::TakeText(message, response.identityLength));
  if (response.total > kMessageMax || response.offset > response.total ||
      message.size() > response.total - response.offset) {
    throw Fault("a response has an impossible size");
  }
  if (message.size() == response.total) {
    return listener.OnResponse(response.request, identity, message);
  }
  if (response.offset == 0) {
    if (m_responses.size() >= kPartialResponsesMax) {
      m_responses.clear();  // of responders that went halfway
    }
    m_responses[instance] = {response.request, {}};
  }
  const auto partial = m_responses.find(instance);
  if (partial == m_responses.end() || partial->second.request != response.request ||
      partial->second.bytes.size() != response.offset) {
    return;  // a piece was lost, and so is the response
  }
  wire::Append(partial->second.bytes, message);
  if (partial->second.bytes.size() == response.total) {
    const auto whole = m_responses.extract(partial);
    listener.OnResponse(response.request, identity, whole.mapped().bytes);
  }
}

void NatsTransport::Close(std::chrono::milliseconds linger) noexcept {
  if (m_closed.exchange(true)) {
    return;
  }
  const auto deadline = Clock::now() + linger;
  try {
    for (const auto& publication : m_keeper->publications.All()) {
      Withdraw(*publication);
    }
    m_keeper->sources.SayGoodbye();
    m_keeper->publications.SayGoodbye();
  } catch (const std::exception& error) {
    m_keeper->warnings.Tell([&] { return std::string("left the domain without a word: ") + TextOf(error); });
  }
  m_keeper->outbox.Close();
  if (m_keeper->Stop(deadline)) {
    m_thread.join();
  } else {
    LetGo(m_keeper, std::move(m_thread));
  }
}

}  // namespace

std::unique_ptr<FarTransport> JoinNatsDomain(const NatsSettings& settings) {
  static_cast<void>(Nats());  // so that its absence is an error, not another connection that fails
  return std::make_unique<NatsTransport>(settings);
}

}  // namespace engine::transport::nats
