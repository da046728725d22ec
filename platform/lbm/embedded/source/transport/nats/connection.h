// One connection to a NATS server.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "transport/message.h"
#include "transport/nats/library.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::nats {

struct ServerSettings {
  std::string servers = "nats://127.0.0.1:4222";  // URLs, separated by commas
  std::string name;                               // shown to the server
  // Paths of files; empty: none.
  std::string credentialsFile;
  std::string userFile;  // the user on the first line, the password on the second
  std::string tlsCaFile;
  std::string tlsCertificateFile;
  std::string tlsKeyFile;
  // What connecting may take with one server, and how often a quiet one is asked whether it is there.
  std::chrono::milliseconds connectTimeout{1'000};
  std::chrono::milliseconds pingInterval{2'000};
};

// The URLs of the text, trimmed. Throws std::invalid_argument when there is none.
std::vector<std::string> ServerUrls(const std::string& servers);

// The URL without user and password.
std::string PublicUrl(const std::string& url);

struct MessageDeleter {
  void operator()(natsMsg* message) const noexcept { Nats().natsMsg_Destroy(message); }
};
using Message = std::unique_ptr<natsMsg, MessageDeleter>;

inline Bytes BytesOf(const Message& message) noexcept {
  return std::as_bytes(std::span(Nats().natsMsg_GetData(message.get()),
                                 static_cast<std::size_t>(Nats().natsMsg_GetDataLength(message.get()))));
}

struct SubscriptionDeleter {
  void operator()(natsSubscription* subscription) const noexcept { Nats().natsSubscription_Destroy(subscription); }
};
using SubscriptionHandle = std::unique_ptr<natsSubscription, SubscriptionDeleter>;

// The client library makes no thread that reads or writes the socket: whoever calls Read and Flush does. It does not
// connect anew either: a connection that has ended stays so.
//
// Threads: any.
class Connection {
 public:
  // Called on threads of the client library, with its locks held: they only take note, and wake somebody.
  struct Observer {
    std::function<void()> attention;  // there is something to flush, or the connection has ended
    std::function<void(const std::string& text)> complained;  // the server refused something
  };

  // Connects to one of the servers, in any order. Throws std::runtime_error with a text that names no secrets.
  Connection(const ServerSettings& settings, const std::vector<std::string>& servers, Observer observer);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Readable when Read would find something; owned by the connection.
  int GetDescriptor() const noexcept;
  bool Ended() const noexcept;
  std::string EndReason() const;  // empty: unknown
  // Of the server, without secrets; also once the connection has ended.
  const std::string& Url() const noexcept { return m_url; }
  std::vector<std::string> Servers() const;  // those that were given, and those of its cluster
  std::size_t MaxPayload() const noexcept { return m_maxPayload; }

  // Appends a message to what is to be written. False: not taken, because the connection has ended or the message is
  // larger than the server allows.
  bool Send(const std::string& subject, Bytes message) noexcept;

  // Writes as much as the socket takes. Whether nothing is left.
  bool Flush() noexcept;
  bool WantsFlush() const noexcept;

  // How long ago the server sent something last, be it the answer to a ping.
  std::chrono::milliseconds SilentFor() const noexcept;

  // To the server and back, smoothed, as the kernel measures it; 0: not known.
  std::chrono::nanoseconds RoundTrip() const noexcept;

  // Moves what has arrived to the subscriptions' queues, and returns how many messages that are.
  std::size_t Read() noexcept;

  // Null when the connection has ended.
  SubscriptionHandle Subscribe(const std::string& subject);

 private:
  struct State;

  const std::shared_ptr<State> m_state;
  const bool m_encrypted;
  natsConnection* m_connection = nullptr;
  std::mutex m_ioMutex;  // the library expects reading and writing on one thread, and ends the connection in either
  natsStatistics* m_statistics = nullptr;  // guarded by m_ioMutex
  std::uint64_t m_received = 0;            // messages; guarded by m_ioMutex
  std::size_t m_maxPayload = 0;
  std::string m_url;
};

// Takes the next message of the subscription, if one is there.
Message Next(natsSubscription* subscription) noexcept;

}  // namespace engine::transport::nats
