// What the C functions and the test's side share: the objects behind the handles, and the book of calls.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>

#include "lbm_scripted/lbm_scripted.h"

namespace lbm_scripted {

struct Option {
  std::string value;
  bool binary = false;
};
using Options = std::map<std::string, Option>;

struct Object {
  explicit Object(const char* objectKind, std::string objectName = {})
      : kind(objectKind), name(std::move(objectName)) {}
  virtual ~Object() = default;

  std::string Describe() const;

  // Why no callback of it may begin; empty when one may.
  std::string Refusal() const;

  const char* kind;
  std::string name;
  unsigned number = 0;
  bool alive = true;    // was not given back
  bool counted = true;  // has to be given back
  bool closed = false;  // begins no more callbacks: it is being deleted, or was shut down
  Options options;
  std::shared_ptr<Object> context;  // whose end closes this too; null for what belongs to none
  std::multiset<std::thread::id>
      inside;  // threads that are in its callbacks, process its events, or are in its children
};

// Something that runs what was posted to it.
struct Dispatcher : Object {
  using Object::Object;

  std::deque<std::function<void()>> work;
  bool unblocked = false;
};

// Something with a callback of its own.
template <class Callback>
struct Endpoint : Object {
  using Object::Object;

  Callback proc = nullptr;
  void* clientd = nullptr;
};

struct FdRegistration : Endpoint<lbm_fd_cb_proc> {
  using Endpoint::Endpoint;
};

struct MessageObject : Object {
  explicit MessageObject(const Message& message, const std::string& topic);

  std::string data;
  std::string source;
  lbm_msg_channel_info_t channel{};
  lbm_msg_t msg{};
  std::shared_ptr<Object> response;
  std::size_t references = 1;
};

}  // namespace lbm_scripted

struct lbm_context_t_stct : lbm_scripted::Dispatcher {
  using Dispatcher::Dispatcher;
  // By descriptor and the one event.
  std::map<std::pair<int, lbm_ulong_t>, std::shared_ptr<lbm_scripted::FdRegistration>> descriptors;
};
struct lbm_event_queue_t_stct : lbm_scripted::Dispatcher {
  using Dispatcher::Dispatcher;
};
struct lbm_topic_t_stct : lbm_scripted::Object {
  using Object::Object;
};
struct lbm_src_t_stct : lbm_scripted::Endpoint<lbm_src_cb_proc> {
  using Endpoint::Endpoint;
};
struct lbm_rcv_t_stct : lbm_scripted::Endpoint<lbm_rcv_cb_proc> {
  using Endpoint::Endpoint;
};
struct lbm_request_t_stct : lbm_scripted::Endpoint<lbm_request_cb_proc> {
  using Endpoint::Endpoint;
};
struct lbm_response_t_stct : lbm_scripted::Object {
  using Object::Object;
};
struct lbm_context_attr_t_stct : lbm_scripted::Object {
  using Object::Object;
};
struct lbm_src_topic_attr_t_stct : lbm_scripted::Object {
  using Object::Object;
};
struct lbm_rcv_topic_attr_t_stct : lbm_scripted::Object {
  using Object::Object;
};
struct lbm_event_queue_attr_t_stct : lbm_scripted::Object {
  using Object::Object;
};

namespace lbm_scripted {

// An argument as the C function got it.
struct Input {
  Argument argument;
  bool handle = false;
  bool recorded = true;
  std::string wrong = {};  // what can be seen to be wrong without looking at any object
};

Input Number(const char* name, std::int64_t value);
Input Pointer(const char* name, const void* value);
Input Text(const char* name, const char* value);
Input Bytes(const char* name, const void* data, std::size_t size);  // wrong when bytes are missing
Input OptionalHandle(const char* name, const void* handle);

template <class Callback>
Input Function(const char* name, Callback callback) {
  return {{name, callback != nullptr ? "set" : "null", reinterpret_cast<Argument::Function>(callback)}};
}

bool IsNull(const Argument& argument);

Input NotNull(Input input);
Input Handle(const char* name, const void* handle);       // not null
Input Room(const char* name, const void* room);           // not null: where the call writes; not part of the record
Input Count(const char* name, const std::size_t* count);  // not null: stands in the record as the number

class State;

// A call in progress; its thread holds the lock.
struct Running {
  State& state;
  std::unique_lock<std::mutex>& lock;
  Call& call;
  bool scripted;  // the result is given by the test

