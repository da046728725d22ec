// Sequences of calls of the messaging interface, also from inside callbacks: objects come and go in any order, and a
// good server and its client beside them lose nothing.
#include <lbm/lbm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>

#include "harness/input.h"
#include "harness/oracle.h"
#include "test_support/private_domain.h"

namespace fuzz {
namespace {

constexpr std::array kTopics{"a", "b", "prices"};
constexpr std::array kOptions{"context_name", "spin_time", "transport_pacing", "transport_source", "queue_bytes_max"};

// A call that fails says why.
bool Succeeded(int result) {
  Require(result >= 0 || (lbm_errnum() != 0 && *lbm_errmsg() != '\0'), "failures have a number and a text");
  return result >= 0;
}

// New attributes of one kind, given back in the end.
template <typename Attr>
std::unique_ptr<Attr, int (*)(Attr*)> MakeAttributes(int (*create)(Attr**), int (*remove)(Attr*)) {
  Attr* attr = nullptr;
  Require(create(&attr) == 0, "attributes can be made");
  return {attr, remove};
}

lbm_context_t* MakeContext(Input* input = nullptr) {
  const auto attributes = MakeAttributes(lbm_context_attr_create, lbm_context_attr_delete);
  lbm_context_attr_str_setopt(attributes.get(), "operational_mode", "sequential");
  lbm_context_attr_str_setopt(attributes.get(), "transport_ring_size", "65536");
  if (input != nullptr && input->UpTo<std::uint8_t>(3) == 0) {
    const std::string value =
        input->ConsumeBool() ? std::to_string(input->ConsumeIntegral<std::uint32_t>()) : input->Text(20);
    Succeeded(lbm_context_attr_str_setopt(attributes.get(), input->PickValueInArray(kOptions), value.c_str()));
  }
  lbm_context_t* context = nullptr;
  Succeeded(lbm_context_create(&context, attributes.get(), nullptr, nullptr));
  return context;
}

lbm_src_t* MakeSource(lbm_context_t* context, const char* topicName, const char* pacing, lbm_src_cb_proc proc = nullptr,
                      void* clientd = nullptr, lbm_event_queue_t* queue = nullptr) {
  const auto attributes = MakeAttributes(lbm_src_topic_attr_create, lbm_src_topic_attr_delete);
  lbm_src_topic_attr_str_setopt(attributes.get(), "transport_pacing", pacing);
  lbm_topic_t* topic = nullptr;
  lbm_src_t* source = nullptr;
  if (Succeeded(lbm_src_topic_alloc(&topic, context, topicName, attributes.get()))) {
    Succeeded(lbm_src_create(&source, context, topic, proc, clientd, queue));
  }
  return source;
}

lbm_rcv_t* MakeReceiver(lbm_context_t* context, const char* topicName, lbm_rcv_cb_proc proc, void* clientd,
                        lbm_event_queue_t* queue = nullptr) {
  lbm_topic_t* topic = nullptr;
  lbm_rcv_t* receiver = nullptr;
  if (Succeeded(lbm_rcv_topic_lookup(&topic, context, topicName, nullptr))) {
    Succeeded(lbm_rcv_create(&receiver, context, topic, proc, clientd, queue));
  }
  return receiver;
}

// A good server and a good client, who must not be disturbed.
class Witness {
 public:
  Witness() {
    m_source = MakeSource(m_server, kTopic, "source");
    m_receiver = MakeReceiver(m_client, kTopic, &Witness::Receive, this);
    while (m_sent == 0 || !m_began) {
      Check();
    }
  }
  ~Witness() {
    lbm_rcv_delete(m_receiver);
    lbm_src_delete(m_source);
    lbm_context_delete(m_client);
    lbm_context_delete(m_server);
  }
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;

  void Check() {
    Require(lbm_src_send(m_source, reinterpret_cast<const char*>(&m_sent), sizeof m_sent, LBM_SRC_NONBLOCK) == 0,
            "the server can send");
    ++m_sent;
    for (int rounds = 0; rounds < 10'000 && (!m_began || m_next != m_sent); ++rounds) {
      lbm_context_process_events(m_server, 1);
      lbm_context_process_events(m_client, 1);
      if (!m_began) {
        return;
      }
    }
    Require(m_next == m_sent, "messages arrive");
  }

 private:
  static constexpr const char* kTopic = "witness";

  static int Receive(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    auto& self = *static_cast<Witness*>(clientd);
    if (message->type == LBM_MSG_BOS) {
      self.m_next = message->sequence_number;
      self.m_began = true;
    } else {
      Require(message->type == LBM_MSG_DATA, "nothing is lost, and the server does not end");
      std::uint32_t number = 0;
      std::memcpy(&number, message->data, sizeof number);
      Require(number == self.m_next, "messages come in order, none twice");
      ++self.m_next;
    }
    return 0;
  }

