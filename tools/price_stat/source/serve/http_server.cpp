#include "serve/http_server.h"

#include <fcntl.h>
#include <httplib.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <exception>
#include <utility>

#include "cli/one_line.h"
#include "serve/listen_address.h"
#include "zq/posix/event.h"

namespace price_stat {

namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} << 10;
constexpr std::size_t kBodyBytesMax = 1024;
constexpr std::size_t kRequestBytesMax = std::size_t{64} << 10;

// One connection: what it reads and writes ends with its time, or with the server, and a request with its size. The
// library's own limits are for each call and each line, so that a peer who takes a byte now and then could hold a
// connection for ever, and one who sends line after line all the memory.
class Connection : public httplib::Stream {
 public:
  Connection(int socket, const zq::posix::Event& stop) : m_socket(socket), m_stop(stop) {}

  bool is_readable() const override { return Wait(POLLIN); }
  bool is_writable() const override { return Wait(POLLOUT); }

  ssize_t read(char* bytes, std::size_t size) override {
    const ssize_t got = Receive(bytes, std::min(size, m_requestBytesLeft));
    m_requestBytesLeft -= got > 0 ? static_cast<std::size_t>(got) : 0;
    return got;
  }
  ssize_t write(const char* bytes, std::size_t size) override {
    return Transfer(POLLOUT, [&] { return ::send(m_socket.Get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL); });
  }

  void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  socket_t socket() const override { return m_socket.Get(); }

  // Says that everything was sent and waits for the peer to have taken it: closing while there is something left to
  // read would make the system throw away what was sent.
  void Finish() {
    ::shutdown(m_socket.Get(), SHUT_WR);
    std::array<char, 4096> rest{};
    for (std::size_t left = kChunkBytes; left > 0;) {
      const ssize_t got = Receive(rest.data(), std::min(rest.size(), left));
      if (got <= 0) {
        return;
      }
      left -= static_cast<std::size_t>(got);
    }
  }

 private:
  using Clock = std::chrono::steady_clock;

  ssize_t Receive(char* bytes, std::size_t size) const {
    return Transfer(POLLIN, [&] { return ::recv(m_socket.Get(), bytes, size, MSG_DONTWAIT); });
  }

  template <class F>
  ssize_t Transfer(short event, const F& call) const {
    while (Wait(event)) {
      const ssize_t done = call();
      if (done >= 0 || (errno != EAGAIN && errno != EINTR)) {
        return done;
      }
    }
    return -1;
  }

  bool Wait(short event) const {
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_end - Clock::now()).count();
      std::array<pollfd, 2> files{{{m_socket.Get(), event, 0}, {m_stop.GetDescriptor(), POLLIN, 0}}};
      const int ready = left > 0 ? ::poll(files.data(), files.size(), static_cast<int>(left)) : 0;
      if (ready < 0 && errno == EINTR) {
        continue;
      }
      return ready > 0 && files[1].revents == 0;
    }
  }

  const zq::posix::Descriptor m_socket;
  const zq::posix::Event& m_stop;
  std::size_t m_requestBytesLeft = kRequestBytesMax;
  const Clock::time_point m_end = Clock::now() + std::chrono::seconds(HttpServer::kConnectionSeconds);
};

void Refuse(httplib::Response& response, int status, const std::string& reason) {
  response.status = status;
  response.set_content(reason + "\n", "text/plain; charset=utf-8");
}

}  // namespace

class HttpServer::Library : public httplib::Server {
 public:
  Library(zq::posix::Descriptor listening, HttpSettings settings)
      : m_settings(std::move(settings)), m_listening(std::move(listening)) {
    new_task_queue = [] { return new httplib::ThreadPool(kConnectionsMax); };
    set_payload_max_length(kBodyBytesMax);
    set_default_headers({{"Cache-Control", "no-store"},
                         {"Content-Security-Policy", m_settings.contentSecurityPolicy},
                         {"Cross-Origin-Resource-Policy", "same-origin"},
                         {"Referrer-Policy", "no-referrer"},
                         {"Vary", "Accept"},
                         {"X-Content-Type-Options", "nosniff"},
                         {"X-Frame-Options", "DENY"}});
    set_pre_routing_handler([this](const auto& request, auto& response) { return Answer(request, response); });
  }

  bool Run() {
    // The library closes its own when accepting fails.
    svr_sock_ = zq::posix::Checked(::fcntl(m_listening.Get(), F_DUPFD_CLOEXEC, 0), "duplicating a socket").Release();
    return listen_after_bind() || m_stopping;
  }

  void Stop() noexcept {
    m_stopping = true;
    m_stop.Notify();
    // Accepting fails from now on, which ends the library's loop.
    ::shutdown(m_listening.Get(), SHUT_RDWR);
  }

 private:
  bool process_and_close_socket(socket_t socket) override {
    Connection connection(socket, m_stop);
    bool closed = false;
    const bool done = process_request(connection, true, closed, nullptr);
    if (done) {
      connection.Finish();
    }
    return done;
  }

  HandlerResponse Answer(const httplib::Request& request, httplib::Response& response) const {
    if (!IsKnownHost(request.get_header_value("Host"), m_settings.hostNames)) {
      Refuse(response, 421,
             "This server is not known as \"" + cli::OneLine(request.get_header_value("Host")) +
                 "\": call it by its address, or start it with --host.");
    } else if (request.method != "GET" && request.method != "HEAD") {
      response.set_header("Allow", "GET, HEAD");
      Refuse(response, 405, "Everything here is only to be read.");
    } else {
      Give(request, response);
    }
    return HandlerResponse::Handled;
  }

  void Give(const httplib::Request& request, httplib::Response& response) const {
    const std::string accepted = request.get_header_value("Accept");
    for (const Resource& resource : m_settings.resources) {
      if (resource.path == request.path && accepted.find(resource.accepted) != std::string::npos) {
        try {
          const auto content = resource.make();
          response.set_content_provider(content->size(), resource.type,
                                        [content](std::size_t offset, std::size_t length, auto& sink) {
                                          return sink.write(content->data() + offset, std::min(length, kChunkBytes));
                                        });
          response.status = 200;
        } catch (const std::exception& error) {
          Refuse(response, 500, cli::OneLine(error.what()));
        }
        return;
      }
    }
    Refuse(response, 404, "There is nothing of that name; see /.");
  }

  const HttpSettings m_settings;
  const zq::posix::Descriptor m_listening;
  zq::posix::Event m_stop;
  std::atomic<bool> m_stopping = false;
};

HttpServer::HttpServer(zq::posix::Descriptor listening, HttpSettings settings)
    : m_library(std::make_unique<Library>(std::move(listening), std::move(settings))) {}

HttpServer::~HttpServer() = default;

bool HttpServer::Run() { return m_library->Run(); }

void HttpServer::Stop() noexcept { m_library->Stop(); }

}  // namespace price_stat
