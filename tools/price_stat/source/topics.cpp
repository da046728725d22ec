#include <fnmatch.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "call.h"
#include "cli/format.h"
#include "cli/one_line.h"
#include "cli/table.h"
#include "json.h"
#include "looks.h"
#include "texts.h"

namespace price_stat {
namespace {

// One context's part in a topic.
struct Part {
  const Process* process = nullptr;
  std::string context;
  std::string handle;
  std::uint64_t messages = 0;
};

struct Topic {
  std::vector<Part> publishers;
  std::vector<Part> subscribers;
};

using Topics = std::map<std::string, Topic>;

// The connector and the engine both have a row for the same source or receiver: they are counted apart, and the larger
// number is taken. Programs that use the messaging interface alone have rows of the engine only.
class Collector {
 public:
  explicit Collector(const std::string& pattern) : m_pattern(pattern) {}

  void Add(const Process& process) {
    for (const auto& [kind, publishes] :
         {std::pair{"source", true}, {"engine_source", true}, {"receiver", false}, {"engine_receiver", false}}) {
      std::map<std::tuple<std::string_view, std::string_view>, Part> ofKind;
      for (const auto* const row : process.snapshot->Of(kind)) {
        if (IsOther(*row) || ::fnmatch(m_pattern.c_str(), std::string(row->Label("topic")).c_str(), 0) != 0) {
          continue;
        }
        auto& part = ofKind[{row->Label("topic"), row->Label("handle")}];
        part.process = &process;
        part.context = row->Label("context");
        part.handle = row->Label("handle");
        if (const auto* const messages = row->Find("messages")) {
          part.messages += messages->Count();
        }
      }
      for (const auto& [key, part] : ofKind) {
        auto& topic = m_topics[std::string(std::get<0>(key))];
        Merge(publishes ? topic.publishers : topic.subscribers, part);
      }
    }
  }

  const Topics& Get() const noexcept { return m_topics; }

 private:
  static void Merge(std::vector<Part>& parts, const Part& part) {
    const auto same = std::find_if(parts.begin(), parts.end(), [&](const Part& other) {
      return other.process == part.process && other.handle == part.handle;
    });
    if (same == parts.end()) {
      parts.push_back(part);
    } else {
      same->messages = std::max(same->messages, part.messages);
    }
  }

  std::string m_pattern;
  Topics m_topics;
};

std::string TopicsText(const Topics& topics) {
  cli::Table table(6);
  table.Add({"topic", "who", "program", "process", "context", "state", "messages"});
  for (const auto& [name, topic] : topics) {
    const auto add = [&table, &name = name](const std::vector<Part>& parts, const char* role) {
      for (const auto& part : parts) {
        table.Add({cli::OneLine(name), role, cli::OneLine(part.process->Program()), NumberOf(*part.process),
                   ContextName(part.context, part.handle),
                   StateText(part.process->state, part.process->hangNanoseconds), cli::FormatCount(part.messages)});
      }
      if (parts.empty()) {
        table.Add({cli::OneLine(name), role, "nobody here", "", "", "", ""});
      }
    };
    add(topic.publishers, "publishes");
    add(topic.subscribers, "subscribes");
  }
  return table.ToString();
}

nlohmann::ordered_json TopicsJson(const Topics& topics) {
  const auto list = [](const std::vector<Part>& parts) {
    auto json = nlohmann::ordered_json::array();
    for (const auto& part : parts) {
      json.push_back({{"program", part.process->Program()},
                      {"process", part.process->snapshot->process},
                      {"context", part.context},
                      {"handle", part.handle},
                      {"state", NameOf(part.process->state)},
                      {"messages", part.messages}});
    }
    return json;
  };
  auto json = nlohmann::ordered_json::array();
  for (const auto& [name, topic] : topics) {
    json.push_back({{"topic", name}, {"publishers", list(topic.publishers)}, {"subscribers", list(topic.subscribers)}});
  }
  return json;
}

cli::ExitCode ShowTopics(const Call& call, const std::string& pattern, const cli::Output& output) {
  const auto processes = Looks(call.directory, {}).Take();
  Collector collector(pattern);
  std::uint64_t uncounted = 0;
  for (const auto& process : processes) {
    if (process.IsAlive()) {
      collector.Add(process);
      uncounted += process.snapshot->rowsInOther;
    }
  }
  const auto& topics = collector.Get();
  if (call.json) {
    output.Write(ToText({{"directory", call.directory}, {"rows_in_other", uncounted}, {"topics", TopicsJson(topics)}}));
  } else if (!topics.empty()) {
    output.Write(TopicsText(topics));
    if (uncounted > 0) {
      output.Write("topics may be missing: " + cli::FormatCount(uncounted) + " rows had no room in their pages\n");
    }
  }
  if (topics.empty()) {
    ComplainOfNothing(call.directory, processes);
    return cli::ExitCode::kUnsatisfied;
  }
  return cli::ExitCode::kOk;
}

}  // namespace

void AddTopics(CLI::App& app, Call& call) {
  auto* const command = app.add_subcommand("topics", "Who publishes and who subscribes, on this machine");
  AddJsonOption(*command, call);
  const auto pattern = std::make_shared<std::string>("*");
  command->add_option("topic", *pattern, "Only topics of this pattern, as of file names")
      ->type_name("PATTERN")
      ->capture_default_str();
  command->callback([&call, pattern] {
    call.run = [&call, pattern](const cli::Output& output) { return ShowTopics(call, *pattern, output); };
  });
}

}  // namespace price_stat
