#include "core/directory.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
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
  void Watch(const std::string&) override {}
  void Unwatch(const std::string&) override {}
  void WatchAll() override {}
  void Subscribe(transport::RemoteSource&) override {}
  void Unsubscribe(transport::RemoteSource&) override {}
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

  ScriptedTransport* m_transport;
  std::shared_ptr<Context> m_context;
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
  OptionSet options = OptionSet::BuiltInDefaults(Scope::kReceiver);
  options.SetText("loss_burst_threshold", "2");
  std::vector<std::string> lines;
  const auto record = [](lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    static_cast<std::vector<std::string>*>(clientd)->push_back(std::to_string(message->type) + " " +
                                                               std::to_string(message->sequence_number) + " " +
                                                               std::to_string(message->len));
    return 0;
  };
  OpenReceiver receiver;
  m_context->CreateReceiver(m_context->Topics().Find("T", options), {.proc = record, .clientd = &lines}, nullptr,
                            receiver);
  m_transport->events.push_back([](transport::Listener& listener) {
    const auto source = std::make_shared<transport::RemoteSource>("T", "session");
    listener.OnSourceUp(source);
    listener.OnLoss(*source, 0xffffffff, 2);
    listener.OnLoss(*source, 1, 3);
  });
  m_context->ProcessEvents(0);
  EXPECT_EQ((std::vector<std::string>{"20 4294967295 0", "4 4294967295 0", "4 0 0", "5 1 3"}), lines);
  m_context->DeleteReceiver(std::move(receiver));
}

}  // namespace
}  // namespace engine::core
