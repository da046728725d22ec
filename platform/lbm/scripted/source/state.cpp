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
std::string Examine(const State& state, Argument& argument) {
  const void* const handle = std::get<const void*>(argument.value);
  if (handle == nullptr) {
    return {};
  }
  const std::shared_ptr<Object> object = state.Find(handle);
  if (object == nullptr) {
    return argument.name + " is not a handle: " + argument.text;
  }
  argument.text = object->Describe();
  return object->alive ? std::string() : argument.name + " was deleted: " + object->Describe();
}

bool SameCall(const Call& one, const Call& other) {
  return one.thread == other.thread && one.ToString() == other.ToString();
}

}  // namespace

std::string Object::Describe() const {
  std::string text = kind + ('#' + std::to_string(number));
  return name.empty() ? text : text + " \"" + name + '"';
}

std::string Object::Refusal() const {
  if (!alive) {
    return Describe() + " was deleted";
  }
  if (closed) {
    return Describe() + " takes nothing more";
  }
  return context != nullptr && context->closed ? Describe() + " has outlived its context" : std::string();
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
    return size == 0 ? Pointer(name, nullptr) : NotNull(Pointer(name, nullptr));
  }
  std::string bytes(static_cast<const char*>(data), size);
  std::string text = Quote(bytes);
  return {{name, std::move(text), std::move(bytes)}};
}

Input OptionalHandle(const char* name, const void* handle) {
  Input input = Pointer(name, handle);
  input.handle = true;
  return input;
}

bool IsNull(const Argument& argument) {
  const auto* const pointer = std::get_if<const void*>(&argument.value);
  const auto* const callback = std::get_if<Argument::Function>(&argument.value);
  return (pointer != nullptr && *pointer == nullptr) || (callback != nullptr && *callback == nullptr);
}

Input NotNull(Input input) {
  if (IsNull(input.argument)) {
    input.wrong = input.argument.name + " is null";
  }
  return input;
}

Input Handle(const char* name, const void* handle) { return NotNull(OptionalHandle(name, handle)); }

Input Room(const char* name, const void* room) {
  Input input = NotNull(Pointer(name, room));
  input.recorded = false;
  return input;
}

Input Count(const char* name, const std::size_t* count) {
  return count != nullptr ? Number(name, static_cast<std::int64_t>(*count)) : NotNull(Pointer(name, nullptr));
}

LastError& ThreadError() {
  thread_local LastError error;
  return error;
}

int Running::Fail(int errnum, std::string errmsg) {
  ThreadError() = {errnum, std::move(errmsg)};
  return -1;
}

int Running::FailMisused(int errnum, const std::string& problem) {
  state.problems.push_back(call.function + ": " + problem);
  return Fail(errnum, problem);
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
    if (input.handle && input.wrong.empty()) {
      input.wrong = Examine(*this, input.argument);
    }
    if (wrong.empty()) {
      wrong = std::move(input.wrong);
    }
    if (input.recorded) {
      call->arguments.push_back(std::move(input.argument));
    }
  }
  calls.push_back(call);
  if (!wrong.empty()) {
    problems.push_back(call->function + ": " + wrong);
  }
  changed.notify_all();

  if (const auto hook = hooks.find(call->function); hook != hooks.end()) {
    const std::function<void(const Call&)> copy = hook->second;
    const Unlocked unlocked(lock);
    copy(*call);
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
  const Inside inside(*this, dispatcher);

  using Clock = std::chrono::steady_clock;
  const bool forever = msec >= LBM_EVENT_QUEUE_BLOCK;
  const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : msec);
  const auto somethingToDo = [&] {
    return dispatcher.closed || dispatcher.unblocked || !dispatcher.work.empty() ||
           scripts.count(running.call.function) != 0;
  };
  int done = 0;
  while (true) {
    if (forever) {
      changed.wait(running.lock, somethingToDo);
    } else if (!changed.wait_until(running.lock, deadline, somethingToDo)) {
      break;
    }
    while (!dispatcher.work.empty()) {
      std::function<void()> work = std::move(dispatcher.work.front());
      dispatcher.work.pop_front();
      const Unlocked unlocked(running.lock);
      std::exchange(work, nullptr)();  // and gone without the lock, as what Close drops
      ++done;
    }
    if (std::exchange(dispatcher.unblocked, false) || dispatcher.closed || (returnAfterWork && done > 0)) {
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

void State::Close(std::unique_lock<std::mutex>& lock, Object& object) {
  object.closed = true;
  changed.notify_all();
  if (auto* const dispatcher = dynamic_cast<Dispatcher*>(&object)) {
    auto dropped = std::exchange(dispatcher->work, {});
    const Unlocked unlocked(lock);
    dropped.clear();  // without the lock: what the work owns may call the interface as it goes
  }
}

void State::WaitForOthers(std::unique_lock<std::mutex>& lock, const Object& object) {
  changed.wait(lock, [&] { return object.inside.count(std::this_thread::get_id()) == object.inside.size(); });
}

State::Inside::Inside(State& state, Object& object) : m_state(state), m_object(object) {
  for (Object* entered = &m_object; entered != nullptr; entered = entered->context.get()) {
    entered->inside.insert(std::this_thread::get_id());
  }
}

State::Inside::~Inside() {
  for (Object* left = &m_object; left != nullptr; left = left->context.get()) {
    left->inside.erase(left->inside.find(std::this_thread::get_id()));
  }
  m_state.changed.notify_all();
}

void State::Release(MessageObject& message) {
  if (--message.references != 0) {
    return;
  }
  message.alive = false;
  if (message.msg.response != nullptr) {
    message.response->alive = false;
  } else if (message.response != nullptr) {
    message.response->counted = true;  // taken over, it has to be given back
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
