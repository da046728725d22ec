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

  const char* kind;
  std::string name;
  unsigned number = 0;
  bool alive = true;
  bool counted = true;  // has to be given back
  Options options;
  std::multiset<std::thread::id> delivering;  // threads that are inside one of its callbacks
};

// Something that runs what was posted to it.
struct Dispatcher : Object {
  using Object::Object;

  std::deque<std::function<void()>> work;
  bool unblocked = false;
  int inside = 0;
};

struct FdRegistration : Object {
  using Object::Object;

  int fd = 0;
  lbm_ulong_t events = 0;
  lbm_fd_cb_proc proc = nullptr;
  void* clientd = nullptr;
};

struct MessageObject : Object {
  explicit MessageObject(const Message& message, const std::string& topic);

  std::string data;
  std::string source;
  lbm_msg_channel_info_t channel{};
  lbm_msg_t msg{};
  std::size_t references = 1;
};

}  // namespace lbm_scripted

struct lbm_context_t_stct : lbm_scripted::Dispatcher {
  using Dispatcher::Dispatcher;
  std::vector<std::shared_ptr<lbm_scripted::FdRegistration>> descriptors;
};
struct lbm_event_queue_t_stct : lbm_scripted::Dispatcher {
  using Dispatcher::Dispatcher;
};
struct lbm_topic_t_stct : lbm_scripted::Object {
  using Object::Object;
  lbm_context_t* context = nullptr;
};
struct lbm_src_t_stct : lbm_scripted::Object {
  using Object::Object;
  lbm_src_cb_proc proc = nullptr;
  void* clientd = nullptr;
};
struct lbm_rcv_t_stct : lbm_scripted::Object {
  using Object::Object;
  lbm_rcv_cb_proc proc = nullptr;
  void* clientd = nullptr;
};
struct lbm_request_t_stct : lbm_scripted::Object {
  using Object::Object;
  lbm_request_cb_proc proc = nullptr;
  void* clientd = nullptr;
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
  enum class Handle { kNone, kRequired, kOptional };

  Argument argument;
  Handle handle = Handle::kNone;
};

Input Number(const char* name, std::int64_t value);
Input Pointer(const char* name, const void* value);
Input Text(const char* name, const char* value);
Input Bytes(const char* name, const void* data, std::size_t size);
Input Handle(const char* name, const void* handle);
Input OptionalHandle(const char* name, const void* handle);

template <class Callback>
Input Function(const char* name, Callback callback) {
  return {{name, callback != nullptr ? "set" : "null", reinterpret_cast<Argument::Function>(callback)}};
}

class State;

// A call in progress; its thread holds the lock.
struct Running {
  State& state;
  std::unique_lock<std::mutex>& lock;
  Call& call;
  bool scripted;  // the result is given by the test

  int Fail(int errnum, std::string errmsg);
  void Note(const char* name, std::string text, decltype(Argument::value) value);

  // Registers a new object and records it as what the call made.
  template <class Made>
  Made* Make(const char* name, std::shared_ptr<Made> object);
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

  // Calls one of object's callbacks without the lock; deleting the object waits for it.
  template <class Result>
  Result CallOut(std::unique_lock<std::mutex>& lock, Object& object, const std::function<Result()>& callback) {
    object.delivering.insert(std::this_thread::get_id());
    lock.unlock();
    struct Return {
      ~Return() {
        lock.lock();
        object.delivering.erase(object.delivering.find(std::this_thread::get_id()));
        state.changed.notify_all();
      }
      State& state;
      std::unique_lock<std::mutex>& lock;
      Object& object;
    } back{*this, lock, object};
    return callback();
  }

  // With the lock held:
  void SetInitialDefaults();
  void Register(const void* key, std::shared_ptr<Object> object);
  std::shared_ptr<Object> Find(const void* key) const;  // also the deleted; null when unknown
  void WaitForCallbacks(std::unique_lock<std::mutex>& lock, Object& object);
  void Release(MessageObject& message);
  const Option* FindOption(const Object& object, const char* scope, const std::string& name) const;
  std::optional<Result> TakeScripted(const std::string& function);

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
  State();
};

// The calling thread's last failure.
struct LastError {
  int number = 0;
  std::string text;
};
LastError& ThreadError();

template <class Made>
Made* Running::Make(const char* name, std::shared_ptr<Made> object) {
  Made* const handle = object.get();
  state.Register(handle, std::move(object));
  Note(name, handle->Describe(), static_cast<const void*>(handle));
  return handle;
}

}  // namespace lbm_scripted
