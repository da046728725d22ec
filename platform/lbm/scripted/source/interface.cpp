// The functions of the messaging C interface.
#include <algorithm>
#include <utility>

#include "state.h"

namespace lbm_scripted {
namespace {

int Run(const char* function, std::vector<Input> inputs, const State::Body& body = {}) {
  return State::Get().Run(function, std::move(inputs), body);
}

// Ends an object once its callbacks on other threads have returned.
int End(Running& running, Object& object) {
  if (object.closed) {
    return running.FailMisused(LBM_EOP, object.Describe() + " is being deleted by another thread");
  }
  running.state.Close(running.lock, object);
  running.state.WaitForOthers(running.lock, object);
  object.alive = false;
  return 0;
}

int Delete(const char* function, const char* name, Object* handle) {
  return Run(function, {Handle(name, handle)}, [&](Running& running) {
    const std::shared_ptr<Object> kept = running.state.Find(handle);
    return End(running, *kept);
  });
}

// What has outlived its context fails, and that is no misuse.
int FailWithoutContext(Running& running, const Object& object) {
  const std::string refusal = object.Refusal();
  return refusal.empty() ? 0 : running.Fail(LBM_EOP, refusal);
}

// ---- Options

int SetBinary(const char* function, const char* owner, Object* object, const char* name, const void* value,
              std::size_t size) {
  return Run(function,
             {Handle(owner, object), NotNull(Text("optname", name)), NotNull(Bytes("optval", value, size)),
              Number("optlen", static_cast<std::int64_t>(size))},
             [&](Running&) {
               object->options[name] = {std::string(static_cast<const char*>(value), size), true};
               return 0;
             });
}

int SetText(const char* function, const char* owner, Object* object, const char* name, const char* value) {
  return Run(function, {Handle(owner, object), NotNull(Text("optname", name)), NotNull(Text("optval", value))},
             [&](Running&) {
               object->options[name] = {value, false};
               return 0;
             });
}

int GetOption(const char* function, const char* owner, const char* scope, const Object* object, const char* name,
              void* value, std::size_t* size, bool binary) {
  return Run(function,
             {Handle(owner, object), NotNull(Text("optname", name)), Room("optval", value), Count("optlen", size)},
             [&](Running& running) {
               const Option* const option = running.state.FindOption(*object, scope, name);
               if (option == nullptr || option->binary != binary) {
                 return running.Fail(LBM_EINVAL, std::string("option ") + name + " has no value of this form");
               }
               const std::string& bytes = option->value;
               if (bytes.size() > *size || (binary && bytes.size() != *size)) {
                 return running.Fail(LBM_EINVAL, std::string("option ") + name + " has another size");
               }
               std::memcpy(value, bytes.data(), bytes.size());
               if (!binary && bytes.size() < *size) {
                 static_cast<char*>(value)[bytes.size()] = '\0';
               }
               *size = bytes.size();
               Argument read = Bytes("optval", bytes.data(), bytes.size()).argument;
               running.Note("optval", std::move(read.text), std::move(read.value));
               return 0;
             });
}

Options OptionsOf(const Object* attributes) { return attributes != nullptr ? attributes->options : Options(); }

template <class Attributes>
int CreateAttributes(const char* function, const char* kind, Attributes** attr) {
  return Run(function, {Room("attr", attr)}, [&](Running& running) {
    running.Make("attr", attr, kind);
    return 0;
  });
}

template <class Attributes>
int DuplicateAttributes(const char* function, const char* kind, Attributes** attr, const Attributes* original) {
  return Run(function, {Room("attr", attr), Handle("original", original)}, [&](Running& running) {
    running.Make("attr", attr, kind).options = original->options;
    return 0;
  });
}

// ---- Topics, sources and receivers

template <class Attributes>
int MakeTopic(const char* function, lbm_topic_t** topic, lbm_context_t* ctx, const char* name, const Attributes* attr) {
  return Run(function,
             {Room("topic", topic), Handle("ctx", ctx), NotNull(Text("name", name)), OptionalHandle("attr", attr)},
             [&](Running& running) {
               lbm_topic_t& made = running.Make("topic", topic, "topic", name);
               made.context = running.state.Find(ctx);
               made.counted = false;
               made.options = OptionsOf(attr);
               return 0;
             });
}

template <class Made, class Callback>
void MakeEndpoint(Running& running, const char* argument, Made** handle, const char* kind, const Object& model,
                  const std::shared_ptr<Object>& context, Callback proc, void* clientd) {
  Made& made = running.Make(argument, handle, kind, model.name);
  made.proc = proc;
  made.clientd = clientd;
  made.context = context;
  made.options = model.options;
}

template <class Made>
int MakeOnTopic(const char* function, const char* kind, Made** handle, lbm_context_t* ctx, lbm_topic_t* topic,
                Input proc, decltype(Made::proc) callback, void* clientd, lbm_event_queue_t* evq) {
  return Run(function,
             {Room(kind, handle), Handle("ctx", ctx), Handle("topic", topic), std::move(proc),
              Pointer("clientd", clientd), OptionalHandle("evq", evq)},
             [&](Running& running) {
               MakeEndpoint(running, kind, handle, kind, *topic, running.state.Find(ctx), callback, clientd);
               return 0;
             });
}

// ---- Sends

Input Length(std::size_t len) { return Number("len", static_cast<std::int64_t>(len)); }

Input Pieces(const iovec* pieces, int num) {
  if (num < 0) {
    Input input = Pointer("iov", pieces);
    input.wrong = "num is " + std::to_string(num);
    return input;
  }
  if (num > 0 && pieces == nullptr) {
    return NotNull(Pointer("iov", nullptr));
  }
  std::string data;
  for (const iovec* piece = pieces; piece != pieces + num; ++piece) {
    Input bytes = Bytes("iov_base", piece->iov_base, piece->iov_len);
    if (!bytes.wrong.empty()) {
      return bytes;
    }
    data.append(static_cast<const char*>(piece->iov_base), piece->iov_len);
  }
  return Bytes("data", data.data(), data.size());
}

// A channel given shows as its number.
Input Channel(const lbm_src_send_ex_info_t* info) {
  return info != nullptr && (info->flags & LBM_SRC_SEND_EX_FLAG_CHANNEL) != 0
             ? Number("channel_number", info->channel_number)
             : Pointer("info", info);
}

template <class... More>
int Send(const char* function, lbm_src_t* src, Input data, Input size, int flags, More... more) {
  return Run(function,
             {Handle("src", src), std::move(data), std::move(size), Number("flags", flags), std::move(more)...},
             [&](Running& running) { return FailWithoutContext(running, *src); });
}

// ---- Contexts and event queues

int ProcessEvents(const char* function, const char* owner, Dispatcher* dispatcher, lbm_ulong_t msec,
                  bool returnAfterWork) {
  return Run(function, {Handle(owner, dispatcher), Number("msec", static_cast<std::int64_t>(msec))},
             [&](Running& running) { return running.state.Dispatch(running, *dispatcher, msec, returnAfterWork); });
}

int Unblock(const char* function, const char* owner, Dispatcher* dispatcher) {
  return Run(function, {Handle(owner, dispatcher)}, [&](Running& running) {
    dispatcher->unblocked = true;
    running.state.changed.notify_all();
    return 0;
  });
}

// ---- Descriptors

constexpr lbm_ulong_t kFdEvents[] = {LBM_FD_EVENT_READ, LBM_FD_EVENT_WRITE, LBM_FD_EVENT_EXCEPT};

constexpr lbm_ulong_t kAllFdEvents = LBM_FD_EVENT_READ | LBM_FD_EVENT_WRITE | LBM_FD_EVENT_EXCEPT;

using Registrations = std::vector<std::shared_ptr<FdRegistration>>;

// The context's registrations of a descriptor for the events of a mask.
Registrations Registered(const lbm_context_t& ctx, int fd, lbm_ulong_t events) {
  Registrations found;
  for (const lbm_ulong_t event : kFdEvents) {
    if (const auto at = ctx.descriptors.find({fd, event}); (events & event) != 0 && at != ctx.descriptors.end()) {
      found.push_back(at->second);
    }
  }
  return found;
}

// Ends the registrations of a descriptor for the events of a mask.
Registrations Cancel(lbm_context_t& ctx, int fd, lbm_ulong_t events) {
  Registrations ended = Registered(ctx, fd, events);
  std::erase_if(ctx.descriptors,
                [&](const auto& entry) { return std::find(ended.begin(), ended.end(), entry.second) != ended.end(); });
  return ended;
}

int ResultOf(Running& running, int fd, const Registrations& cancelled) {
  return cancelled.empty() ? running.Fail(LBM_EINVAL, "descriptor " + std::to_string(fd) + " is not registered") : 0;
}

void WaitForCallbacks(State& state, std::unique_lock<std::mutex>& lock, const Registrations& registrations) {
  for (const auto& registration : registrations) {
    state.WaitForOthers(lock, *registration);
  }
}

}  // namespace
}  // namespace lbm_scripted

