#include "lbm_scripted/lbm_scripted.h"

#include <dlfcn.h>

#include <algorithm>
#include <stdexcept>

#include "state.h"

namespace lbm_scripted {
namespace {

std::unique_lock<std::mutex> Lock() { return std::unique_lock(State::Get().mutex); }

// A misspelt name would make a test that cannot fail.
std::string FunctionName(std::string_view function) {
  std::string name(function);
  if (name.rfind("lbm_", 0) != 0 || dlsym(RTLD_DEFAULT, name.c_str()) == nullptr) {
    throw std::invalid_argument(name + " is not a function of the messaging interface");
  }
  return name;
}

// The object behind a handle whose callbacks may begin, kept alive.
template <class Handle>
std::shared_ptr<Handle> Open(Handle* handle) {
  const std::shared_ptr<Object> object = State::Get().Find(handle);
  if (const std::string refusal = object != nullptr ? object->Refusal() : "not a handle"; !refusal.empty()) {
    throw std::logic_error(refusal);
  }
  return std::static_pointer_cast<Handle>(object);
}

template <class Callback>
Callback Present(Callback callback, const Object& object, const char* what) {
  if (callback == nullptr) {
    throw std::logic_error(object.Describe() + " has no " + what);
  }
  return callback;
}

template <class Handle>
Handle* Newest(std::string_view topic) {
  Handle* newest = nullptr;
  for (const auto& [key, object] : State::Get().objects) {
    auto* const candidate = dynamic_cast<Handle*>(object.get());
    if (candidate != nullptr && candidate->Refusal().empty() && (topic.empty() || candidate->name == topic) &&
        (newest == nullptr || newest->number < candidate->number)) {
      newest = candidate;
    }
  }
  return newest;
}

template <class Value>
Value OptionValue(const Object& object, const char* name) {
  const auto option = object.options.find(name);
  if (option == object.options.end() || option->second.value.size() != sizeof(Value)) {
    throw std::logic_error(object.Describe() + " has no " + name);
  }
  Value value;
  std::memcpy(&value, option->second.value.data(), sizeof value);
  return value;
}

lbm_msg_t* NewMessage(const Message& message, const std::string& topic, const std::shared_ptr<Object>& context = {}) {
  State& state = State::Get();
  const auto object = std::make_shared<MessageObject>(message, topic);
  state.Register(&object->msg, object);
  if (message.type == LBM_MSG_REQUEST) {
    auto response = std::make_shared<lbm_response_t>("response", topic);
    response->counted = false;
    response->context = context;
    object->msg.response = response.get();
    object->response = response;
    state.Register(response.get(), response);
  }
  return &object->msg;
}

template <class Handle>
int DeliverTo(Handle* handle, const Message& message) {
  auto lock = Lock();
  const std::shared_ptr<Handle> target = Open(handle);
  lbm_msg_t* const msg = NewMessage(message, target->name, target->context);
  struct Release {
    ~Release() { State::Get().Release(*message); }
    std::shared_ptr<MessageObject> message;
  } release{std::static_pointer_cast<MessageObject>(State::Get().Find(msg))};
  return State::Get().CallOut(lock, *target, [&] { return target->proc(handle, msg, target->clientd); });
}

template <class Handle>
void PostTo(Handle* handle, std::function<void()> work) {
  const auto lock = Lock();
  Open(handle)->work.push_back(std::move(work));
  State::Get().changed.notify_all();
}

}  // namespace

void Reset() {
  const auto lock = Lock();
  State& state = State::Get();
  state.calls.clear();
  state.scripts.clear();
  state.hooks.clear();
  state.SetInitialDefaults();
  state.problems.clear();
  state.numberAtReset = state.lastNumber;
  std::erase_if(state.objects, [](const auto& entry) { return !entry.second->alive; });
  ThreadError() = {};
}

const Argument& Call::Find(std::string_view argument) const {
  // What a call wrote stands behind what it was given.
  const auto found = std::find_if(arguments.rbegin(), arguments.rend(),
                                  [&](const Argument& candidate) { return candidate.name == argument; });
  if (found == arguments.rend()) {
    throw std::out_of_range(ToString() + " has no argument " + std::string(argument));
  }
  return *found;
}

bool Call::IsNull(std::string_view argument) const { return lbm_scripted::IsNull(Find(argument)); }

std::string Call::ToString() const {
  std::string text = function + '(';
  for (const Argument& argument : arguments) {
    if (&argument != &arguments.front()) {
      text += ", ";
    }
    text += argument.name + '=' + argument.text;
  }
  return text + ") = " + std::to_string(result);
}

std::vector<Call> Calls() {
  const auto lock = Lock();
  std::vector<Call> calls;
  for (const auto& call : State::Get().calls) {
    calls.push_back(*call);
  }
  return calls;
}

std::vector<Call> CallsTo(std::string_view function) {
  const std::string name = FunctionName(function);
  std::vector<Call> calls = Calls();
  std::erase_if(calls, [&](const Call& call) { return call.function != name; });
  return calls;
}

bool WaitForCalls(std::string_view function, std::size_t count, std::chrono::milliseconds timeout) {
  const std::string name = FunctionName(function);
  auto lock = Lock();
  State& state = State::Get();
  return state.changed.wait_for(lock, timeout, [&] {
    std::size_t seen = 0;
    for (const auto& call : state.calls) {
      seen += call->function == name ? call->times : 0;
    }
    return seen >= count;
  });
}

void Script(std::string_view function, Result result, int times) {
  const std::string name = FunctionName(function);
  if (times < 1 && times != kAlways) {
    throw std::invalid_argument("a result is scripted at least once");
  }
  const auto lock = Lock();
  State::Get().scripts[name].emplace_back(std::move(result), times);
  State::Get().changed.notify_all();
}

void SetOption(const std::string& scope, const std::string& name, std::string text) {
  const auto lock = Lock();
  State::Get().defaults[scope][name] = {std::move(text), false};
}

void SetBinaryOption(const std::string& scope, const std::string& name, std::string bytes) {
  const auto lock = Lock();
  State::Get().defaults[scope][name] = {std::move(bytes), true};
}

void OnCall(std::string_view function, std::function<void(const Call&)> hook) {
  const std::string name = FunctionName(function);
  const auto lock = Lock();
  if (hook) {
    State::Get().hooks[name] = std::move(hook);
  } else {
    State::Get().hooks.erase(name);
  }
}

lbm_context_t* FindContext() {
  const auto lock = Lock();
  return Newest<lbm_context_t>({});
}

lbm_src_t* FindSource(std::string_view topic) {
  const auto lock = Lock();
  return Newest<lbm_src_t>(topic);
}

lbm_rcv_t* FindReceiver(std::string_view topic) {
  const auto lock = Lock();
  return Newest<lbm_rcv_t>(topic);
}

lbm_msg_t* MakeMessage(const Message& message, const std::string& topic) {
  const auto lock = Lock();
  return NewMessage(message, topic);
}

int Deliver(lbm_rcv_t* rcv, const Message& message) { return DeliverTo(rcv, message); }

int Deliver(lbm_request_t* req, const Message& message) { return DeliverTo(req, message); }

int DeliverEvent(lbm_src_t* src, int event, void* eventData) {
  auto lock = Lock();
  const auto source = Open(src);
  const auto proc = Present(source->proc, *source, "callback");
  return State::Get().CallOut(lock, *source, [&] { return proc(src, event, eventData, source->clientd); });
}

int DeliverFdEvent(lbm_context_t* ctx, int fd, lbm_ulong_t event) {
  auto lock = Lock();
  const auto context = Open(ctx);
  const auto found = context->descriptors.find({fd, event});
  if (found == context->descriptors.end()) {
    throw std::logic_error(context->Describe() + " has no registration of descriptor " + std::to_string(fd) +
                           " for event " + std::to_string(event));
  }
  const std::shared_ptr<FdRegistration> registration = found->second;
  return State::Get().CallOut(lock, *registration,
                              [&] { return registration->proc(ctx, fd, event, registration->clientd); });
}

int NotifyContext(lbm_context_t* ctx, const std::string& topic, const std::string& source) {
  auto lock = Lock();
  const auto context = Open(ctx);
  const auto notify = OptionValue<lbm_src_notify_func_t>(*context, "resolver_source_notification_function");
  const auto proc = Present(notify.notifyfunc, *context, "notification function");
  return State::Get().CallOut(lock, *context, [&] { return proc(topic.c_str(), source.c_str(), notify.clientd); });
}

void* NotifySourceCreated(lbm_rcv_t* rcv, const std::string& source) {
  auto lock = Lock();
  const auto receiver = Open(rcv);
  const auto notify = OptionValue<lbm_rcv_src_notification_func_t>(*receiver, "source_notification_function");
  const auto proc = Present(notify.create_func, *receiver, "create function");
  return State::Get().CallOut(lock, *receiver, [&] { return proc(source.c_str(), notify.clientd); });
}

int NotifySourceDeleted(lbm_rcv_t* rcv, const std::string& source, void* sourceClientd) {
  auto lock = Lock();
  const auto receiver = Open(rcv);
  const auto notify = OptionValue<lbm_rcv_src_notification_func_t>(*receiver, "source_notification_function");
  const auto proc = Present(notify.delete_func, *receiver, "delete function");
  return State::Get().CallOut(lock, *receiver, [&] { return proc(source.c_str(), notify.clientd, sourceClientd); });
}

void Post(lbm_context_t* ctx, std::function<void()> work) { PostTo(ctx, std::move(work)); }

void Post(lbm_event_queue_t* evq, std::function<void()> work) { PostTo(evq, std::move(work)); }

std::vector<std::string> LiveHandles(std::string_view kind) {
  const auto lock = Lock();
  const State& state = State::Get();
  std::map<unsigned, std::string> byNumber;
  for (const auto& [key, object] : state.objects) {
    if (object->alive && object->counted && object->number > state.numberAtReset &&
        (kind.empty() || kind == object->kind)) {
      byNumber.emplace(object->number, object->Describe());
    }
  }
  std::vector<std::string> handles;
  handles.reserve(byNumber.size());
  for (auto& [number, text] : byNumber) {
    handles.push_back(std::move(text));
  }
  return handles;
}

std::size_t References(const lbm_msg_t* msg) {
  const auto lock = Lock();
  const auto object = std::static_pointer_cast<MessageObject>(State::Get().Find(msg));
  return object != nullptr ? object->references : 0;
}

std::vector<std::string> Problems() {
  const auto lock = Lock();
  return State::Get().problems;
}

}  // namespace lbm_scripted
