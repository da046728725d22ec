#include "statistics/context_statistics.h"

#include <utility>

#include "zq/statistics/kind.h"

namespace engine {

namespace {

using zq::statistics::FieldType;
using zq::statistics::Kind;
using zq::statistics::Row;

// Kinds are never destroyed: destructors of static objects may still create contexts.

const Kind& ContextKind() {
  static const auto* const kind = new Kind{
      .name = "engine_context",
      .help = "A context of the embedded engine.",
      .labels = {"context", "handle", "domain", "transport"},
      .fields = {
          {"delivered", FieldType::kCounter, "", "Messages delivered to receivers, or to their event queues."},
          {"passes", FieldType::kCounter, "", "How often the context's events were processed."},
          {"wakeups", FieldType::kCounter, "", "How often the thread that processes events was woken from waiting."},
          {"waits_for_room", FieldType::kCounter, "",
           "Sends that found no room at a receiving context and waited or "
           "failed with would-block."},
          {"dropped", FieldType::kCounter, "", "Messages not sent to a receiving context for want of room."},
          {"spins_found", FieldType::kCounter, "", "Waits that ended while the thread spun, for something came."},
          {"spins_in_vain", FieldType::kCounter, "", "Waits in which the thread spun until it had to sleep after all."},
          {"waiting", FieldType::kGauge, "", "1 while the thread that processes events sleeps until they come."},
          {"spin_time", FieldType::kGauge, "nanoseconds", "How long the last wait was to spin before it slept."},
          {"sources", FieldType::kGauge, "", "Sources."},
          {"receivers", FieldType::kGauge, "", "Receivers."},
          {"topics", FieldType::kGauge, "", "Topics that have a receiver here or a source that the context knows."},
          {"peers", FieldType::kGauge, "", "Other contexts of this machine to which it is linked."},
          {"latency", FieldType::kHistogram, "nanoseconds",
           "From a source's send on this machine to the delivery here, of samples."}}};
  return *kind;
}

const Kind& PeerKind() {
  static const auto* const kind =
      new Kind{.name = "peer",
               .help = "A context of this machine that receives from this one, through a ring of its own.",
               .labels = {"context", "handle", "peer"},
               .fields = {{"messages", FieldType::kCounter, "", "Messages sent to it."},
                          {"bytes", FieldType::kCounter, "bytes", "Their bytes, as the application gave them."},
                          {"waits_for_room", FieldType::kCounter, "",
                           "Sends that found no room and waited or failed with "
                           "would-block."},
                          {"dropped", FieldType::kCounter, "", "Messages not sent for want of room."},
                          {"wakeups", FieldType::kCounter, "", "How often it had to be woken by a system call."},
                          {"ring_bytes", FieldType::kGauge, "bytes", "Size of the ring."},
                          {"ring_high_water", FieldType::kGauge, "bytes",
                           "The most that the ring was seen to hold: at samples, and "
                           "whenever there was no room."}}};
  return *kind;
}

const Kind& SourceKind() {
  static const auto* const kind =
      new Kind{.name = "engine_source",
               .help = "A source of the embedded engine.",
               .labels = {"context", "handle", "topic"},
               .fields = {{"messages", FieldType::kCounter, "", "Messages sent, requests among them."},
                          {"subscribers", FieldType::kGauge, "", "Contexts that receive from it."}}};
  return *kind;
}

const Kind& ReceiverKind() {
  static const auto* const kind =
      new Kind{.name = "engine_receiver",
               .help = "A receiver of the embedded engine.",
               .labels = {"context", "handle", "topic"},
               .fields = {{"messages", FieldType::kCounter, "", "Messages delivered, or given to its event queue."},
                          {"sources", FieldType::kGauge, "", "Sources that it receives from."}}};
  return *kind;
}

const Kind& NetworkKind() {
  static const auto* const kind = new Kind{
      .name = "network",
      .help = "A context's connection to the servers that connect machines.",
      .labels = {"context", "handle", "server"},
      .fields = {
          {"reconnects", FieldType::kCounter, "", "Connections made after the first one."},
          {"batches", FieldType::kCounter, "", "Batches sent; each has what came together."},
          {"batch_bytes", FieldType::kCounter, "bytes", "Their bytes."},
          {"dropped", FieldType::kCounter, "", "Messages not sent for want of room or of a connection."},
          {"receive_dropped", FieldType::kCounter, "", "Batches that arrived and found no room to wait for delivery."},
          {"connected", FieldType::kGauge, "", "1 while there is a connection."},
          {"round_trip", FieldType::kHistogram, "nanoseconds",
           "To the server and back, as the kernel has it of the "
           "connection, looked at with every announcement."}}};
  return *kind;
}

const Kind& OptionKind() {
  static const auto* const kind = new Kind{.name = "option",
                                           .help = "The value of an option, and where it comes from.",
                                           .labels = {"context", "handle", "owner", "option", "value", "origin"},
                                           .fields = {}};
  return *kind;
}

}  // namespace

ContextStatistics::ContextStatistics(Labels labels)
    : m_shown(true),
      m_labels(std::move(labels)),
      m_row(ContextKind(), {m_labels.context, m_labels.handle, m_labels.domain, m_labels.transport}) {}

void ContextStatistics::NoteDelivery(std::uint64_t sent) noexcept {
  // A faulty peer may send any time.
  if (const std::uint64_t now = zq::statistics::Now(); sent <= now) {
    m_row.RecordInHistogram(context_field::kLatency, now - sent, now);
  }
}

Row ContextStatistics::MakeRow(const Kind& kind, std::string_view object) const noexcept {
  return m_shown ? Row(kind, {m_labels.context, m_labels.handle, object}) : Row();
}

Row ContextStatistics::PeerRow(std::string_view peer) const noexcept { return MakeRow(PeerKind(), peer); }

Row ContextStatistics::SourceRow(std::string_view topic) const noexcept { return MakeRow(SourceKind(), topic); }

Row ContextStatistics::ReceiverRow(std::string_view topic) const noexcept { return MakeRow(ReceiverKind(), topic); }

Row ContextStatistics::NetworkRow(std::string_view servers) const noexcept { return MakeRow(NetworkKind(), servers); }

Row OptionRow(std::initializer_list<std::string_view> labels) noexcept { return {OptionKind(), labels}; }

}  // namespace engine