  int Fail(int errnum, std::string errmsg);
  int FailMisused(int errnum, const std::string& problem);
  void Note(const char* name, std::string text, decltype(Argument::value) value);

  // Registers a new object, records it as what the call made, and hands it out.
  template <class Made>
  Made& Make(const char* argument, Made** handle, const char* kind, std::string name = {});
};

// Process-wide, and never destroyed: callers may outlive main.
class State {
 public:
  using Body = std::function<int(Running&)>;

  static State& Get();

  // One call of the interface, from record to result. body is what the function does by itself.
  int Run(const char* function, std::vector<Input> inputs, const Body& body = {});

  // Waits for something to do as the calls that process events do, and returns their result.
  int Dispatch(Running& running, Dispatcher& dispatcher, lbm_ulong_t msec, bool returnAfterWork);

  // Calls one of object's callbacks without the lock; closing the object or its context waits for it.
  template <class Callback>
  auto CallOut(std::unique_lock<std::mutex>& lock, Object& object, const Callback& callback) {
    const Inside inside(*this, object);
    const Unlocked unlocked(lock);
    return callback();
  }

  // With the lock held:
  void SetInitialDefaults();
  void Register(const void* key, std::shared_ptr<Object> object);
  std::shared_ptr<Object> Find(const void* key) const;  // also the deleted; null when unknown
  void Release(MessageObject& message);
  const Option* FindOption(const Object& object, const char* scope, const std::string& name) const;
  std::optional<Result> TakeScripted(const std::string& function);
  // No callback begins any more, and posted work is dropped.
  void Close(std::unique_lock<std::mutex>& lock, Object& object);
  // Returns when no other thread is inside the object.
  void WaitForOthers(std::unique_lock<std::mutex>& lock, const Object& object);

  std::mutex mutex;
  std::condition_variable changed;

  // Guarded by mutex.
  std::vector<std::shared_ptr<Call>> calls;
  std::shared_ptr<Call> lastIdle;  // the call that processed events last and found nothing to do
  std::map<std::string, std::deque<std::pair<Result, int>>, std::less<>> scripts;
  std::map<std::string, std::function<void(const Call&)>, std::less<>> hooks;
  std::map<std::string, Options> defaults;  // by scope
  std::unordered_map<const void*, std::shared_ptr<Object>> objects;
  std::vector<std::string> problems;
  unsigned lastNumber = 0;
  unsigned numberAtReset = 0;

 private:
  // The calling thread is inside an object, and so inside its context. Made and destroyed with the lock held.
  class Inside {
   public:
    Inside(State& state, Object& object);
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    State& m_state;
    Object& m_object;
  };

  class Unlocked {
   public:
    explicit Unlocked(std::unique_lock<std::mutex>& lock) : m_lock(lock) { m_lock.unlock(); }
    ~Unlocked() { m_lock.lock(); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

   private:
    std::unique_lock<std::mutex>& m_lock;
  };

  State();
};

// The calling thread's last failure.
struct LastError {
  int number = 0;
  std::string text;
};
LastError& ThreadError();

template <class Made>
Made& Running::Make(const char* argument, Made** handle, const char* kind, std::string name) {
  const auto made = std::make_shared<Made>(kind, std::move(name));
  state.Register(made.get(), made);
  Note(argument, made->Describe(), static_cast<const void*>(made.get()));
  *handle = made.get();
  return *made;
}

}  // namespace lbm_scripted