  lbm_context_t* const m_server = MakeContext();
  lbm_context_t* const m_client = MakeContext();
  lbm_src_t* m_source = nullptr;
  lbm_rcv_t* m_receiver = nullptr;
  std::uint32_t m_sent = 0;
  std::uint32_t m_next = 0;
  bool m_began = false;
};

class AnyObjects {
 public:
  virtual ~AnyObjects() = default;
  virtual void DeleteOne(Input& input) = 0;
  virtual bool Empty() const = 0;
};

// Objects of one kind that are alive.
template <typename T>
class Objects final : public AnyObjects {
 public:
  explicit Objects(int (*remove)(T*)) : m_remove(remove) {}

  // Unless there are enough. make: gives null when it cannot.
  template <typename Make>
  void Add(Make make) {
    if (m_objects.size() < kMost) {
      if (T* const made = make()) {
        m_objects.push_back(made);
      }
    }
  }
  // Null when there is none.
  T* Pick(Input& input) const {
    return m_objects.empty() ? nullptr : m_objects[input.UpTo<std::size_t>(7) % m_objects.size()];
  }
  void DeleteOne(Input& input) override {
    if (T* const object = Pick(input); object != nullptr) {
      std::erase(m_objects, object);
      Require(m_remove(object) == 0, "objects can be deleted");
    }
  }
  bool Empty() const override { return m_objects.empty(); }

 private:
  static constexpr std::size_t kMost = 6;

  int (*const m_remove)(T*);
  std::vector<T*> m_objects;
};

// A message that was kept, and what it said.
struct Kept {
  lbm_msg_t* message;
  std::uint32_t sequence;
  std::size_t length;
};
int GiveBack(Kept* object) {
  const std::unique_ptr<const Kept> kept(object);
  Require(kept->message->sequence_number == kept->sequence && kept->message->len == kept->length,
          "messages that are kept stay as they are");
  return lbm_msg_delete(kept->message);
}

class Program {
 public:
  explicit Program(Input& input) : m_input(input) {
    m_contexts.Add([&] { return MakeContext(&input); });
  }

  void Run() {
    for (int steps = 0; m_input.Left() && steps < 200; ++steps) {
      Step();
    }
    const auto isEmpty = [](const AnyObjects* objects) { return objects->Empty(); };
    for (std::size_t kind = AnyKind(); !std::all_of(m_all.begin(), m_all.end(), isEmpty); ++kind) {
      Delete(kind % m_all.size());
    }
  }

 private:
  // Also with what is not there, which is refused.
  void Step() {
    lbm_context_t* const context = m_contexts.Pick(m_input);
    lbm_src_t* const source = m_sources.Pick(m_input);
    lbm_event_queue_t* const queue = m_input.ConsumeBool() ? m_queues.Pick(m_input) : nullptr;
    switch (m_input.UpTo<std::uint8_t>(13)) {
      case 0:
        m_contexts.Add([&] { return MakeContext(&m_input); });
        break;
      case 1:
        m_sources.Add([&] {
          return MakeSource(context, Topic(), m_input.ConsumeBool() ? "source" : "receiver", &Program::OnEvent, this,
                            queue);
        });
        break;
      case 2:
        m_receivers.Add([&] { return MakeReceiver(context, Topic(), &Program::OnMessage, this, queue); });
        break;
      case 3:
        m_queues.Add([] {
          lbm_event_queue_t* made = nullptr;
          Succeeded(lbm_event_queue_create(&made, nullptr, nullptr, nullptr));
          return made;
        });
        break;
      case 4:
        m_requests.Add([&] {
          lbm_request_t* request = nullptr;
          Succeeded(lbm_send_request(&request, source, m_data.data(), Size(), &Program::OnResponse, this, queue,
                                     LBM_SRC_NONBLOCK));
          return request;
        });
        break;
      case 5:
        Succeeded(lbm_send_response(m_responses.Pick(m_input), m_data.data(), Size(), LBM_SRC_NONBLOCK));
        break;
      case 6:
        Delete(AnyKind());
        break;
      case 7:
        Options(context, source);
        break;
      case 8:
        Succeeded(m_input.UpTo<std::uint8_t>(15) == 0 ? lbm_event_queue_shutdown(queue)
                                                      : lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL));
        break;
      case 9: {
        const lbm_src_send_ex_info_t channel{LBM_SRC_SEND_EX_FLAG_CHANNEL, m_input.ConsumeIntegral<std::uint32_t>()};
        Succeeded(lbm_src_send_ex(source, m_data.data(), Size(), LBM_SRC_NONBLOCK, &channel));
        break;
      }
      case 10:
      case 11:
        Succeeded(lbm_src_send(source, m_data.data(), Size(), LBM_SRC_NONBLOCK | LBM_SRC_FLUSH));
        break;
      default:
        Succeeded(lbm_context_process_events(context, m_input.ConsumeBool() ? 1 : 0));
    }
  }

