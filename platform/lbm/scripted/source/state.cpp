#include "state.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <utility>

namespace lbm_scripted {
namespace {

std::string Quote(std::string_view text) {
  constexpr std::size_t kLongest = 100;
  const bool printable = std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isprint(c) != 0; });
  if (!printable || text.size() > kLongest) {
    return std::to_string(text.size()) + " bytes";
  }
  std::string quoted(1, '"');
  return quoted.append(text).append(1, '"');
}

std::string Address(const void* pointer) {
  if (pointer == nullptr) {
    return "null";
  }
  std::ostringstream text;
  text << pointer;
  return text.str();
}

// Names the handle in the argument's text and says what is wrong with it, if anything.
std::string Examine(const State& state, Input& input) {
  const void* const handle = std::get<const void*>(input.argument.value);
  if (handle == nullptr) {
    return input.handle == Input::Handle::kRequired ? input.argument.name + " is null" : std::string();
  }
  const std::shared_ptr<Object> object = state.Find(handle);
  if (object == nullptr) {
    return input.argument.name + " is not a handle: " + input.argument.text;
  }
  input.argument.text = object->Describe();
  return object->alive ? std::string() : input.argument.name + " was deleted: " + object->Describe();
}

bool SameCall(const Call& one, const Call& other) {
  return one.thread == other.thread && one.ToString() == other.ToString();
}

}  // namespace

std::string Object::Describe() const {
  std::string text = kind + ('#' + std::to_string(number));
  return name.empty() ? text : text + " \"" + name + '"';
}

MessageObject::MessageObject(const Message& message, const std::string& topic)
    : Object("msg", topic), data(message.data), source(message.source) {
  msg.source = source.c_str();
  msg.topic_name = name.c_str();
  msg.type = message.type;
  msg.flags = message.flags;
  msg.data = data.empty() ? nullptr : data.data();
  msg.len = data.size();
  msg.sequence_number = message.sequenceNumber;
  msg.source_clientd = message.sourceClientd;
  msg.timestamp = message.timestamp;
  if (message.channel) {
    channel.channel_number = *message.channel;
    msg.channel_info = &channel;
  }
}

Input Number(const char* name, std::int64_t value) { return {{name, std::to_string(value), value}}; }

Input Pointer(const char* name, const void* value) { return {{name, Address(value), value}}; }

Input Text(const char* name, const char* value) {
  return value != nullptr ? Bytes(name, value, std::strlen(value)) : Pointer(name, nullptr);
}

Input Bytes(const char* name, const void* data, std::size_t size) {
  if (data == nullptr) {
    return Pointer(name, nullptr);
  }
  std::string bytes(static_cast<const char*>(data), size);
  std::string text = Quote(bytes);
  return {{name, std::move(text), std::move(bytes)}};
}

Input Handle(const char* name, const void* handle) {
  return {{name, Address(handle), handle}, Input::Handle::kRequired};
}

Input OptionalHandle(const char* name, const void* handle) {
  return {{name, Address(handle), handle}, Input::Handle::kOptional};
}

LastError& ThreadError() {
  thread_local LastError error;
  return error;
}

int Running::Fail(int errnum, std::string errmsg) {
  ThreadError() = {errnum, std::move(errmsg)};
  return -1;
}

void Running::Note(const char* name, std::string text, decltype(Argument::value) value) {
  call.arguments.push_back({name, std::move(text), std::move(value)});
}

State::State() { SetInitialDefaults(); }

void State::SetInitialDefaults() { defaults = {{"context", {{"context_name", {}}}}}; }

State& State::Get() {
  static State& state = *new State;
  return state;
}

int State::Run(const char* function, std::vector<Input> inputs, const Body& body) {
  std::unique_lock lock(mutex);
  const auto call = std::make_shared<Call>();
  call->function = function;
  call->thread = std::this_thread::get_id();
  std::string wrong;
  for (Input& input : inputs) {
    if (input.handle != Input::Handle::kNone && wrong.empty()) {
      wrong = Examine(*this, input);
    }
    call->arguments.push_back(std::move(input.argument));
  }
  if (!wrong.empty()) {
    problems.push_back(std::string(function) + ": " + wrong);
  }
  calls.push_back(call);
  changed.notify_all();

  if (const auto hook = hooks.find(call->function); hook != hooks.end()) {
    const std::function<void(const Call&)> copy = hook->second;
    lock.unlock();
    copy(*call);
    lock.lock();
  }

  const std::optional<Result> scripted = TakeScripted(call->function);
  Running running{*this, lock, *call, scripted.has_value()};
  if (scripted && scripted->value == -1) {
    call->result = running.Fail(scripted->errnum, scripted->errmsg);
  } else if (!wrong.empty()) {
    call->result = running.Fail(LBM_EINVAL, wrong);
  } else {
    const int own = body ? body(running) : 0;
    call->result = scripted ? scripted->value : own;
  }
  return call->result;
}

