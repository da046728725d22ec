// A test's side of the scripted provider: a library that has every function of the messaging C interface and does
// nothing by itself. Link a test with price_connector::lbm_scripted in place of a messaging library; then
//
//   record    every call is kept with its arguments and thread, in order: Calls, CallsTo, WaitForCalls;
//   script    calls succeed, and create calls give fresh handles, unless the test said otherwise: Script, SetOption,
//             OnCall;
//   deliver   messages, source events, descriptor events and notifications go into the callbacks that were
//             registered, on the thread that the test chooses: Deliver..., Notify..., Post;
//   account   handles not given back, and calls with handles that were: LiveHandles, Problems.
//
// Options are kept: what is set on attributes is read back from them and from what is created with them. Nothing is
// sent anywhere, and delivering is the test's own act: event queues and operational modes make no difference to it.
// lbm_context_process_events and lbm_event_dispatch wait until their time is up, they are unblocked, a result was
// scripted, the context is deleted or the queue is shut down. Both run what is posted; the former then returns.
//
// Objects end as the interface says. Deleting one, or cancelling a descriptor, closes it to further callbacks and waits
// for those that other threads are in; from inside its own callback a thread does not wait for itself. Deleting a
// context does the same for all that was made on it, makes lbm_context_process_events return and drops what was posted.
// What outlives its context has to be given back, but nothing is delivered to it, and sending with it fails with
// LBM_EOP.
//
// Each test starts with Reset, which leaves the handles that are still alive usable but no longer counts them.
//
// Threads: everything may be called on any thread. Reset clears the last error of its own thread only. Exceptions of
// hooks, callbacks and posted work leave through the call that ran them.
#pragma once

#include <lbm/lbm.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

#pragma GCC visibility push(default)

namespace lbm_scripted {

void Reset();

// ---- Record

struct Argument {
  using Function = void (*)();

  std::string name;  // as in the interface's declaration
  std::string text;  // for people: names of handles, quoted strings
  // Numbers; handles, client data and null strings; strings, data and option bytes; callbacks. What a create call made
  // stands under the handle's name, what was read under the buffer's.
  std::variant<std::int64_t, const void*, std::string, Function> value;
};

// One call. The accessors throw std::out_of_range for an argument that the function does not have and
// std::bad_variant_access for one of another type.
struct Call {
  std::string function;
  std::vector<Argument> arguments;
  int result = 0;  // 0 while the call is in progress
  std::thread::id thread;
  // More than 1 only for lbm_context_process_events and lbm_event_dispatch: equal calls in a row that found nothing to
  // do are one record.
  std::size_t times = 1;

  bool IsNull(std::string_view argument) const;
  std::int64_t Number(std::string_view argument) const { return std::get<std::int64_t>(Find(argument).value); }
  const void* Pointer(std::string_view argument) const { return std::get<const void*>(Find(argument).value); }
  const std::string& Text(std::string_view argument) const { return std::get<std::string>(Find(argument).value); }

  // Option bytes as the type they were set from.
  template <class T>
  T Value(std::string_view argument) const {
    static_assert(std::is_trivially_copyable_v<T>);
    const std::string& bytes = Text(argument);
    if (bytes.size() != sizeof(T)) {
      throw std::out_of_range(ToString() + ": the option's size is another");
    }
    T value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }

  template <class Callback>
  Callback Function(std::string_view argument) const {
    return reinterpret_cast<Callback>(std::get<Argument::Function>(Find(argument).value));
  }

  // lbm_src_send(src=src#3 "PRICES", data="abc", len=3, flags=4) = 0
  std::string ToString() const;

 private:
  const Argument& Find(std::string_view argument) const;
};

inline std::ostream& operator<<(std::ostream& out, const Call& call) { return out << call.ToString(); }

// All calls since Reset in the order in which they began.
std::vector<Call> Calls();

// Those to one function. Here and below a name that is no function of the interface throws std::invalid_argument.
std::vector<Call> CallsTo(std::string_view function);

// Waits until a function has been called count times; false when the time is up first.
bool WaitForCalls(std::string_view function, std::size_t count,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));

