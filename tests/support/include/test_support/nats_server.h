// A real NATS server for tests.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "test_support/temporary_directory.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/error.h"

namespace test_support {

// Listens on a free port of the loopback interface, keeps its files in a directory of its own, and is killed in the
// end.
class NatsServer {
 public:
  // configuration: what follows the lines about ports in the server's configuration file. address: one of the
  // interfaces of the calling thread's network. Throws when the server does not come up.
  explicit NatsServer(std::string configuration = "", std::string address = "127.0.0.1")
      : m_configuration(std::move(configuration)), m_address(std::move(address)) {
    Start();
  }
  ~NatsServer() { Kill(); }
  NatsServer(const NatsServer&) = delete;
  NatsServer& operator=(const NatsServer&) = delete;

  std::string Url(const std::string& scheme = "nats") const {
    return scheme + "://" + m_address + ":" + std::to_string(m_port);
  }
  std::string RouteUrl() const { return "nats://127.0.0.1:" + std::to_string(m_clusterPort); }
  int Port() const noexcept { return m_port; }
  const std::filesystem::path& Directory() const noexcept { return m_directory.Path(); }

  void Signal(int number) const { ::kill(m_process, number); }

  void Kill() {
    if (m_process > 0) {
      ::kill(m_process, SIGKILL);
      ::waitpid(m_process, nullptr, 0);
      m_process = -1;
    }
  }

  // Starts it, on the ports that it had before.
  void Start() {
    const std::filesystem::path ports = m_directory.Path() / "ports";
    std::filesystem::remove_all(ports);
    std::filesystem::create_directory(ports);
    std::ofstream(m_directory.Path() / "server.conf")
        << "listen: \"" << m_address << ":" << m_port << "\"\nports_file_dir: \"" << ports.string() << "\"\n"
        << "pid_file: \"" << (m_directory.Path() / "pid").string() << "\"\n"
        << m_configuration << '\n';
    const zq::posix::Descriptor watch = zq::posix::Checked(::inotify_init1(IN_CLOEXEC), "inotify_init1");
    if (::inotify_add_watch(watch.Get(), ports.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
      zq::posix::ThrowErrno("inotify_add_watch");
    }
    Spawn();
    std::string text;
    for (pollfd written{watch.Get(), POLLIN, 0}; (text = ReadOnly(ports)).find(']') == std::string::npos;) {
      constexpr int kPatienceMs = 20'000;
      char events[4096];
      if (::poll(&written, 1, kPatienceMs) != 1 || ::read(watch.Get(), events, sizeof(events)) < 0) {
        throw std::runtime_error("the NATS server does not come up:\n" + Log());
      }
    }
    m_port = PortIn(text, "\"nats\"");
    m_clusterPort = PortIn(text, "\"cluster\"");
  }

  std::string Log() const { return Read(m_directory.Path() / "log"); }

 private:
  void Spawn() {
    const std::string configuration = m_directory.Path() / "server.conf";
    const std::string log = m_directory.Path() / "log";
    const char* const arguments[] = {"nats-server", "-c", configuration.c_str(), nullptr};
    m_process = ::fork();
    if (m_process < 0) {
      zq::posix::ThrowErrno("fork");
    }
    if (m_process == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int file = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      ::dup2(file, STDOUT_FILENO);
      ::dup2(file, STDERR_FILENO);
      ::execvp(arguments[0], const_cast<char**>(arguments));
      ::perror("cannot start nats-server");
      ::_exit(127);
    }
  }

  static std::string Read(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static std::string ReadOnly(const std::filesystem::path& directory) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      return Read(entry.path());
    }
    return "";
  }

  // The port of the first URL after the key.
  static int PortIn(const std::string& text, const std::string& key) {
    const std::size_t begin = text.find(key);
    if (begin == std::string::npos) {
      return -1;
    }
    const std::size_t end = text.find('"', text.find("://", begin));
    return std::stoi(text.substr(text.rfind(':', end) + 1, end));
  }

  const TemporaryDirectory m_directory;
  const std::string m_configuration;
  const std::string m_address;
  int m_port = -1;  // before the first start: any
  int m_clusterPort = -1;
  pid_t m_process = -1;
};

}  // namespace test_support
