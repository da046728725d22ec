// Objects of the process that made them: a child that fork makes has copies, and none of the threads, connections and
// shared memory behind them.
#pragma once

#include <string>

#include "zq/posix/fork.h"

namespace engine {

// A base of what must not be used in a child.
class ProcessBound {
 public:
  // Throws std::runtime_error unless the calling process made it. what: the error's subject.
  void CheckProcess(const char* what) const {
    if (m_generation != zq::posix::Generation()) {
      Refuse(what);
    }
  }

 private:
  [[noreturn]] static void Refuse(const std::string& what);

  const unsigned m_generation = zq::posix::Generation();
};

}  // namespace engine
