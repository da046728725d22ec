// What the comparison asks of a messaging library. Each contender is one file in contenders/ that defines
// MakeContender(), and becomes one program.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace compare {

// Takes what a node receives.
//
// Threads: one at a time, which may be one of the library's own.
class Sink {
 public:
  virtual ~Sink() = default;

  // The payload without anything that the contender added. May send.
  virtual void Take(const char* data, std::size_t length) = 0;
};

// The part that one process plays. All nodes of a measurement are described alike, so that each finds the others.
struct NodeSetup {
  std::string name;  // unique in the measurement, short enough for a file name
  std::vector<std::string> publishes;
  std::vector<std::string> subscribes;
  std::vector<std::string> publishers;   // nodes that publish what this one subscribes to
  std::vector<std::string> subscribers;  // nodes that subscribe to what this one publishes
  Sink* sink = nullptr;                  // outlives the node; null for a node that subscribes to nothing
};

class Node {
 public:
  virtual ~Node() = default;

  // Sends on the topic of that place in NodeSetup::publishes. Waits for room when the library is set to; never drops
  // where it can be set not to. Throws when the library refuses.
  virtual void Send(std::size_t topic, const char* data, std::size_t length) = 0;

  // Gives the sink what has arrived, waiting up to timeoutMs for the first message; 0 only looks. Need not be called
  // for nodes that subscribe to nothing.
  virtual void Poll(int timeoutMs) = 0;
};

// Made before the processes of the measurement are; lives until they have ended.
struct Contender {
  std::string version;  // of the library that is running
  std::string transport;
  std::string pacing;      // what keeps a fast publisher from losing messages
  bool pinned = false;     // each process is held on one processor: for those who do their work on the caller's thread
  std::size_t window = 0;  // messages that the publisher may be ahead of its slowest receiver; 0: the library's pacing
  pid_t server = 0;        // the process that all messages go through; 0: none, or not known
  std::function<std::unique_ptr<Node>(const NodeSetup&)> makeNode;
};

// directory: an empty one for this measurement alone, in memory where the machine has such a file system.
Contender MakeContender(const std::filesystem::path& directory);

// Contenders without topics in their protocol, only a prefix to match, begin each message with the topic's name; all
// names have this length.
inline constexpr std::size_t kTopicLength = 8;

}  // namespace compare
