#include "transport/nats/sources.h"

#include <algorithm>
#include <utility>

#include "transport/nats/publications.h"

namespace engine::transport::nats {

namespace {

constexpr std::size_t kSubscriptionsMax = 400;  // in one message

}  // namespace

void NatsRemoteSource::OnAccept(const wire::Accept& accept, Listener& listener) {
  if (accept.token != m_wanted || accept.token == 0) {
    return;  // of an earlier subscription: its position and credit are not those of this one
  }
  if (Active()) {
    // It had forgotten the subscription meanwhile, or answers twice.
    LoseUpTo(accept.progress.next, listener);
  } else {
    m_expected = accept.progress.next;
    m_partial = {};
    m_accepted = accept.token;
  }
  m_creditBytes = accept.creditBytes;
  m_consumed = std::max(m_consumed.load(), accept.progress.position);
  m_credited = m_consumed;
}

void NatsRemoteSource::OnProgress(const wire::Progress& progress, Listener& listener) {
  if (Active()) {
    LoseUpTo(progress.next, listener);
    Advance(progress.position, listener);
  }
}

// Everything before that position was delivered or is lost. What the listener has no room for is not told as consumed.
void NatsRemoteSource::Advance(std::uint64_t position, Listener& listener) {
  m_delivered = std::max({m_delivered, m_consumed.load(), position});
  m_withheld = Waits() && !listener.Takes(*this);
  if (!m_withheld) {
    m_consumed = m_delivered;
  }
}

void NatsRemoteSource::LoseUpTo(std::uint32_t sequence, Listener& listener) {
  if (IsAhead(sequence)) {
    m_partial = {};
    const std::uint32_t first = std::exchange(m_expected, sequence);
    listener.OnLoss(*this, first, sequence - first);
  }
}

void NatsRemoteSource::OnData(const std::shared_ptr<NatsRemoteSource>& self, Bytes message, Listener& listener) {
  const auto data = wire::Take<wire::Data>(message);
  const std::uint64_t end = data.position + message.size();
  m_audience.store(data.audience, std::memory_order_relaxed);
  while (!message.empty() && Active()) {
    OnFrame(self, message, listener);
  }
  if (Active()) {
    Advance(end, listener);
  }
}

void NatsRemoteSource::OnFrame(const std::shared_ptr<NatsRemoteSource>& self, Bytes& message, Listener& listener) {
  const auto frame = wire::Take<wire::Frame>(message);
  InboundMessage inbound;
  inbound.sequence = frame.sequence;
  std::uint64_t request = 0;
  if ((frame.flags & wire::kIsRequest) != 0) {
    request = wire::Take<std::uint64_t>(message);
  }
  if ((frame.flags & wire::kHasChannel) != 0) {
    inbound.channel = wire::Take<std::uint32_t>(message);
  }
  const Bytes fragment = wire::TakeBytes(message, frame.size);
  if (frame.total > kMessageMax) {
    throw Fault("a message has an impossible size");
  }
  if (frame.sequence != m_expected && !IsAhead(frame.sequence)) {
    return;  // from before the subscription
  }
  LoseUpTo(frame.sequence, listener);
  inbound.payload = frame.size == frame.total ? fragment : Assemble(frame, fragment);
  if (inbound.payload.size() != frame.total || !Active()) {
    return;
  }
  ++m_expected;
  if (request != 0) {
    inbound.replyPath = std::make_shared<NatsReplyPath>(self, request);
  }
  inbound.pacing = Waits() ? Pacing::kReceiver : Pacing::kSource;
  listener.OnMessage(*this, inbound);
  if (frame.size != frame.total) {
    m_partial = {};
  }
}

// What has come so far of the message that is expected next. With a fragment missing it never adds up, and the next
// message tells of the loss.
Bytes NatsRemoteSource::Assemble(const wire::Frame& frame, Bytes fragment) {
  if (m_partial.total != frame.total) {
    m_partial = {.total = frame.total, .bytes = {}};
  }
  if (fragment.size() > m_partial.total - m_partial.bytes.size()) {
    throw Fault("the fragments of a message do not add up");
  }
  wire::Append(m_partial.bytes, fragment);
  return m_partial.bytes;
}

bool NatsRemoteSource::TakeCreditDue() noexcept {
  const std::uint64_t consumed = m_consumed;
  if (m_creditBytes == 0 || !Active() || consumed - m_credited < m_creditBytes) {
    return false;
  }
  m_credited = consumed;
  return true;
}

SourceTable::SourceTable(const NatsSettings& settings, const Subjects& subjects, std::uint64_t instance,
                         const std::string& subscriberName, Outbox& outbox, Intake& intake, zq::posix::Event& arrived)
    : m_settings(settings),
      m_subjects(subjects),
      m_instance(instance),
      m_subscriberName(subscriberName),
      m_outbox(outbox),
      m_intake(intake),
      m_arrived(arrived),
      m_silentTicksMax(SilentTicksMax(settings)) {}

void SourceTable::Ask(const std::string& subject) {
  Outbox::Lock lock = m_outbox.Acquire();
  m_outbox.Put(subject, wire::Begin(wire::Kind::kWant, m_instance));
  m_outbox.Send(std::move(lock));
}

void SourceTable::Watch(const std::string& topic) {
  const std::string subject = m_subjects.Source(topic);
  if (subject.size() > kSubjectMax) {
    return;  // there can be no source of it
  }
  const std::lock_guard lock(m_mutex);
  const auto [watched, added] = m_watched.try_emplace(topic);
  if (added) {
    watched->second.route = m_intake.Listen(RouteKind::kSource, subject);
    Ask(m_subjects.Want(topic));
  }
}

void SourceTable::Unwatch(const std::string& topic) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_watched.find(topic);
  if (found != m_watched.end()) {
    m_intake.Ignore(found->second.route);
    m_watched.erase(found);
    m_unwatched = true;
    m_arrived.Notify();
  }
}

