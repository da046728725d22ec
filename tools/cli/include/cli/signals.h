// Signals as something to wait for.
#pragma once

#include <signal.h>

#include <initializer_list>

#include "zq/posix/descriptor.h"

namespace cli {

// Keeps signals from interrupting anything: from construction on they are blocked on this thread and on all threads
// that it starts, and are only seen by Take. They stay blocked when the object is gone, so that an impatient second
// Ctrl-C does not cut an orderly end short. SIGHUP is left alone when it is ignored, as under nohup. SIGPIPE becomes
// ignored: a closed standard output is an error of the write.
//
// Threads: construct before other threads are started; the rest on one thread.
class Signals {
 public:
  // Throws std::system_error.
  explicit Signals(std::initializer_list<int> signals);

  // The next signal that has come; 0 when there is none. Does not wait.
  int Take() noexcept;

  // Readable when a signal has come.
  int GetDescriptor() const noexcept { return m_descriptor.Get(); }

 private:
  zq::posix::Descriptor m_descriptor;
};

// Whether the signal asks for an orderly end.
constexpr bool AsksToStop(int signal) { return signal == SIGINT || signal == SIGTERM || signal == SIGHUP; }

}  // namespace cli
