// Answers GET requests for a few resources.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zq/posix/descriptor.h"

namespace price_stat {

struct Resource {
  std::string path;
  std::string type;      // of its content
  std::string accepted;  // a type that the request must say it accepts for this to be the answer; empty: any
  // Makes the content; a connection holds it until it is sent. Called on any of the server's threads, several at once.
  std::function<std::shared_ptr<const std::string>()> make;
};

struct HttpSettings {
  std::vector<Resource> resources;     // of several with one path the first that fits
  std::vector<std::string> hostNames;  // by which it may be called, besides localhost and addresses
  std::string contentSecurityPolicy;   // what browsers let its pages do
};

// A connection is for one request and lasts kConnectionSeconds at most, whatever the other side does or does not; so
// many are served at once that a few that hang keep nobody else waiting.
class HttpServer {
 public:
  static constexpr int kConnectionSeconds = 30;
  static constexpr int kConnectionsMax = 128;

  // listening: a socket that listens.
  HttpServer(zq::posix::Descriptor listening, HttpSettings settings);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Serves until Stop is called. Returns false when it ended for another reason.
  bool Run();

  // Ends Run, and all connections at once. Threads: any, once or often, also before Run.
  void Stop() noexcept;

 private:
  class Library;
  std::unique_ptr<Library> m_library;
};

}  // namespace price_stat