// ---- Script

struct Result {
  int value = 0;
  int errnum = 0;      // with value -1: what lbm_errnum()
  std::string errmsg;  // and lbm_errmsg() then say
};

inline Result Failure(int errnum, std::string errmsg) { return {-1, errnum, std::move(errmsg)}; }

constexpr int kAlways = -1;

// Gives a function's next results, behind those already scripted. With -1 the call does nothing; with any other value
// it does what it otherwise does. kAlways: until Reset.
void Script(std::string_view function, Result result, int times = 1);

// The text of an option that was not set. scope is "context", "source", "receiver" or "event_queue". Options that are
// neither set nor given here cannot be read, except the context's name, which is then empty.
void SetOption(const std::string& scope, const std::string& name, std::string text);

// The same for an option that is read in binary form.
void SetBinaryOption(const std::string& scope, const std::string& name, std::string bytes);

// Calls hook inside every later call of the function, on its thread, before it does anything; an empty hook ends that.
void OnCall(std::string_view function, std::function<void(const Call&)> hook);

// ---- Deliver
//
// All of these throw std::logic_error for a handle that was given back or has outlived its context, for a queue that
// was shut down, and where there is no callback for what is delivered.

// The object made last that can be delivered to, or null.
lbm_context_t* FindContext();
lbm_src_t* FindSource(std::string_view topic);
lbm_rcv_t* FindReceiver(std::string_view topic);

struct Message {
  std::string data;
  int type = LBM_MSG_DATA;  // LBM_MSG_REQUEST comes with a response
  int flags = 0;
  std::uint32_t sequenceNumber = 0;
  std::string source = "scripted";
  std::optional<std::uint32_t> channel = std::nullopt;
  void* sourceClientd = nullptr;
  timespec timestamp{};
};

// Makes a message with one reference, to be given back with lbm_msg_delete. Once its last reference is gone its data
// are null and its strings "deleted".
lbm_msg_t* MakeMessage(const Message& message, const std::string& topic = {});

// Give a message to the callback of a receiver or of a request and return its result.
int Deliver(lbm_rcv_t* rcv, const Message& message);
int Deliver(lbm_request_t* req, const Message& message);

int DeliverEvent(lbm_src_t* src, int event, void* eventData = nullptr);
int DeliverFdEvent(lbm_context_t* ctx, int fd, lbm_ulong_t event);  // one LBM_FD_EVENT_...

// Call the functions that were set as "resolver_source_notification_function" of the context, and as
// "source_notification_function" of the receiver's topic.
int NotifyContext(lbm_context_t* ctx, const std::string& topic, const std::string& source);
void* NotifySourceCreated(lbm_rcv_t* rcv, const std::string& source);
int NotifySourceDeleted(lbm_rcv_t* rcv, const std::string& source, void* sourceClientd);

// Runs work on the thread that is in, or next enters, lbm_context_process_events or lbm_event_dispatch.
void Post(lbm_context_t* ctx, std::function<void()> work);
void Post(lbm_event_queue_t* evq, std::function<void()> work);

// ---- Account

// What was made since Reset and not given back, each as: rcv#7 "PRICES". Kinds: context, src, rcv, event_queue,
// request, response, msg, and the attributes' context_attr, src_topic_attr, rcv_topic_attr, event_queue_attr. Neither
// topics, which belong to their context, nor responses that belong to a message are counted.
std::vector<std::string> LiveHandles(std::string_view kind = {});

// References to a message that are held.
std::size_t References(const lbm_msg_t* msg);

// Misuse of the interface since Reset, in words: null where the interface takes none, deleted or unknown handles, an
// object that two threads delete, and an event queue deleted while a thread was inside it. Such calls fail and do
// nothing.
std::vector<std::string> Problems();

}  // namespace lbm_scripted

#pragma GCC visibility pop