int State::Dispatch(Running& running, Dispatcher& dispatcher, lbm_ulong_t msec, bool returnAfterWork) {
  if (running.scripted) {
    return 0;
  }
  const std::shared_ptr<Object> kept = Find(&dispatcher);
  struct Inside {
    explicit Inside(Dispatcher& entered) : dispatcher(entered) { ++dispatcher.inside; }
    ~Inside() { --dispatcher.inside; }
    Dispatcher& dispatcher;
  } inside(dispatcher);

  using Clock = std::chrono::steady_clock;
  const bool forever = msec >= LBM_EVENT_QUEUE_BLOCK;
  const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : msec);
  const auto somethingToDo = [&] {
    return dispatcher.unblocked || !dispatcher.work.empty() || scripts.count(running.call.function) != 0;
  };
  int done = 0;
  while (true) {
    if (forever) {
      changed.wait(running.lock, somethingToDo);
    } else if (!changed.wait_until(running.lock, deadline, somethingToDo)) {
      break;
    }
    while (!dispatcher.work.empty()) {
      const std::function<void()> work = std::move(dispatcher.work.front());
      dispatcher.work.pop_front();
      CallOut<void>(running.lock, dispatcher, work);
      ++done;
    }
    if (std::exchange(dispatcher.unblocked, false) || (returnAfterWork && done > 0)) {
      break;
    }
    if (const std::optional<Result> result = TakeScripted(running.call.function)) {
      return result->value == -1 ? running.Fail(result->errnum, result->errmsg) : result->value;
    }
  }
  if (done == 0 && !calls.empty() && calls.back().get() == &running.call) {
    if (calls.size() > 1 && calls[calls.size() - 2] == lastIdle && SameCall(*lastIdle, running.call)) {
      calls.pop_back();
      ++lastIdle->times;
    } else {
      lastIdle = calls.back();
    }
  }
  return returnAfterWork ? 0 : done;  // processing events counts nothing
}

void State::Register(const void* key, std::shared_ptr<Object> object) {
  object->number = ++lastNumber;
  objects[key] = std::move(object);
}

std::shared_ptr<Object> State::Find(const void* key) const {
  const auto found = objects.find(key);
  return found != objects.end() ? found->second : nullptr;
}

void State::WaitForCallbacks(std::unique_lock<std::mutex>& lock, Object& object) {
  const auto onlyOwn = [&] { return object.delivering.count(std::this_thread::get_id()) == object.delivering.size(); };
  changed.wait(lock, onlyOwn);
}

void State::Release(MessageObject& message) {
  if (--message.references != 0) {
    return;
  }
  message.alive = false;
  if (message.msg.response != nullptr) {
    message.msg.response->alive = false;
  }
  message.msg = {};
  message.msg.source = "deleted";
  message.msg.topic_name = "deleted";
}

const Option* State::FindOption(const Object& object, const char* scope, const std::string& name) const {
  if (const auto set = object.options.find(name); set != object.options.end()) {
    return &set->second;
  }
  const auto inScope = defaults.find(scope);
  if (inScope == defaults.end()) {
    return nullptr;
  }
  const auto given = inScope->second.find(name);
  return given != inScope->second.end() ? &given->second : nullptr;
}

std::optional<Result> State::TakeScripted(const std::string& function) {
  const auto found = scripts.find(function);
  if (found == scripts.end()) {
    return std::nullopt;
  }
  auto& [result, times] = found->second.front();
  Result taken = result;
  if (times != kAlways && --times == 0) {
    found->second.pop_front();
    if (found->second.empty()) {
      scripts.erase(found);
    }
  }
  return taken;
}

}  // namespace lbm_scripted
