#include "lines.h"

#include <fmt/format.h>

#include "cli/format.h"
#include "hint.h"
#include "quantile_text.h"
#include "server_text.h"

namespace price_client {
namespace {

// How the server's status differs from the one that was known before.
std::string StatusChange(const InstanceSnapshot& before, const InstanceSnapshot& now) {
  if (!now.status) {
    return {};
  }
  const auto& status = *now.status;
  const bool isSame = before.status && before.status->last.session == status.last.session;
  if (!isSame || before.status->last.state != status.last.state) {
    return fmt::format("server is {}, up for {}, session {}", feed::ToString(status.last.state),
                       cli::FormatDuration(static_cast<double>(status.last.uptime.count())), status.last.session);
  }
  if (status.isSilent && !before.status->isSilent) {
    return fmt::format("server is silent: no status for {:.0f} s", status.ageSeconds);
  }
  // One that is gone is not heard.
  if (!status.isSilent && before.status->isSilent && IsAlive(now.state)) {
    return "server is heard again";
  }
  return {};
}

std::string StateChange(const InstanceSnapshot& now) {
  if (now.state != InstanceState::kGone || !now.status) {
    return fmt::format("is {}", NameOf(now.state));
  }
  return fmt::format("is gone, {}", ServerText(now));
}

}  // namespace

std::string ProgressLine(const InstanceSnapshot& instance, double elapsedSeconds) {
  const auto& latency = instance.totals.latency;
  const auto& recent = instance.recentLatency;
  return fmt::format(
      "{:8.1f}s {} {} segments={}/{} updates={} rate={:.0f}/s gaps={} "
      "missed={} lost={} p50={} p99={} p50_10s={} p99_10s={} products={} rfqs={} news={}\n",
      elapsedSeconds, instance.name, NameOf(instance.state), instance.liveSegments, instance.segments,
      instance.totals.updates, instance.currentRate, instance.totals.gaps, instance.totals.missed, instance.totals.lost,
      QuantileText(latency, 0.5), QuantileText(latency, 0.99), QuantileText(recent, 0.5), QuantileText(recent, 0.99),
      instance.notices.products.size(), instance.notices.rfqs, instance.notices.news);
}

std::string ChangeLines(const InstanceSnapshot& before, const InstanceSnapshot& now, double elapsedSeconds) {
  std::string text;
  const auto add = [&](const std::string& what) {
    text += fmt::format("{:8.1f}s {} {}\n", elapsedSeconds, now.name, what);
  };
  // A server that ends says so before it is gone.
  const auto status = StatusChange(before, now);
  if (now.state == InstanceState::kGone && !status.empty()) {
    add(status);
  }
  if (now.state != before.state) {
    add(StateChange(now));
  }
  if (now.state != InstanceState::kGone && !status.empty()) {
    add(status);
  }
  if (now.totals.restarts > before.totals.restarts) {
    add("server restarted");
  }
  if (now.totals.gaps > before.totals.gaps) {
    add(fmt::format("gaps: {} more, {} updates missed", now.totals.gaps - before.totals.gaps,
                    now.totals.missed - before.totals.missed));
  }
  if (now.totals.lost > before.totals.lost) {
    add(fmt::format("lost: {} more messages", now.totals.lost - before.totals.lost));
  }
  if (now.totals.malformed > before.totals.malformed) {
    add(fmt::format("malformed: {} more messages", now.totals.malformed - before.totals.malformed));
  }
  if (now.notices.products.size() != before.notices.products.size()) {
    add(fmt::format("products: {}", now.notices.products.size()));
  }
  if (now.unreceivedSegments.size() > before.unreceivedSegments.size()) {
    add(SegmentsText(now));
  }
  if (now.totals.untracked > 0 && before.totals.untracked == 0) {
    add(UntrackedText(now));
  }
  if (now.notices.news > before.notices.news && now.notices.lastNews) {
    add("news: " + now.notices.lastNews->headline);
  }
  return text;
}

std::string HintLines(const Snapshot& snapshot) {
  std::string text;
  for (const auto& instance : snapshot.instances) {
    if (const auto hint = HintFor(instance, snapshot.client); !hint.empty()) {
      text += fmt::format("{:8.1f}s {} nothing yet: {}\n", snapshot.elapsedSeconds, instance.name, hint);
    }
  }
  return text;
}

std::string ChangeLines(const ClientSnapshot& before, const ClientSnapshot& now, double elapsedSeconds) {
  std::string text;
  const auto add = [&](const std::string& what) {
    text += fmt::format("{:8.1f}s client {} {}\n", elapsedSeconds, now.id, what);
  };
  if (before.id.empty()) {
    add("takes commands on host " + now.host);
  }
  if (now.isPaused != before.isPaused) {
    add(now.isPaused ? "is paused: it takes no prices" : "is resumed");
  }
  if (now.malformedCommands > before.malformedCommands) {
    add(fmt::format("malformed commands: {} more", now.malformedCommands - before.malformedCommands));
  }
  if (now.dropped > before.dropped) {
    add(fmt::format("dropped: {} more messages", now.dropped - before.dropped));
  }
  return text;
}

}  // namespace price_client
