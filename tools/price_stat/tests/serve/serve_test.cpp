// price_stat serve as a process.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "process.h"
#include "test_support/temporary_directory.h"
#include "zq/posix/descriptor.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using tools_test::Process;
using namespace std::chrono_literals;

class ServeTest : public testing::Test {
 protected:
  std::unique_ptr<Process> Play(const std::string& contexts, const std::string& receivers) const {
    auto player =
        std::make_unique<Process>(std::vector<std::string>{PLAYED_PROCESS, contexts, receivers},
                                  tools_test::Environment{{"ZQ_STATISTICS_DIR", m_directory.Path().string()}});
    EXPECT_TRUE(player->WaitForOutput("ready")) << player->Errors();
    return player;
  }

  std::unique_ptr<Process> Start(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command{PRICE_STAT, "--directory", m_directory.Path().string(), "serve"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(command, tools_test::Environment{});
  }

  void Serve() {
    m_server = Start({"--listen=127.0.0.1:0"});
    ASSERT_TRUE(m_server->WaitForOutput("for programs\n")) << m_server->Errors();
    const std::string before = "http://127.0.0.1:";
    m_port = std::stoi(m_server->Output().substr(m_server->Output().find(before) + before.size()));
  }

  httplib::Client Client() const {
    httplib::Client client("127.0.0.1", m_port);
    client.set_read_timeout(60s);  // the machine may be busy
    return client;
  }

  std::string Get(const std::string& path) const {
    const auto answer = Client().Get(path);
    if (!answer) {
      return "no answer: " + httplib::to_string(answer.error());
    }
    return answer->status == 200 ? answer->body : "status " + std::to_string(answer->status);
  }

  // A connection on which the request was sent and nothing is read, with little room for an answer.
  zq::posix::Descriptor Request(const std::string& text) const {
    zq::posix::Descriptor connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int bytes = 4096;
    ::setsockopt(connection.Get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    sockaddr_in address{.sin_family = AF_INET, .sin_port = ::htons(static_cast<std::uint16_t>(m_port))};
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, ::connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_EQ(static_cast<ssize_t>(text.size()), ::send(connection.Get(), text.data(), text.size(), MSG_NOSIGNAL));
    return connection;
  }

  const test_support::TemporaryDirectory m_directory;
  std::unique_ptr<Process> m_server;
  int m_port = 0;
};

TEST_F(ServeTest, ShowsProcessesThatAreStoppedAndOnlyCountsTheDeadAndTheUnreadable) {
  const auto running = Play("1", "2");
  const auto stopped = Play("1", "2");
  auto killed = Play("1", "2");
  stopped->Signal(SIGSTOP);
  killed->Signal(SIGKILL);
  killed->Wait();
  std::ofstream(m_directory.Path() / "scribbled.1.page") << "no page";
  Serve();
  const std::string metrics = Get("/metrics");
  for (const auto& [state, number] : {std::pair{"running", 1}, {"stopped", 1}, {"ended", 1}, {"unreadable", 1}}) {
    EXPECT_THAT(metrics, HasSubstr(std::string("price_connector_pages{state=\"") + state + "\"} " +
                                   std::to_string(number) + "\n"));
  }
  const std::string json = Get("/json");
  EXPECT_THAT(json, HasSubstr("\"state\":\"stopped\""));
  EXPECT_THAT(json, HasSubstr("scribbled.1.page: "));
  EXPECT_THAT(json, HasSubstr("\"operational_mode\""));
  EXPECT_THAT(Get("/live.json"), Not(HasSubstr("\"operational_mode\"")));
  EXPECT_THAT(Get("/"), HasSubstr("<!DOCTYPE html>"));
  stopped->Signal(SIGCONT);
}

TEST_F(ServeTest, AnswersEachScraperInTheFormatThatItAccepts) {
  const auto player = Play("1", "2");
  Serve();
  const auto open =
      Client().Get("/metrics", {{"Accept", "application/openmetrics-text;version=1.0.0,text/plain;q=0.5"}});
  ASSERT_TRUE(open);
  EXPECT_THAT(open->get_header_value("Content-Type"), HasSubstr("application/openmetrics-text"));
  EXPECT_THAT(open->body, HasSubstr("\n# EOF\n"));
  const auto text = Client().Get("/metrics");
  ASSERT_TRUE(text);
  EXPECT_THAT(text->get_header_value("Content-Type"), HasSubstr("text/plain"));
  EXPECT_THAT(text->body, Not(HasSubstr("# EOF")));
}

TEST_F(ServeTest, LetsNoOtherWebSiteReadThroughABrowser) {
  Serve();
  for (const auto& [host, status] : {std::pair<std::string, int>{"evil.example", 421},
                                     {"localhost.evil.example", 421},
                                     {"[::1", 421},
                                     {"127.0.0.1.evil.example", 421},
                                     {"localhost:1", 200},
                                     {"[::1]:9911", 200},
                                     {"192.0.2.7", 200}}) {
    const auto answer = Client().Get("/json", {{"Host", host}});
    ASSERT_TRUE(answer) << host;
    EXPECT_EQ(status, answer->status) << host;
    EXPECT_EQ("same-origin", answer->get_header_value("Cross-Origin-Resource-Policy"));
    EXPECT_FALSE(answer->has_header("Access-Control-Allow-Origin"));
  }
  EXPECT_EQ(405, Client().Post("/json")->status);
  EXPECT_EQ(404, Client().Get("/../json")->status);
}

TEST_F(ServeTest, ReadsNoRequestWithoutAnEnd) {
  Serve();
  httplib::Headers headers;
  for (int i = 0; i < 2000; ++i) {
    headers.emplace("X-" + std::to_string(i), std::string(100, 'x'));
  }
  const auto answer = Client().Get("/json", headers);
  EXPECT_TRUE(!answer || answer->status == 400);
  EXPECT_THAT(Get("/json"), HasSubstr("\"processes\":[]"));
}

TEST_F(ServeTest, AnswersAHundredScrapersAtOnceBesideThoseThatNeverReadOrNeverAsk) {
  const auto player = Play("3", "200");
  Serve();
  std::vector<zq::posix::Descriptor> hanging;
  for (int i = 0; i < 30; ++i) {
    hanging.push_back(Request("GET /json HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    hanging.push_back(Request("GET /json HTT"));
  }
  std::vector<std::string> answers(100);
  std::vector<std::thread> scrapers;
  for (auto& answer : answers) {
    scrapers.emplace_back([&] { answer = Get("/metrics"); });
  }
  for (auto& scraper : scrapers) {
    scraper.join();
  }
  for (const auto& answer : answers) {
    ASSERT_THAT(answer, HasSubstr("topic=\"prices.199\""));
    ASSERT_EQ('\n', answer.back());
  }
  // With connections that hang the end must not wait for their time to be over.
  const auto begin = std::chrono::steady_clock::now();
  m_server->Signal(SIGTERM);
  EXPECT_EQ(0, m_server->Wait()) << m_server->Errors();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
}

TEST_F(ServeTest, SaysWhyItCannotListen) {
  Serve();
  const std::string taken = "127.0.0.1:" + std::to_string(m_port);
  for (const auto& [address, reason] :
       {std::pair<std::string, std::string>{taken, "Address already in use; choose another port"},
        {"0.0.0.0:0", "--beyond-this-machine"},
        {"[::]:0", "--beyond-this-machine"},
        {"127.0.0.1", "an address and a port are needed"},
        {"127.0.0.1:70000", "an address and a port are needed"},
        {"example.org:80", "no address of an interface"}}) {
    const auto other = Start({"--listen=" + address});
    EXPECT_EQ(2, other->Wait()) << address;
    EXPECT_THAT(other->Errors(), HasSubstr(reason));
  }
}

}  // namespace
