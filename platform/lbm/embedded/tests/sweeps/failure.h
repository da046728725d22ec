// Lets calls that the engine makes fail: of operator new and of the system, on whichever thread.
#pragma once

#include <atomic>
#include <utility>

namespace sweep {

enum class Call {
  kNew,
  kAccept,
  kBind,
  kConnect,
  kEpollCreate,
  kEpollControl,
  kEpollWait,
  kEventfd,
  kListDirectory,
  kLinkat,
  kListen,
  kMemfdCreate,
  kMkdirat,
  kMmap,
  kOpenat,
  kPoll,
  kPosixFallocate,
  kPthreadCreate,
  kReceive,
  kRename,
  kSend,
  kSocket,
  kSocketpair,
  kTimerCreate,
  kNone  // the last: one that does not fail
};

struct Failure {
  Call call;
  int error;
  const char* text;  // for people
};

// From now on the engine's calls are counted, and those from that number on fail, the first being 1: one, or all.
void Arm(const Failure& failure, long first, bool lasting) noexcept;
void Disarm() noexcept;

// Since the last Arm: the calls of a kind, and whether one of the failing kind failed.
long Counted(Call call) noexcept;
bool Failed() noexcept;

// While it lives, what this thread does is the engine's doing, or the test's own, which does not fail.
class Doing {
 public:
  enum class Whose : bool { kTest, kEngine };
  explicit Doing(Whose whose) noexcept : m_before(std::exchange(t_whose, whose)) {}
  ~Doing() { t_whose = m_before; }
  Doing(const Doing&) = delete;
  Doing& operator=(const Doing&) = delete;

  static bool OfEngine() noexcept { return t_whose == Whose::kEngine; }

 private:
  // Threads that the test does not know are the engine's.
  static inline thread_local constinit Whose t_whose = Whose::kEngine;
  const Whose m_before;
};

}  // namespace sweep
