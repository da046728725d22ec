#include "transport/host/introductions.h"

#include <algorithm>

#include "transport/fault.h"

namespace engine::transport::host {

namespace {

// Bounds of the work of one drain.
constexpr std::size_t kErrandsMax = 32;
constexpr std::size_t kLettersMax = 64;

// Between looks for a context; doubled while links to it end soon after they were made.
constexpr std::chrono::milliseconds kFirstLook{50};
constexpr std::chrono::milliseconds kLastLook{10'000};

}  // namespace

Introductions::Introductions(Rendezvous& rendezvous, PublicationRegistry& publications, RetryTimer& retryTimer,
                             const Warnings& warnings, LinkTo linkTo)
    : m_rendezvous(rendezvous),
      m_publications(publications),
      m_retryTimer(retryTimer),
      m_warnings(warnings),
      m_linkTo(std::move(linkTo)) {}

void Introductions::Set(const std::string& topic, bool wanted) {
  {
    const std::lock_guard lock(m_mutex);
    m_watched[topic].wanted = wanted;
  }
  Add({.kind = Errand::Kind::kTopic, .topic = topic});
}

void Introductions::WatchAll() {
  m_watchesAll = true;
  Add({.kind = Errand::Kind::kAllTopics});
}

bool Introductions::Watches(const std::string& topic) const {
  if (m_watchesAll) {
    return true;
  }
  const std::lock_guard lock(m_mutex);
  const auto found = m_watched.find(topic);
  return found != m_watched.end() && found->second.wanted;
}

void Introductions::Announce(std::uint32_t publication) {
  Add({.kind = Errand::Kind::kPublication, .publication = publication});
}

void Introductions::Add(Errand errand) {
  {
    const std::lock_guard lock(m_mutex);
    m_errands.push_back(std::move(errand));
  }
  if (!m_pending.exchange(true)) {
    m_retryTimer.StartNow();
  }
}

std::size_t Introductions::Run() {
  if (m_refused || !m_pending.load(std::memory_order_relaxed)) {
    return 0;
  }
  m_pending = false;  // before the look, so that what is added from now on is announced again
  std::size_t done = 0;
  bool left = true;
  try {
    while (done < kErrandsMax && (left = DoFirstErrand())) {
      ++done;
    }
    if (m_nextLook <= Clock::now()) {
      LookForLost();
    }
    done += SendLetters();
    m_refusalTold = m_refusalTold && (done == 0 || m_refused);
  } catch (const std::exception& error) {
    NoteRefusal(error);
  }
  if (m_refused || left || !m_letters.empty()) {
    m_pending = true;
    m_refused ? m_retryTimer.Start() : m_retryTimer.StartNow();
  }
  return done;
}

void Introductions::Retry() noexcept {
  m_refused = false;
  if (m_nextLook == kNever) {
    return;
  }
  if (const auto now = Clock::now(); m_nextLook <= now) {
    m_pending = true;
  } else {
    m_retryTimer.Start(std::chrono::ceil<std::chrono::milliseconds>(m_nextLook - now));
  }
}

Introductions::Place Introductions::MakePlace(const std::string& name) {
  LostContexts made;
  return made.extract(made.emplace(name, Lost{}).first);
}

bool Introductions::LookAgain(Place place) noexcept {
  const auto now = Clock::now();
  Lost& lost = m_lost.insert(std::move(place)).position->second;
  const bool justFound = lost.linked != Clock::time_point() && now - lost.linked < kLastLook;
  const bool inARow = lost.delay.count() != 0 && (justFound || lost.due != kNever);
  lost.delay = inARow ? std::min(2 * lost.delay, kLastLook) : kFirstLook;
  lost.due = now + lost.delay;
  m_nextLook = std::min(m_nextLook, lost.due);
  m_retryTimer.Start(lost.delay);
  return !inARow;
}

void Introductions::LookForLost() {
  const auto now = Clock::now();
  for (auto lost = m_lost.begin(); lost != m_lost.end();) {
    if (lost->second.due > now) {
      ++lost;
    } else if (!m_rendezvous.IsThere(lost->first) || !WriteAgain(lost->first)) {
      lost = m_lost.erase(lost);
    } else {
      lost->second.due = kNever;
      lost->second.linked = now;
      ++lost;
    }
  }
  m_nextLook = kNever;
  for (const auto& [name, lost] : m_lost) {
    m_nextLook = std::min(m_nextLook, lost.due);
  }
  if (m_nextLook != kNever) {
    m_retryTimer.Start(std::chrono::ceil<std::chrono::milliseconds>(m_nextLook - now));
  }
}

// What the two have to do with each other, by the directory. False when that is nothing.
bool Introductions::WriteAgain(const std::string& name) {
  const bool self = name == m_rendezvous.Name();
  Letter letter;
  for (const std::uint32_t id : m_publications.All()) {
    const auto publication = m_publications.Find(id);
    const auto wants = [&](const std::string& key) { return m_rendezvous.Says(Role::kWants, key, name); };
    if (publication != nullptr &&
        (self ? Watches(publication->Info().topic) : wants(publication->Key()) || wants(kEveryTopic))) {
      letter.offered.push_back(id);
    }
  }
  if (!self) {
    for (std::string& topic : WatchedTopics()) {
      if (m_rendezvous.Says(Role::kOffers, KeyOf(topic), name)) {
        letter.wanted.push_back(std::move(topic));
      }
    }
  }
  if ((!m_watchesAll || self) && letter.offered.empty() && letter.wanted.empty()) {
    return false;
  }
  Letter& whole = m_letters[name];
  whole.offered.insert(whole.offered.end(), letter.offered.begin(), letter.offered.end());
  whole.wanted.insert(whole.wanted.end(), letter.wanted.begin(), letter.wanted.end());
  return true;
}

std::vector<std::string> Introductions::WatchedTopics() const {
  std::vector<std::string> topics;
  const std::lock_guard lock(m_mutex);
  for (const auto& [topic, watched] : m_watched) {
    if (watched.wanted) {
      topics.push_back(topic);
    }
  }
  return topics;
}

void Introductions::Postpone() {
  if (!m_refused && m_pending.load(std::memory_order_relaxed)) {
    m_retryTimer.StartNow();
  }
}

// An errand that fails stays, behind the others. Each may be done twice.
bool Introductions::DoFirstErrand() {
  Errand errand;
  {
    const std::lock_guard lock(m_mutex);
    if (m_errands.empty()) {
      return false;
    }
    errand = m_errands.front();
  }
  try {
    Do(errand);
  } catch (...) {
    const std::lock_guard lock(m_mutex);
    std::rotate(m_errands.begin(), m_errands.begin() + 1, m_errands.end());
    throw;
  }
  const std::lock_guard lock(m_mutex);
  m_errands.pop_front();
  return true;
}

void Introductions::Do(const Errand& errand) {
  switch (errand.kind) {
    case Errand::Kind::kTopic:
      return BringInLine(errand.topic);
    case Errand::Kind::kAllTopics:
      return LookUpEverything();
    case Errand::Kind::kPublication:
      return FindWatchers(errand.publication);
  }
}

// What the directory says of the topic with what is wanted.
void Introductions::BringInLine(const std::string& topic) {
  Watched state;
  {
    const std::lock_guard lock(m_mutex);
    const auto found = m_watched.find(topic);
    if (found == m_watched.end()) {
      return;
    }
    state = found->second;
  }
  if (!state.wanted) {
    GiveUp(topic, state);
  } else if (!m_watchesAll && !state.lookedUp) {
    LookUp(topic, state);
  }
}

void Introductions::LookUp(const std::string& topic, const Watched& state) {
  const auto note = [&](bool Watched::*what) {
    const std::lock_guard lock(m_mutex);
    m_watched.find(topic)->second.*what = true;
  };
  const std::string key = KeyOf(topic);
  if (!state.said) {
    m_rendezvous.Say(Role::kWants, key);
    note(&Watched::said);
  }
  for (const std::string& name : m_rendezvous.WhoElse(Role::kOffers, key)) {
    m_letters[name].wanted.push_back(topic);
  }
  OfferToSelf(m_publications.Of(topic));
  note(&Watched::lookedUp);
}

void Introductions::GiveUp(const std::string& topic, const Watched& state) {
  if (state.said) {
    m_rendezvous.TakeBack(Role::kWants, KeyOf(topic));
  }
  m_unwatched = true;
  const std::lock_guard lock(m_mutex);
  const auto found = m_watched.find(topic);
  if (found->second.wanted) {
    found->second = {.wanted = true};  // again, meanwhile: another errand is on its way
  } else {
    m_watched.erase(found);
  }
}

// Every link that is made from now on asks for everything by itself.
void Introductions::LookUpEverything() {
  m_rendezvous.Say(Role::kWants, kEveryTopic);
  for (std::string& name : m_rendezvous.Others()) {
    m_letters.try_emplace(std::move(name));
  }
  for (const auto& link : m_publications.Attached()) {
    if (link->Kind() == LinkKind::kPeer) {
      link->SendSignal(wire::Type::kWantAll);
    }
  }
  OfferToSelf(m_publications.All());
}

void Introductions::FindWatchers(std::uint32_t id) {
  const auto publication = m_publications.Find(id);
  if (publication == nullptr) {
    return;  // withdrawn meanwhile
  }
  const std::string& topic = publication->Info().topic;
  for (const std::string& name : m_rendezvous.WhoElse(Role::kWants, KeyOf(topic))) {
    m_letters[name].offered.push_back(id);
  }
  if (Watches(topic)) {
    OfferToSelf({id});
  }
  if (!m_foundWatchersOfAll) {
    for (std::string& name : m_rendezvous.WhoElse(Role::kWants, kEveryTopic)) {
      m_letters.try_emplace(std::move(name));
    }
    m_foundWatchersOfAll = true;
  }
  m_publications.OfferToWatchersOfAll(id);
}

void Introductions::OfferToSelf(const std::vector<std::uint32_t>& publications) {
  if (!publications.empty()) {
    auto& offered = m_letters[m_rendezvous.Name()].offered;
    offered.insert(offered.end(), publications.begin(), publications.end());
  }
}

std::size_t Introductions::SendLetters() {
  std::size_t done = 0;
  for (auto letter = m_letters.begin(); letter != m_letters.end() && done < kLettersMax;) {
    try {
      std::shared_ptr<Link> link;
      const Rendezvous::Outcome outcome = m_linkTo(letter->first, link);
      if (outcome == Rendezvous::Outcome::kBacklogFull) {
        m_refused = true;  // for a while; not worth a word
        ++letter;
        continue;
      }
      if (outcome == Rendezvous::Outcome::kConnected) {
        Send(letter->second, link);
      } else if (outcome == Rendezvous::Outcome::kGone) {
        m_lost.erase(letter->first);
      }
      letter = m_letters.erase(letter);
      ++done;
    } catch (const std::exception& error) {
      NoteRefusal(error);
      ++letter;
    }
  }
  return done;
}

void Introductions::Send(const Letter& letter, const std::shared_ptr<Link>& link) {
  const auto send = [&](Bytes packet) { link->SendControl(packet); };
  wire::TopicBatch batch(wire::Type::kWant);
  for (const std::string& topic : letter.wanted) {
    batch.Add(0, topic, send);
  }
  batch.Finish(send);
  m_publications.Offer(link, letter.offered);
}

void Introductions::NoteRefusal(const std::exception& error) {
  m_refused = true;
  if (!std::exchange(m_refusalTold, true)) {
    m_warnings.Tell([&] { return std::string("cannot look for other contexts yet: ") + TextOf(error); });
  }
}

}  // namespace engine::transport::host