  void Options(lbm_context_t* context, lbm_src_t* source) {
    const char* const name = m_input.PickValueInArray(kOptions);
    const std::string value = m_input.Text(20);
    std::array<char, 64> buffer{};
    std::size_t size = m_input.UpTo(buffer.size());
    if (m_input.ConsumeBool()) {
      Succeeded(lbm_context_str_setopt(context, name, value.c_str()));
      Succeeded(lbm_context_str_getopt(context, name, buffer.data(), &size));
    } else {
      Succeeded(lbm_src_getopt(source, name, buffer.data(), &size));
    }
  }

  std::size_t AnyKind() { return m_input.UpTo<std::uint8_t>(static_cast<std::uint8_t>(m_all.size() - 1)); }
  void Delete(std::size_t kind) {
    if (!m_inCallback || m_all[kind] != &m_queues) {  // the callback may be one of the queue's own
      m_all[kind]->DeleteOne(m_input);
    }
  }

  std::string m_topicName;
  const char* Topic() {
    m_topicName = m_input.UpTo<std::uint8_t>(7) == 0 ? m_input.Text(300) : m_input.PickValueInArray(kTopics);
    return m_topicName.c_str();
  }
  std::size_t Size() { return m_input.UpTo<std::size_t>(m_input.UpTo<std::uint8_t>(7) == 0 ? m_data.size() : 100); }

  // What a callback may do beside its work.
  void React() {
    m_inCallback = true;
    const auto what = m_input.UpTo<std::uint8_t>(7);
    if (what == 0) {
      Delete(AnyKind());
    } else if (what == 1) {
      Succeeded(lbm_src_send(m_sources.Pick(m_input), m_data.data(), Size(), LBM_SRC_NONBLOCK));
    }
    m_inCallback = false;
  }

  static int OnEvent(lbm_src_t*, int, void*, void* clientd) {
    static_cast<Program*>(clientd)->React();
    return 0;
  }
  static int OnMessage(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    auto& self = *static_cast<Program*>(clientd);
    self.Keep(message);
    if (message->response != nullptr && self.m_input.ConsumeBool()) {
      self.m_responses.Add([&] { return std::exchange(message->response, nullptr); });
    }
    self.React();
    return 0;
  }
  static int OnResponse(lbm_request_t*, lbm_msg_t* message, void* clientd) {
    auto& self = *static_cast<Program*>(clientd);
    self.Keep(message);
    self.React();
    return 0;
  }
  void Keep(lbm_msg_t* message) {
    Require(message->source != nullptr && message->topic_name != nullptr, "messages have names");
    Require(message->data != nullptr || message->len == 0 || message->type == LBM_MSG_UNRECOVERABLE_LOSS_BURST,
            "messages have their data");
    if (m_input.UpTo<std::uint8_t>(3) == 0) {
      m_messages.Add([&] {
        Require(lbm_msg_retain(message) == 0, "messages can be kept");
        return new Kept{message, message->sequence_number, message->len};
      });
    }
  }

  Input& m_input;
  bool m_inCallback = false;
  const std::string m_data = std::string(200'000, 'x');
  Objects<lbm_context_t> m_contexts{lbm_context_delete};
  Objects<lbm_src_t> m_sources{lbm_src_delete};
  Objects<lbm_rcv_t> m_receivers{lbm_rcv_delete};
  Objects<lbm_event_queue_t> m_queues{lbm_event_queue_delete};
  Objects<lbm_request_t> m_requests{lbm_request_delete};
  Objects<lbm_response_t> m_responses{lbm_response_delete};
  Objects<Kept> m_messages{GiveBack};
  const std::array<AnyObjects*, 7> m_all{&m_contexts,  &m_sources,  &m_receivers, &m_requests,
                                         &m_responses, &m_messages, &m_queues};
};

void CallAnything(Input& input) {
  static const test_support::PrivateDomain domain;
  static const int silenced = lbm_log([](int, const char*, void*) { return 0; }, nullptr);
  static_cast<void>(silenced);
  static Witness witness;
  static Flat flat;
  flat.Begin();
  Program(input).Run();
  witness.Check();
  flat.End();
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::CallAnything)