using namespace lbm_scripted;

extern "C" {

int lbm_errnum(void) {
  return Run("lbm_errnum", {}, [](Running&) { return ThreadError().number; });
}

const char* lbm_errmsg(void) {
  Run("lbm_errmsg", {});
  return ThreadError().text.c_str();
}

const char* lbm_version(void) {
  static const std::string version = "scripted " + std::to_string(LBM_VERS_MAJOR) + '.' +
                                     std::to_string(LBM_VERS_MINOR) + '.' + std::to_string(LBM_VERS_SP);
  Run("lbm_version", {});
  return version.c_str();
}

int lbm_config(const char* fileName) { return Run("lbm_config", {NotNull(Text("file_name", fileName))}); }

int lbm_log(lbm_log_cb_proc proc, void* clientd) {
  return Run("lbm_log", {Function("proc", proc), Pointer("clientd", clientd)});
}

// owner: the handle's name; constant: what options are read from.
#define OPTIONS(family, owner, constant, scope)                                                                \
  int lbm_##family##_setopt(lbm_##family##_t* owner, const char* optname, const void* optval, size_t optlen) { \
    return SetBinary("lbm_" #family "_setopt", #owner, owner, optname, optval, optlen);                        \
  }                                                                                                            \
  int lbm_##family##_getopt(constant* owner, const char* optname, void* optval, size_t* optlen) {              \
    return GetOption("lbm_" #family "_getopt", #owner, scope, owner, optname, optval, optlen, true);           \
  }                                                                                                            \
  int lbm_##family##_str_setopt(lbm_##family##_t* owner, const char* optname, const char* optval) {            \
    return SetText("lbm_" #family "_str_setopt", #owner, owner, optname, optval);                              \
  }                                                                                                            \
  int lbm_##family##_str_getopt(constant* owner, const char* optname, char* optval, size_t* optlen) {          \
    return GetOption("lbm_" #family "_str_getopt", #owner, scope, owner, optname, optval, optlen, false);      \
  }

#define ATTRIBUTES(family, scope)                                                                              \
  int lbm_##family##_create(lbm_##family##_t** attr) {                                                         \
    return CreateAttributes("lbm_" #family "_create", #family, attr);                                          \
  }                                                                                                            \
  int lbm_##family##_dup(lbm_##family##_t** attr, const lbm_##family##_t* original) {                          \
    return DuplicateAttributes("lbm_" #family "_dup", #family, attr, original);                                \
  }                                                                                                            \
  int lbm_##family##_delete(lbm_##family##_t* attr) { return Delete("lbm_" #family "_delete", "attr", attr); } \
  OPTIONS(family, attr, const lbm_##family##_t, scope)

ATTRIBUTES(context_attr, "context")
ATTRIBUTES(src_topic_attr, "source")
ATTRIBUTES(rcv_topic_attr, "receiver")
ATTRIBUTES(event_queue_attr, "event_queue")
OPTIONS(context, ctx, lbm_context_t, "context")
OPTIONS(src, src, lbm_src_t, "source")
OPTIONS(rcv, rcv, lbm_rcv_t, "receiver")

int lbm_context_create(lbm_context_t** ctx, const lbm_context_attr_t* attr, lbm_daemon_event_cb_proc proc,
                       void* clientd) {
  return Run("lbm_context_create",
             {Room("ctx", ctx), OptionalHandle("attr", attr), Function("proc", proc), Pointer("clientd", clientd)},
             [&](Running& running) {
               running.Make("ctx", ctx, "context").options = OptionsOf(attr);
               return 0;
             });
}

int lbm_context_delete(lbm_context_t* ctx) {
  return Run("lbm_context_delete", {Handle("ctx", ctx)}, [&](Running& running) {
    const std::shared_ptr<Object> kept = running.state.Find(ctx);
    if (End(running, *kept) == -1) {
      return -1;
    }
    ctx->descriptors.clear();
    for (const auto& [key, object] : running.state.objects) {
      if (object->context == kept && dynamic_cast<lbm_topic_t*>(object.get()) != nullptr) {
        object->alive = false;
      }
    }
    return 0;
  });
}

int lbm_context_str_getopt_all(lbm_context_t* ctx, lbm_option_text_t* opts, size_t* count) {
  return Run("lbm_context_str_getopt_all", {Handle("ctx", ctx), Count("count", count)}, [&](Running& running) {
    Options all = ctx->options;
    all.insert(running.state.defaults["context"].begin(), running.state.defaults["context"].end());
    std::erase_if(all, [](const auto& option) { return option.second.binary; });
    const std::size_t room = std::exchange(*count, all.size());
    if (room < all.size()) {
      return running.Fail(LBM_EINVAL, "there are " + std::to_string(all.size()) + " options");
    }
    if (opts == nullptr) {
      return running.FailMisused(LBM_EINVAL, "opts is null");
    }
    for (const auto& [name, option] : all) {
      opts->name[name.copy(opts->name, LBM_OPTION_NAME_MAX - 1)] = '\0';
      opts->value[option.value.copy(opts->value, LBM_OPTION_VALUE_MAX - 1)] = '\0';
      ++opts;
    }
    return 0;
  });
}

int lbm_context_process_events(lbm_context_t* ctx, lbm_ulong_t msec) {
  return ProcessEvents("lbm_context_process_events", "ctx", ctx, msec, true);
}

int lbm_context_unblock(lbm_context_t* ctx) { return Unblock("lbm_context_unblock", "ctx", ctx); }

int lbm_rcv_topic_lookup(lbm_topic_t** topic, lbm_context_t* ctx, const char* name, const lbm_rcv_topic_attr_t* attr) {
  return MakeTopic("lbm_rcv_topic_lookup", topic, ctx, name, attr);
}

int lbm_src_topic_alloc(lbm_topic_t** topic, lbm_context_t* ctx, const char* name, const lbm_src_topic_attr_t* attr) {
  return MakeTopic("lbm_src_topic_alloc", topic, ctx, name, attr);
}

int lbm_msg_retain(lbm_msg_t* msg) {
  return Run("lbm_msg_retain", {Handle("msg", msg)}, [&](Running& running) {
    ++std::static_pointer_cast<MessageObject>(running.state.Find(msg))->references;
    return 0;
  });
}

int lbm_msg_delete(lbm_msg_t* msg) {
  return Run("lbm_msg_delete", {Handle("msg", msg)}, [&](Running& running) {
    running.state.Release(*std::static_pointer_cast<MessageObject>(running.state.Find(msg)));
    return 0;
  });
}

int lbm_msg_send_explicit_ack(lbm_msg_t* msg) {
  return Run("lbm_msg_send_explicit_ack", {Handle("msg", msg)}, [&](Running& running) {
    return (msg->flags & LBM_MSG_FLAG_EXPLICIT_ACK) != 0 ? 0 : running.Fail(LBM_EOP, "the message asks for no ack");
  });
}

int lbm_rcv_create(lbm_rcv_t** rcv, lbm_context_t* ctx, lbm_topic_t* topic, lbm_rcv_cb_proc proc, void* clientd,
                   lbm_event_queue_t* evq) {
  return MakeOnTopic("lbm_rcv_create", "rcv", rcv, ctx, topic, NotNull(Function("proc", proc)), proc, clientd, evq);
}

int lbm_rcv_delete(lbm_rcv_t* rcv) { return Delete("lbm_rcv_delete", "rcv", rcv); }

int lbm_src_create(lbm_src_t** src, lbm_context_t* ctx, lbm_topic_t* topic, lbm_src_cb_proc proc, void* clientd,
                   lbm_event_queue_t* evq) {
  return MakeOnTopic("lbm_src_create", "src", src, ctx, topic, Function("proc", proc), proc, clientd, evq);
}

int lbm_src_delete(lbm_src_t* src) { return Delete("lbm_src_delete", "src", src); }

int lbm_src_send(lbm_src_t* src, const char* data, size_t len, int flags) {
  return Send("lbm_src_send", src, Bytes("data", data, len), Length(len), flags);
}

int lbm_src_sendv(lbm_src_t* src, const struct iovec* iov, int num, int flags) {
  return Send("lbm_src_sendv", src, Pieces(iov, num), Number("num", num), flags);
}

int lbm_src_send_ex(lbm_src_t* src, const char* data, size_t len, int flags, const lbm_src_send_ex_info_t* info) {
  return Send("lbm_src_send_ex", src, Bytes("data", data, len), Length(len), flags, Channel(info));
}

int lbm_src_sendv_ex(lbm_src_t* src, const struct iovec* iov, int num, int flags, const lbm_src_send_ex_info_t* info) {
  return Send("lbm_src_sendv_ex", src, Pieces(iov, num), Number("num", num), flags, Channel(info));
}

int lbm_send_request(lbm_request_t** req, lbm_src_t* src, const char* data, size_t len, lbm_request_cb_proc proc,
                     void* clientd, lbm_event_queue_t* evq, int flags) {
  return Run(
      "lbm_send_request",
      {Room("req", req), Handle("src", src), Bytes("data", data, len), Length(len), NotNull(Function("proc", proc)),
       Pointer("clientd", clientd), OptionalHandle("evq", evq), Number("flags", flags)},
      [&](Running& running) {
        if (FailWithoutContext(running, *src) == -1) {
          return -1;
        }
        MakeEndpoint(running, "req", req, "request", *src, src->context, proc, clientd);
        return 0;
      });
}

int lbm_request_delete(lbm_request_t* req) { return Delete("lbm_request_delete", "req", req); }

int lbm_send_response(lbm_response_t* response, const char* data, size_t len, int flags) {
  return Run("lbm_send_response",
             {Handle("response", response), Bytes("data", data, len), Length(len), Number("flags", flags)},
             [&](Running& running) { return FailWithoutContext(running, *response); });
}

int lbm_response_delete(lbm_response_t* response) { return Delete("lbm_response_delete", "response", response); }

int lbm_event_queue_create(lbm_event_queue_t** evq, lbm_event_queue_monitor_proc proc, void* clientd,
                           const lbm_event_queue_attr_t* attr) {
  return Run("lbm_event_queue_create",
             {Room("evq", evq), Function("proc", proc), Pointer("clientd", clientd), OptionalHandle("attr", attr)},
             [&](Running& running) {
               running.Make("evq", evq, "event_queue").options = OptionsOf(attr);
               return 0;
             });
}

int lbm_event_dispatch(lbm_event_queue_t* evq, lbm_ulong_t msec) {
  return ProcessEvents("lbm_event_dispatch", "evq", evq, msec, false);
}

int lbm_event_dispatch_unblock(lbm_event_queue_t* evq) { return Unblock("lbm_event_dispatch_unblock", "evq", evq); }

int lbm_event_queue_shutdown(lbm_event_queue_t* evq) {
  return Run("lbm_event_queue_shutdown", {Handle("evq", evq)}, [&](Running& running) {
    running.state.Close(running.lock, *evq);
    return 0;
  });
}

int lbm_event_queue_delete(lbm_event_queue_t* evq) {
  return Run("lbm_event_queue_delete", {Handle("evq", evq)}, [&](Running& running) {
    if (!evq->inside.empty()) {
      return running.FailMisused(LBM_EOP, "a thread is inside " + evq->Describe());
    }
    evq->alive = false;
    running.state.Close(running.lock, *evq);
    return 0;
  });
}

int lbm_register_fd(lbm_context_t* ctx, int fd, lbm_fd_cb_proc proc, void* clientd, lbm_event_queue_t* evq,
                    lbm_ulong_t ev) {
  return Run("lbm_register_fd",
             {Handle("ctx", ctx), Number("fd", fd), NotNull(Function("proc", proc)), Pointer("clientd", clientd),
              OptionalHandle("evq", evq), Number("ev", static_cast<std::int64_t>(ev))},
             [&](Running& running) {
               if (ev == 0 || (ev & ~kAllFdEvents) != 0) {
                 return running.Fail(LBM_EINVAL, "no mask of events: " + std::to_string(ev));
               }
               if (!Registered(*ctx, fd, ev).empty()) {
                 return running.Fail(LBM_EINVAL, "descriptor " + std::to_string(fd) + " is registered already");
               }
               for (const lbm_ulong_t event : kFdEvents) {
                 if ((ev & event) != 0) {
                   const auto registration = std::make_shared<FdRegistration>("fd", std::to_string(fd));
                   registration->proc = proc;
                   registration->clientd = clientd;
                   registration->context = running.state.Find(ctx);
                   ctx->descriptors.emplace(std::pair(fd, event), registration);
                 }
               }
               return 0;
             });
}

int lbm_cancel_fd(lbm_context_t* ctx, int fd, lbm_ulong_t ev) {
  return Run("lbm_cancel_fd", {Handle("ctx", ctx), Number("fd", fd), Number("ev", static_cast<std::int64_t>(ev))},
             [&](Running& running) {
               const Registrations cancelled = Cancel(*ctx, fd, ev);
               WaitForCallbacks(running.state, running.lock, cancelled);
               return ResultOf(running, fd, cancelled);
             });
}

int lbm_cancel_fd_ex(lbm_context_t* ctx, int fd, lbm_ulong_t ev, const lbm_event_queue_cancel_cb_info_t* info) {
  const lbm_event_queue_cancel_cb_info_t told = info != nullptr ? *info : lbm_event_queue_cancel_cb_info_t{};
  return Run("lbm_cancel_fd_ex",
             {Handle("ctx", ctx), Number("fd", fd), Number("ev", static_cast<std::int64_t>(ev)), Room("info", info),
              OptionalHandle("event_queue", told.event_queue), NotNull(Function("cancel_cb", told.cancel_cb)),
              Pointer("clientd", told.clientd)},
             [&](Running& running) {
               const Registrations cancelled = Cancel(*ctx, fd, ev);
               Dispatcher* const notified = told.event_queue != nullptr ? static_cast<Dispatcher*>(told.event_queue)
                                                                        : static_cast<Dispatcher*>(ctx);
               if (!cancelled.empty() && !notified->closed) {
                 notified->work.push_back([&state = running.state, fd, told, cancelled] {
                   std::unique_lock lock(state.mutex);
                   WaitForCallbacks(state, lock, cancelled);
                   lock.unlock();
                   told.cancel_cb(fd, told.clientd);
                 });
                 running.state.changed.notify_all();
               }
               return ResultOf(running, fd, cancelled);
             });
}

}  // extern "C"
