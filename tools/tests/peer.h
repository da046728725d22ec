// The tests' own ends of the messaging.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "feed/command_answer.h"
#include "lbm/context.h"
#include "lbm/receiver.h"
#include "lbm/source.h"

namespace tools_test {

// A context that meets the programs under test.
//
// Threads: for one thread, on which all callbacks run, within WaitUntil.
class Peer {
 public:
  explicit Peer(const std::filesystem::path& runtimeDirectory);

  // Sends to whoever has subscribed to the topic, which it first waits for. False when nobody does before the deadline.
  bool Send(const std::string& topicName, const std::string& bytes);

  // Sends a request likewise, and waits until take, which is given each response, returns true. False when the deadline
  // passes before.
  bool Request(const std::string& topicName, const std::string& bytes,
               const std::function<bool(std::string_view)>& take);

  void Receive(const std::string& topicName, lbm::MessageCallback callback);

  // Processes events until done. False when the deadline passes.
  bool WaitUntil(const std::function<bool()>& done);

 private:
  struct Outlet {
    bool hasSubscriber = false;
    std::unique_ptr<lbm::Source> source;
  };

  // Null when nobody subscribes before the deadline.
  lbm::Source* SourceOn(const std::string& topicName);

  std::unique_ptr<lbm::Context> m_context;
  std::map<std::string, Outlet> m_outlets;
  std::vector<std::unique_ptr<lbm::Receiver>> m_receivers;
};

// Somebody who commands one price client. His commands are requests, and he takes the answers to them and no others.
class Operator : public Peer {
 public:
  Operator(const std::filesystem::path& runtimeDirectory, const std::string& host, const std::string& clientID);

  // Sends the command to the client, or to all clients of the host, and waits for the answer; one without an id when
  // there is none.
  feed::CommandAnswer Command(const std::string& name) { return Ask(m_idTopic, name); }
  feed::CommandAnswer CommandHost(const std::string& name) { return Ask(m_hostTopic, name); }

  // Any bytes whatever, to the client: as a message, and as a request, which is waited for likewise.
  using Peer::Send;
  bool Send(const std::string& bytes) { return Send(m_idTopic, bytes); }
  feed::CommandAnswer Request(const std::string& bytes) { return AskRaw(m_idTopic, bytes); }

 private:
  feed::CommandAnswer Ask(const std::string& topicName, const std::string& name);
  feed::CommandAnswer AskRaw(const std::string& topicName, const std::string& bytes);

  const std::string m_hostTopic;
  const std::string m_idTopic;
  std::uint64_t m_lastID = 0;
};

}  // namespace tools_test
