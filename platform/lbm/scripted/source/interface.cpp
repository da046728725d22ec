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
int Delete(const char* function, const char* name, Object* handle) {
  return Run(function, {Handle(name, handle)}, [&](Running& running) {
    const std::shared_ptr<Object> kept = running.state.Find(handle);
    running.state.WaitForCallbacks(running.lock, *kept);
    kept->alive = false;
    return 0;
  });
}

// ---- Options

int SetBinary(const char* function, const char* owner, Object* object, const char* name, const void* value,
              std::size_t size) {
  return Run(function,
             {Handle(owner, object), Text("optname", name), Bytes("optval", value, size),
              Number("optlen", static_cast<std::int64_t>(size))},
             [&](Running&) {
               object->options[name] = {std::string(static_cast<const char*>(value), size), true};
               return 0;
             });
}

int SetText(const char* function, const char* owner, Object* object, const char* name, const char* value) {
  return Run(function, {Handle(owner, object), Text("optname", name), Text("optval", value)}, [&](Running& running) {
    if (value == nullptr) {
      return running.Fail(LBM_EINVAL, std::string("option ") + name + " needs a value");
    }
    object->options[name] = {value, false};
    return 0;
  });
}

int GetOption(const char* function, const char* owner, const char* scope, const Object* object, const char* name,
              void* value, std::size_t* size, bool binary) {
  return Run(function,
             {Handle(owner, object), Text("optname", name), Number("optlen", static_cast<std::int64_t>(*size))},
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

// ---- Attributes

template <class Attributes>
int CreateAttributes(const char* function, const char* kind, Attributes** attr) {
  return Run(function, {}, [&](Running& running) {
    *attr = running.Make("attr", std::make_shared<Attributes>(kind));
    return 0;
  });
}

template <class Attributes>
int DuplicateAttributes(const char* function, const char* kind, Attributes** attr, const Attributes* original) {
  return Run(function, {Handle("original", original)}, [&](Running& running) {
    *attr = running.Make("attr", std::make_shared<Attributes>(kind));
    (*attr)->options = original->options;
    return 0;
  });
}

// ---- Descriptors

int CancelDescriptor(Running& running, lbm_context_t* ctx, int fd, lbm_ulong_t events, bool wait) {
  lbm_ulong_t cancelled = 0;
  const std::vector<std::shared_ptr<FdRegistration>> all = ctx->descriptors;
  for (const auto& registration : all) {
    if (registration->fd == fd && (registration->events & events) != 0) {
      cancelled |= registration->events & events;
      registration->events &= ~events;
      if (wait) {
        running.state.WaitForCallbacks(running.lock, *registration);
      }
    }
  }
  std::erase_if(ctx->descriptors, [](const auto& registration) { return registration->events == 0; });
  return cancelled != 0 ? 0 : running.Fail(LBM_EINVAL, "descriptor " + std::to_string(fd) + " is not registered");
}

// ---- Sends

Input Pieces(const iovec* pieces, int num) {
  std::string data;
  std::for_each_n(pieces, num,
                  [&](const iovec& piece) { data.append(static_cast<const char*>(piece.iov_base), piece.iov_len); });
  return Bytes("data", data.data(), data.size());
}

// A channel given shows as its number.
Input Channel(const lbm_src_send_ex_info_t* info) {
  return info != nullptr && (info->flags & LBM_SRC_SEND_EX_FLAG_CHANNEL) != 0
             ? Number("channel_number", info->channel_number)
             : Pointer("info", info);
}

template <class Endpoint, class Callback>
Endpoint* MakeEndpoint(Running& running, const char* name, const char* kind, const Object& named, Callback proc,
                       void* clientd) {
  Endpoint* const endpoint = running.Make(name, std::make_shared<Endpoint>(kind, named.name));
  endpoint->proc = proc;
  endpoint->clientd = clientd;
  endpoint->options = named.options;
  return endpoint;
}

template <class Attributes>
int MakeTopic(const char* function, lbm_topic_t** topic, lbm_context_t* ctx, const char* name, const Attributes* attr) {
  return Run(function, {Handle("ctx", ctx), Text("name", name), OptionalHandle("attr", attr)}, [&](Running& running) {
    *topic = running.Make("topic", std::make_shared<lbm_topic_t>("topic", name));
    (*topic)->context = ctx;
    (*topic)->counted = false;
    if (attr != nullptr) {
      (*topic)->options = attr->options;
    }
    return 0;
  });
}

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

int DeleteDispatcher(const char* function, const char* owner, Dispatcher* dispatcher) {
  return Run(function, {Handle(owner, dispatcher)}, [&](Running& running) {
    if (dispatcher->inside != 0) {
      running.state.problems.push_back(std::string(function) + ": a thread is inside " + dispatcher->Describe());
    }
    dispatcher->alive = false;
    for (const auto& [key, object] : running.state.objects) {
      const auto* const topic = dynamic_cast<const lbm_topic_t*>(object.get());
      if (topic != nullptr && topic->context == dispatcher) {
        object->alive = false;
      }
    }
    return 0;
  });
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
  Run("lbm_version", {});
  return "scripted 6.13.1";
}

int lbm_config(const char* fileName) { return Run("lbm_config", {Text("file_name", fileName)}); }

int lbm_log(lbm_log_cb_proc proc, void* clientd) {
  return Run("lbm_log", {Function("proc", proc), Pointer("clientd", clientd)});
}

#define ATTRIBUTES(family, scope)                                                                                  \
  int lbm_##family##_create(lbm_##family##_t** attr) {                                                             \
    return CreateAttributes("lbm_" #family "_create", #family, attr);                                              \
  }                                                                                                                \
  int lbm_##family##_dup(lbm_##family##_t** attr, const lbm_##family##_t* original) {                              \
    return DuplicateAttributes("lbm_" #family "_dup", #family, attr, original);                                    \
  }                                                                                                                \
  int lbm_##family##_delete(lbm_##family##_t* attr) { return Delete("lbm_" #family "_delete", "attr", attr); }     \
  int lbm_##family##_setopt(lbm_##family##_t* attr, const char* optname, const void* optval, size_t optlen) {      \
    return SetBinary("lbm_" #family "_setopt", "attr", attr, optname, optval, optlen);                             \
  }                                                                                                                \
  int lbm_##family##_getopt(const lbm_##family##_t* attr, const char* optname, void* optval, size_t* optlen) {     \
    return GetOption("lbm_" #family "_getopt", "attr", scope, attr, optname, optval, optlen, true);                \
  }                                                                                                                \
  int lbm_##family##_str_setopt(lbm_##family##_t* attr, const char* optname, const char* optval) {                 \
    return SetText("lbm_" #family "_str_setopt", "attr", attr, optname, optval);                                   \
  }                                                                                                                \
  int lbm_##family##_str_getopt(const lbm_##family##_t* attr, const char* optname, char* optval, size_t* optlen) { \
    return GetOption("lbm_" #family "_str_getopt", "attr", scope, attr, optname, optval, optlen, false);           \
  }

ATTRIBUTES(context_attr, "context")
ATTRIBUTES(src_topic_attr, "source")
ATTRIBUTES(rcv_topic_attr, "receiver")
ATTRIBUTES(event_queue_attr, "event_queue")

#define LIVE_OPTIONS(kind, owner, scope)                                                                   \
  int lbm_##kind##_setopt(lbm_##kind##_t* owner, const char* optname, const void* optval, size_t optlen) { \
    return SetBinary("lbm_" #kind "_setopt", #owner, owner, optname, optval, optlen);                      \
  }                                                                                                        \
  int lbm_##kind##_getopt(lbm_##kind##_t* owner, const char* optname, void* optval, size_t* optlen) {      \
    return GetOption("lbm_" #kind "_getopt", #owner, scope, owner, optname, optval, optlen, true);         \
  }                                                                                                        \
  int lbm_##kind##_str_setopt(lbm_##kind##_t* owner, const char* optname, const char* optval) {            \
    return SetText("lbm_" #kind "_str_setopt", #owner, owner, optname, optval);                            \
  }                                                                                                        \
  int lbm_##kind##_str_getopt(lbm_##kind##_t* owner, const char* optname, char* optval, size_t* optlen) {  \
    return GetOption("lbm_" #kind "_str_getopt", #owner, scope, owner, optname, optval, optlen, false);    \
  }

LIVE_OPTIONS(context, ctx, "context")
LIVE_OPTIONS(src, src, "source")
LIVE_OPTIONS(rcv, rcv, "receiver")

int lbm_context_create(lbm_context_t** ctx, const lbm_context_attr_t* attr, lbm_daemon_event_cb_proc proc,
                       void* clientd) {
  return Run("lbm_context_create", {OptionalHandle("attr", attr), Function("proc", proc), Pointer("clientd", clientd)},
             [&](Running& running) {
               *ctx = running.Make("ctx", std::make_shared<lbm_context_t>("context"));
               if (attr != nullptr) {
                 (*ctx)->options = attr->options;
               }
               return 0;
             });
}

int lbm_context_delete(lbm_context_t* ctx) { return DeleteDispatcher("lbm_context_delete", "ctx", ctx); }

int lbm_context_str_getopt_all(lbm_context_t* ctx, lbm_option_text_t* opts, size_t* count) {
  return Run("lbm_context_str_getopt_all", {Handle("ctx", ctx), Number("count", static_cast<std::int64_t>(*count))},
             [&](Running& running) {
               Options all = ctx->options;
               all.insert(running.state.defaults["context"].begin(), running.state.defaults["context"].end());
               std::erase_if(all, [](const auto& option) { return option.second.binary; });
               const std::size_t room = std::exchange(*count, all.size());
               if (room < all.size()) {
                 return running.Fail(LBM_EINVAL, "there are " + std::to_string(all.size()) + " options");
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
  return Run("lbm_rcv_create",
             {Handle("ctx", ctx), Handle("topic", topic), Function("proc", proc), Pointer("clientd", clientd),
              OptionalHandle("evq", evq)},
             [&](Running& running) {
               *rcv = MakeEndpoint<lbm_rcv_t>(running, "rcv", "rcv", *topic, proc, clientd);
               return 0;
             });
}

int lbm_rcv_delete(lbm_rcv_t* rcv) { return Delete("lbm_rcv_delete", "rcv", rcv); }

int lbm_src_create(lbm_src_t** src, lbm_context_t* ctx, lbm_topic_t* topic, lbm_src_cb_proc proc, void* clientd,
                   lbm_event_queue_t* evq) {
  return Run("lbm_src_create",
             {Handle("ctx", ctx), Handle("topic", topic), Function("proc", proc), Pointer("clientd", clientd),
              OptionalHandle("evq", evq)},
             [&](Running& running) {
               *src = MakeEndpoint<lbm_src_t>(running, "src", "src", *topic, proc, clientd);
               return 0;
             });
}

int lbm_src_delete(lbm_src_t* src) { return Delete("lbm_src_delete", "src", src); }

int lbm_src_send(lbm_src_t* src, const char* data, size_t len, int flags) {
  return Run("lbm_src_send", {Handle("src", src), Bytes("data", data, len),
                              Number("len", static_cast<std::int64_t>(len)), Number("flags", flags)});
}

int lbm_src_sendv(lbm_src_t* src, const struct iovec* iov, int num, int flags) {
  return Run("lbm_src_sendv", {Handle("src", src), Pieces(iov, num), Number("num", num), Number("flags", flags)});
}

int lbm_src_send_ex(lbm_src_t* src, const char* data, size_t len, int flags, const lbm_src_send_ex_info_t* info) {
  return Run("lbm_src_send_ex", {Handle("src", src), Bytes("data", data, len),
                                 Number("len", static_cast<std::int64_t>(len)), Number("flags", flags), Channel(info)});
}

int lbm_src_sendv_ex(lbm_src_t* src, const struct iovec* iov, int num, int flags, const lbm_src_send_ex_info_t* info) {
  return Run("lbm_src_sendv_ex",
             {Handle("src", src), Pieces(iov, num), Number("num", num), Number("flags", flags), Channel(info)});
}

int lbm_send_request(lbm_request_t** req, lbm_src_t* src, const char* data, size_t len, lbm_request_cb_proc proc,
                     void* clientd, lbm_event_queue_t* evq, int flags) {
  return Run("lbm_send_request",
             {Handle("src", src), Bytes("data", data, len), Number("len", static_cast<std::int64_t>(len)),
              Function("proc", proc), Pointer("clientd", clientd), OptionalHandle("evq", evq), Number("flags", flags)},
             [&](Running& running) {
               *req = MakeEndpoint<lbm_request_t>(running, "req", "request", *src, proc, clientd);
               return 0;
             });
}

int lbm_request_delete(lbm_request_t* req) { return Delete("lbm_request_delete", "req", req); }

int lbm_send_response(lbm_response_t* response, const char* data, size_t len, int flags) {
  return Run("lbm_send_response", {Handle("response", response), Bytes("data", data, len),
                                   Number("len", static_cast<std::int64_t>(len)), Number("flags", flags)});
}

int lbm_response_delete(lbm_response_t* response) { return Delete("lbm_response_delete", "response", response); }

int lbm_event_queue_create(lbm_event_queue_t** evq, lbm_event_queue_monitor_proc proc, void* clientd,
                           const lbm_event_queue_attr_t* attr) {
  return Run("lbm_event_queue_create",
             {Function("proc", proc), Pointer("clientd", clientd), OptionalHandle("attr", attr)},
             [&](Running& running) {
               *evq = running.Make("evq", std::make_shared<lbm_event_queue_t>("event_queue"));
               if (attr != nullptr) {
                 (*evq)->options = attr->options;
               }
               return 0;
             });
}

int lbm_event_dispatch(lbm_event_queue_t* evq, lbm_ulong_t msec) {
  return ProcessEvents("lbm_event_dispatch", "evq", evq, msec, false);
}

int lbm_event_dispatch_unblock(lbm_event_queue_t* evq) { return Unblock("lbm_event_dispatch_unblock", "evq", evq); }

int lbm_event_queue_shutdown(lbm_event_queue_t* evq) {
  return Run("lbm_event_queue_shutdown", {Handle("evq", evq)}, [&](Running&) {
    evq->work.clear();
    return 0;
  });
}

int lbm_event_queue_delete(lbm_event_queue_t* evq) { return DeleteDispatcher("lbm_event_queue_delete", "evq", evq); }

int lbm_register_fd(lbm_context_t* ctx, int fd, lbm_fd_cb_proc proc, void* clientd, lbm_event_queue_t* evq,
                    lbm_ulong_t ev) {
  return Run("lbm_register_fd",
             {Handle("ctx", ctx), Number("fd", fd), Function("proc", proc), Pointer("clientd", clientd),
              OptionalHandle("evq", evq), Number("ev", static_cast<std::int64_t>(ev))},
             [&](Running& running) {
               const bool taken =
                   std::any_of(ctx->descriptors.begin(), ctx->descriptors.end(), [&](const auto& registration) {
                     return registration->fd == fd && (registration->events & ev) != 0;
                   });
               if (taken) {
                 return running.Fail(LBM_EINVAL, "descriptor " + std::to_string(fd) + " is registered already");
               }
               const auto registration = std::make_shared<FdRegistration>("fd", std::to_string(fd));
               registration->fd = fd;
               registration->events = ev;
               registration->proc = proc;
               registration->clientd = clientd;
               ctx->descriptors.push_back(registration);
               return 0;
             });
}

int lbm_cancel_fd(lbm_context_t* ctx, int fd, lbm_ulong_t ev) {
  return Run("lbm_cancel_fd", {Handle("ctx", ctx), Number("fd", fd), Number("ev", static_cast<std::int64_t>(ev))},
             [&](Running& running) { return CancelDescriptor(running, ctx, fd, ev, true); });
}

int lbm_cancel_fd_ex(lbm_context_t* ctx, int fd, lbm_ulong_t ev, const lbm_event_queue_cancel_cb_info_t* info) {
  return Run("lbm_cancel_fd_ex",
             {Handle("ctx", ctx), Number("fd", fd), Number("ev", static_cast<std::int64_t>(ev)),
              OptionalHandle("event_queue", info->event_queue), Function("cancel_cb", info->cancel_cb),
              Pointer("clientd", info->clientd)},
             [&](Running& running) {
               const int result = CancelDescriptor(running, ctx, fd, ev, false);
               if (result == 0 && info->cancel_cb != nullptr) {
                 Dispatcher* const notified = info->event_queue != nullptr ? static_cast<Dispatcher*>(info->event_queue)
                                                                           : static_cast<Dispatcher*>(ctx);
                 notified->work.push_back([fd, told = *info] { told.cancel_cb(fd, told.clientd); });
                 running.state.changed.notify_all();
               }
               return result;
             });
}

}  // extern "C"
