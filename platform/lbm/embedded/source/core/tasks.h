// Work for a context's dispatching thread, or for one that dispatches an event queue.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace engine::core {

// Something to be done elsewhere. It is its own place in a queue, so that no memory is needed to post it.
class Task {
 public:
  Task() = default;
  virtual ~Task() = default;
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  // self: owns this task, which may post itself somewhere else by it.
  virtual void Run(std::unique_ptr<Task>& self) = 0;

 private:
  friend class TaskList;

  std::unique_ptr<Task> m_next;
};

template <class Function>
std::unique_ptr<Task> MakeTask(Function function) {
  class FunctionTask final : public Task {
   public:
    explicit FunctionTask(Function given) : m_function(std::move(given)) {}
    void Run(std::unique_ptr<Task>&) override { m_function(); }

   private:
    Function m_function;
  };
  return std::make_unique<FunctionTask>(std::move(function));
}

// First in, first out. Threads: one at a time.
class TaskList {
 public:
  TaskList() = default;
  TaskList(TaskList&& other) noexcept { Append(std::move(other)); }
  TaskList& operator=(TaskList&&) = delete;
  ~TaskList() { Clear(); }

  bool Empty() const noexcept { return m_first == nullptr; }
  std::size_t Size() const noexcept { return m_size; }
  void Append(std::unique_ptr<Task> task) noexcept;
  void Append(TaskList&& other) noexcept;
  // Null when there is none.
  std::unique_ptr<Task> Take() noexcept;
  void PutBack(std::unique_ptr<Task> task) noexcept;  // in front
  void Clear() noexcept;

 private:
  std::unique_ptr<Task> m_first;
  Task* m_last = nullptr;
  std::size_t m_size = 0;
};

// Tasks posted by other threads, in the order of their posting.
class TaskQueue {
 public:
  // Whether the dispatching thread is to be woken: it has not been since it last took tasks. Threads: any.
  bool Post(std::unique_ptr<Task> task) noexcept;

  // Whether Take has something. Threads: the dispatching one.
  bool Posted() const noexcept { return m_posted.load(std::memory_order_relaxed); }
  // What was posted since the last call. Threads: the dispatching one.
  TaskList Take() noexcept;

  // Drops what is there and takes nothing more. Threads: any.
  void Close() noexcept;

 private:
  std::atomic<bool> m_posted{false};
  std::mutex m_mutex;
  // Guarded by m_mutex:
  TaskList m_tasks;
  bool m_closed = false;
};

// Functions to be called later. Threads: the dispatching one only.
class Timers {
 public:
  using Clock = std::chrono::steady_clock;
  using Function = std::function<void()>;

  void RunAfter(std::chrono::milliseconds delay, Function function);

  // Runs what is due, and returns how many that were. Asks for the time only when there are timers. A function for
  // which there is no memory is called again later.
  std::size_t RunDue();

  std::optional<Clock::time_point> NextDue() const;

  // After which what failed is tried again.
  static constexpr std::chrono::milliseconds kRetryDelay{50};

 private:
  std::multimap<Clock::time_point, Function> m_timers;
};

}  // namespace engine::core