void SourceTable::WatchAll() {
  const std::lock_guard lock(m_mutex);
  if (m_allSources == nullptr) {
    m_allSources = m_intake.Listen(RouteKind::kSource, m_subjects.AllSources());
    Ask(m_subjects.WantAll());
  }
}

void SourceTable::Subscribe(NatsRemoteSource& source) {
  const std::lock_guard lock(m_mutex);
  const auto peer = m_peers.find(source.Instance());
  if (source.m_route != nullptr || source.Down() || peer == m_peers.end()) {
    return;
  }
  const auto self = peer->second.sources.find(source.Id());
  if (self == peer->second.sources.end()) {
    return;
  }
  m_lastToken = std::max(m_lastToken + 1, std::uint32_t{1});
  source.m_wanted = m_lastToken;
  source.m_route =
      m_intake.Listen(RouteKind::kData, m_subjects.Data(source.Topic(), source.Instance(), source.Id()), self->second);
  PutInterest(source);
}

void SourceTable::Unsubscribe(NatsRemoteSource& source) {
  const std::lock_guard lock(m_mutex);
  if (source.m_route != nullptr) {
    Detach(source);
    PutInterest(source);
  }
}

void SourceTable::Detach(NatsRemoteSource& source) {
  source.m_wanted = 0;
  if (source.m_route != nullptr) {
    m_intake.Ignore(std::exchange(source.m_route, nullptr));
  }
}

void SourceTable::PutInterest(const NatsRemoteSource& source) {
  const auto peer = m_peers.find(source.Instance());
  if (peer != m_peers.end()) {
    const wire::Subscription subscription = source.GetSubscription();
    PutInterest(peer->second, {&subscription, 1});
  }
}

void SourceTable::PutInterest(const Peer& peer, std::span<const wire::Subscription> subscriptions) {
  m_interest.clear();
  wire::AppendValue(m_interest, wire::Prologue{.kind = wire::Kind::kInterest, .instance = m_instance});
  wire::AppendValue(m_interest, wire::Interest{.nameLength = static_cast<std::uint32_t>(m_subscriberName.size()),
                                               .count = static_cast<std::uint32_t>(subscriptions.size())});
  wire::Append(m_interest, m_subscriberName);
  wire::Append(m_interest, std::as_bytes(subscriptions));
  Outbox::Lock lock = m_outbox.Acquire();
  m_outbox.Put(peer.inbox, m_interest);
  m_outbox.Send(std::move(lock));
}

std::shared_ptr<NatsRemoteSource> SourceTable::Find(std::uint64_t instance, std::uint32_t id) {
  const std::lock_guard lock(m_mutex);
  const auto peer = m_peers.find(instance);
  if (peer == m_peers.end()) {
    return nullptr;
  }
  peer->second.silentTicks = 0;
  const auto source = peer->second.sources.find(id);
  return source == peer->second.sources.end() ? nullptr : source->second;
}

