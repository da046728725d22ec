#include "core/directory.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <set>
#include <stdexcept>

#include "core/context.h"
#include "options/option_keys.h"
#include "zq/posix/event.h"

namespace engine::core {
namespace {

// A transport whose events the test makes up.
class ScriptedTransport : public transport::Transport {
 public:
  const std::string& Identity() const noexcept override { return m_identity; }
  std::shared_ptr<transport::Publication> Advertise(const transport::PublicationInfo&) override {
    return std::make_shared<transport::Publication>(1, m_identity + ":1");
  }
  void Withdraw(transport::Publication&) override {}
  void Watch(const std::string& topic) override { watched.insert(topic); }
  void Unwatch(const std::string& topic) override { watched.erase(topic); }
  void WatchAll() override { watched.insert("*"); }
  void Subscribe(transport::RemoteSource& source) override { subscriptions.push_back("+" + source.Topic()); }
  void Unsubscribe(transport::RemoteSource& source) override { subscriptions.push_back("-" + source.Topic()); }
  transport::SendResult Publish(transport::Publication&, const transport::OutboundMessage&,
                                const transport::SendWait&) override {
    return transport::SendResult::kSent;
  }
  bool HasSubscriber(const transport::Publication&, std::string_view) override { return false; }
  transport::SendResult Respond(transport::ReplyPath&, std::span<const iovec>, const transport::SendWait&) override {
    return transport::SendResult::kSent;
  }
  int GetDescriptor() const noexcept override { return m_event.GetDescriptor(); }
  bool Park() override { return events.empty(); }
  void Unpark() noexcept override {}
  std::size_t Drain(transport::Listener& listener) override { return DrainMemory(listener); }
  std::size_t DrainMemory(transport::Listener& listener) override {
    std::size_t done = 0;
    for (; !events.empty(); ++done) {
      const auto event = std::move(events.front());
      events.pop_front();
      event(listener);
    }
    return done;
  }
  void Close(std::chrono::milliseconds) noexcept override { closed = true; }

  std::deque<std::function<void(transport::Listener&)>> events;
  std::vector<std::string> subscriptions;
  std::set<std::string> watched;
  bool closed = false;

 private:
  const std::string m_identity = "scripted";
  zq::posix::Event m_event;
};

class DirectoryTest : public ::testing::Test {
 protected:
  DirectoryTest() {
    auto transport = std::make_unique<ScriptedTransport>();
    m_transport = transport.get();
    OptionSet options = OptionSet::BuiltInDefaults(Scope::kContext);
    options.SetText("operational_mode", "sequential");
    m_context = Context::Create(options, std::move(transport), std::make_shared<ContextStatistics>(), nullptr);
  }
  ~DirectoryTest() override { m_context->Remove(nullptr); }

  OpenReceiver Receive(const char* topic, std::vector<std::string>& lines) {
    OptionSet options = OptionSet::BuiltInDefaults(Scope::kReceiver);
    options.SetText("loss_burst_threshold", "2");
    const auto record = [](lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
      static_cast<std::vector<std::string>*>(clientd)->push_back(std::to_string(message->type) + " " +
                                                                 std::to_string(message->sequence_number) + " " +
                                                                 std::to_string(message->len));
      return 0;
    };
    OpenReceiver receiver;
    m_context->CreateReceiver(m_context->Topics().Find(topic, options), {.proc = record, .clientd = &lines}, nullptr,
                              receiver);
    return receiver;
  }

  void Play(std::function<void(transport::Listener&)> event) {
    m_transport->events.push_back(std::move(event));
    m_context->ProcessEvents(0);
  }

  ScriptedTransport* m_transport;
  std::shared_ptr<Context> m_context;
  const std::shared_ptr<transport::RemoteSource> m_source = std::make_shared<transport::RemoteSource>("T", "session");
};

TEST_F(DirectoryTest, ADeletionInACallbackHoldsThoughProcessingFailsAfterIt) {
  m_transport->events.push_back([&](transport::Listener&) {
    m_context->Remove(nullptr);
    throw std::runtime_error("broken");
  });
  EXPECT_THROW(m_context->ProcessEvents(0), std::runtime_error);
  EXPECT_TRUE(m_transport->closed);
}

TEST_F(DirectoryTest, ReportsLossOneByOneUpToTheThresholdAndThenAsABurst) {
  std::vector<std::string> lines;
  auto receiver = Receive("T", lines);
  Play([&](transport::Listener& listener) {
    listener.OnSourceUp(m_source);
    listener.OnLoss(*m_source, 0xffffffff, 2);
    listener.OnLoss(*m_source, 1, 3);
  });
  EXPECT_EQ((std::vector<std::string>{"20 4294967295 0", "4 4294967295 0", "4 0 0", "5 1 3"}), lines);
  m_context->DeleteReceiver(std::move(receiver));
}

TEST_F(DirectoryTest, SubscribesWhileThereIsAReceiver) {
  std::vector<std::string> lines;
  Play([&](transport::Listener& listener) { listener.OnSourceUp(m_source); });
  EXPECT_TRUE(m_transport->subscriptions.empty());
  auto first = Receive("T", lines);
  auto second = Receive("T", lines);
  m_context->ProcessEvents(0);
  m_context->DeleteReceiver(std::move(first));
  m_context->ProcessEvents(0);
  EXPECT_EQ((std::vector<std::string>{"+T"}), m_transport->subscriptions);
  m_context->DeleteReceiver(std::move(second));
  m_context->ProcessEvents(0);
  EXPECT_EQ((std::vector<std::string>{"+T", "-T"}), m_transport->subscriptions);
  Play([&](transport::Listener& listener) {
    transport::InboundMessage late;
    listener.OnMessage(*m_source, late);
    listener.OnSourceDown(m_source);
    listener.OnMessage(*m_source, late);
  });
  EXPECT_TRUE(lines.empty());
}

TEST_F(DirectoryTest, ASourceThatNeverSpokeEndsInSilence) {
  std::vector<std::string> lines;
  auto receiver = Receive("T", lines);
  Play([&](transport::Listener& listener) {
    listener.OnSourceUp(m_source);
    listener.OnSourceDown(m_source);
  });
  EXPECT_TRUE(lines.empty());
  m_context->DeleteReceiver(std::move(receiver));
}

}  // namespace
}  // namespace engine::core
