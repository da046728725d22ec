#include "core/source.h"

#include <exception>
#include <utility>

#include "core/notice.h"
#include "options/option_keys.h"
#include "system/error.h"

namespace engine::core {

namespace {

transport::Pacing PacingOf(const Topic& topic) {
  return topic.options->Get(option::kTransportPacing) == TransportPacing::kReceiver ? transport::Pacing::kReceiver
                                                                                    : transport::Pacing::kSource;
}

}  // namespace

Source::Source(std::shared_ptr<Membership> membership, const Topic& topic, const Callback& callback,
               std::shared_ptr<EventQueue> queue)
    : Target(std::move(membership), std::move(queue)),
      m_topic(topic),
      m_callback(callback),
      m_pacing(PacingOf(topic)),
      m_statistics(GetMembership().Statistics().SourceRow(topic.name)) {}

void Source::ThrowContextDeleted() const {
  throw Error(LBM_EOP, "the context of the source on topic " + m_topic.name + " is deleted");
}

void Source::Notify(int event, const std::string& text) {
  if (m_callback) {
    Dispatch({.code = event, .text = text});
  }
  if (event == LBM_SRC_EVENT_CONNECT) {
    m_statistics.Serial().Add(source_field::kSubscribers);
  } else if (event == LBM_SRC_EVENT_DISCONNECT) {
    m_statistics.Serial().Subtract(source_field::kSubscribers);
  }
}

void Source::Run(Event& event) {
  void* const data = event.code == LBM_SRC_EVENT_WAKEUP ? nullptr : event.text.data();
  m_callback(event.code, data);
}

OptionSet Source::Options() const {
  OptionSet options = *m_topic.options;
  options.Provide(option::kTransportId, m_publication->Id());
  options.Provide(option::kTransportSource, m_publication->Session());
  return options;
}

void SourceTable::Add(const std::shared_ptr<Source>& source) {
  // Locked throughout, so that the first subscriber's event finds the source, and the source its publication.
  const std::lock_guard lock(m_mutex);
  decltype(m_sources) prepared;
  auto entry = prepared.extract(prepared.emplace(0, source).first);
  source->m_publication = m_transport.Advertise(
      {.topic = source->m_topic.name, .pacing = source->m_pacing, .statistics = &source->m_statistics});
  entry.key() = source->m_publication->Id();
  m_sources.insert(std::move(entry));
  m_statistics.Counters().Add(context_field::kSources);
}

void SourceTable::Remove(Source& source) noexcept {
  try {
    m_transport.Withdraw(*source.m_publication);
  } catch (const std::exception& error) {
    Notice(LBM_LOG_WARNING, "others may not know that a source is deleted: ", error);
  }
  {
    const std::lock_guard lock(m_mutex);
    if (m_sources.erase(source.m_publication->Id()) != 0) {
      m_statistics.Counters().Subtract(context_field::kSources);
    }
  }
  source.CloseAndWait();
}

std::shared_ptr<Source> SourceTable::Find(const transport::Publication& publication) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_sources.find(publication.Id());
  return found != m_sources.end() ? found->second.lock() : nullptr;
}

void SourceTable::Clear() {
  decltype(m_sources) sources;
  {
    const std::lock_guard lock(m_mutex);
    sources.swap(m_sources);
  }
  m_statistics.Counters().Subtract(context_field::kSources, sources.size());
  for (const auto& [id, weak] : sources) {
    if (const auto source = weak.lock()) {
      source->CloseAndWait();
    }
  }
}

}  // namespace engine::core