void SourceTable::OnAnnounce(std::uint64_t instance, Bytes message, Listener& listener) {
  const auto announce = wire::Take<wire::Announce>(message);
  const std::string identity(wire::TakeText(message, announce.identityLength));
  std::string topic(wire::TakeText(message, announce.topicLength));
  if (announce.place != 0 && announce.place == m_settings.place) {
    return;
  }
  std::shared_ptr<NatsRemoteSource> source;
  {
    const std::lock_guard lock(m_mutex);
    if (m_allSources == nullptr && !m_watched.contains(topic)) {
      return;
    }
    if (m_subjects.Source(topic).size() > kSubjectMax) {
      throw Fault("the topic of a source is longer than a subject can be");
    }
    const auto [peer, added] = m_peers.try_emplace(instance);
    if (added) {
      peer->second.identity = identity;
      peer->second.inbox = std::make_shared<const std::string>(m_subjects.Inbox(instance));
      peer->second.alive = m_intake.Listen(RouteKind::kAlive, m_subjects.Alive(instance));
      m_outbox.Send();
    }
    peer->second.silentTicks = 0;
    auto& known = peer->second.sources[announce.source];
    if (known != nullptr) {
      return;
    }
    known = std::make_shared<NatsRemoteSource>(
        std::move(topic), peer->second.identity + ':' + std::to_string(announce.source), instance, announce.source);
    source = known;
  }
  listener.OnSourceUp(source);
}

void SourceTable::OnGone(std::uint64_t instance, Bytes message, Listener& listener) {
  const auto progress = wire::Take<wire::Progress>(message);
  if (const auto source = Find(instance, progress.source)) {
    source->OnProgress(progress, listener);
    End(source, listener);
  }
}

void SourceTable::End(const std::shared_ptr<NatsRemoteSource>& source, Listener& listener) {
  {
    const std::lock_guard lock(m_mutex);
    const auto peer = m_peers.find(source->Instance());
    if (peer != m_peers.end()) {
      peer->second.sources.erase(source->Id());
    }
    source->GoDown();
    Detach(*source);
    ForgetPeers();
  }
  listener.OnSourceDown(source);
}

void SourceTable::OnAccept(std::uint64_t instance, Bytes message, Listener& listener) {
  const auto accept = wire::Take<wire::Accept>(message);
  if (const auto source = Find(instance, accept.progress.source)) {
    source->OnAccept(accept, listener);
  }
}

void SourceTable::OnAlive(std::uint64_t instance, Bytes message, Listener& listener) {
  static_cast<void>(Find(instance, 0));
  while (!message.empty()) {
    const auto progress = wire::Take<wire::Progress>(message);
    if (const auto source = Find(instance, progress.source)) {
      source->OnProgress(progress, listener);
      NoteWithheld(source);
    }
  }
}

void SourceTable::OnBye(std::uint64_t instance, Listener& listener) {
  Sources sources;
  {
    const std::lock_guard lock(m_mutex);
    if (const auto peer = m_peers.find(instance); peer != m_peers.end()) {
      for (const auto& [id, source] : peer->second.sources) {
        sources.push_back(source);
      }
    }
  }
  for (const auto& source : sources) {
    End(source, listener);
  }
}

void SourceTable::OnData(const std::shared_ptr<NatsRemoteSource>& source, Bytes message, Listener& listener) {
  source->OnData(source, message, listener);
  NoteWithheld(source);
  PutCreditDue(*source);
}

void SourceTable::PutCreditDue(NatsRemoteSource& source) {
  if (source.TakeCreditDue()) {
    const std::lock_guard lock(m_mutex);
    if (source.m_route != nullptr) {
      PutInterest(source);
    }
  }
}

void SourceTable::NoteWithheld(const std::shared_ptr<NatsRemoteSource>& source) {
  if (source->Withheld() && std::find(m_withheld.begin(), m_withheld.end(), source) == m_withheld.end()) {
    m_withheld.push_back(source);
  }
}

std::size_t SourceTable::GiveWithheld(Listener& listener) {
  return std::erase_if(m_withheld, [&](const auto& source) {
    source->GiveWithheld(listener);
    if (!source->Withheld()) {
      PutCreditDue(*source);
    }
    return !source->Withheld();
  });
}

bool SourceTable::IsUntidy() {
  const std::lock_guard lock(m_mutex);
  return m_unwatched || m_ticksDue != 0;
}

std::size_t SourceTable::TidyUp(bool caughtUp, Listener& listener) {
  Sources gone;
  {
    const std::lock_guard lock(m_mutex);
    if (m_unwatched) {
      gone = TakeUnwatched();
    }
    if (m_ticksDue != 0 && caughtUp) {
      const Sources silent = TakeSilent();
      gone.insert(gone.end(), silent.begin(), silent.end());
    }
  }
  for (const auto& source : gone) {
    End(source, listener);
  }
  return gone.size();
}

SourceTable::Sources SourceTable::TakeUnwatched() {
  m_unwatched = false;
  Sources sources;
  if (m_allSources == nullptr) {
    for (const auto& [instance, peer] : m_peers) {
      for (const auto& [id, source] : peer.sources) {
        if (!m_watched.contains(source->Topic())) {
          sources.push_back(source);
        }
      }
    }
  }
  return sources;
}

SourceTable::Sources SourceTable::TakeSilent() {
  // However many intervals this context has missed itself, it cannot tell whether the others were silent meanwhile.
  m_ticksDue = 0;
  Sources sources;
  for (auto& [instance, peer] : m_peers) {
    if (++peer.silentTicks > m_silentTicksMax) {
      for (const auto& [id, source] : peer.sources) {
        sources.push_back(source);
      }
    }
  }
  return sources;
}

void SourceTable::ForgetPeers() {
  for (auto peer = m_peers.begin(); peer != m_peers.end();) {
    if (peer->second.sources.empty()) {
      m_intake.Ignore(peer->second.alive);
      peer = m_peers.erase(peer);
    } else {
      ++peer;
    }
  }
}

bool SourceTable::HasSources(const std::string& topic) const {
  return std::any_of(m_peers.begin(), m_peers.end(), [&](const auto& peer) {
    return std::any_of(peer.second.sources.begin(), peer.second.sources.end(),
                       [&](const auto& source) { return source.second->Topic() == topic; });
  });
}

void SourceTable::PutAllInterest() {
  for (const auto& [instance, peer] : m_peers) {
    std::vector<wire::Subscription> subscriptions;
    for (const auto& [id, source] : peer.sources) {
      if (source->m_route != nullptr) {
        subscriptions.push_back(source->GetSubscription());
      }
      if (subscriptions.size() == kSubscriptionsMax) {
        PutInterest(peer, subscriptions);
        subscriptions.clear();
      }
    }
    if (!subscriptions.empty()) {
      PutInterest(peer, subscriptions);
    }
  }
}

void SourceTable::Connected() {
  const std::lock_guard lock(m_mutex);
  for (auto& [topic, watched] : m_watched) {
    watched.ticks = 0;
    Ask(m_subjects.Want(topic));
  }
  if (m_allSources != nullptr) {
    m_allTicks = 0;
    Ask(m_subjects.WantAll());
  }
  PutAllInterest();
}

void SourceTable::Tick() {
  const std::lock_guard lock(m_mutex);
  for (auto& [topic, watched] : m_watched) {
    if (IsRepetitionDue(++watched.ticks) && !HasSources(topic)) {
      Ask(m_subjects.Want(topic));
    }
  }
  if (m_allSources != nullptr && IsRepetitionDue(++m_allTicks)) {
    Ask(m_subjects.WantAll());
  }
  PutAllInterest();
  if (!m_peers.empty()) {
    ++m_ticksDue;
    m_arrived.Notify();
  }
}

std::uint32_t SourceTable::Audience() {
  const std::lock_guard lock(m_mutex);
  std::uint32_t most = 0;
  for (const auto& [instance, peer] : m_peers) {
    for (const auto& [id, source] : peer.sources) {
      most = std::max(most, source->Active() ? source->Audience() : 0);
    }
  }
  return most;
}

void SourceTable::SayGoodbye() {
  const std::lock_guard lock(m_mutex);
  for (auto& [instance, peer] : m_peers) {
    for (const auto& [id, source] : peer.sources) {
      if (source->m_route != nullptr) {
        Detach(*source);
        PutInterest(*source);
      }
    }
  }
}

}  // namespace engine::transport::nats
