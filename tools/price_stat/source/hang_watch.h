// Finds contexts whose events nobody processes any more.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "processes.h"

namespace price_stat {

// Compares looks. A context whose loop has not gone on for kHangNanoseconds, though it once did, is not looping, unless
// its thread is known to wait for something to happen.
class HangWatch {
 public:
  // Puts into states what this look and those before tell. Looks come in the order of time.
  void Judge(std::vector<Process>& processes);

  // Whether there are contexts that were not seen to loop yet, nor to wait: another look, soon after, may tell.
  bool HasDoubts() const noexcept { return m_hasDoubts; }

 private:
  using Key = std::tuple<std::string, std::uint64_t, std::string>;  // page, start, context's handle
  struct Loops {
    std::uint64_t count = 0;
    std::uint64_t since = 0;  // when it was first seen to be so
    bool goesOn = false;      // it was seen to change
  };

  void Judge(const Process& process, Context& context, std::map<Key, Loops>& now);

  std::map<Key, Loops> m_loops;
  bool m_hasDoubts = false;
};

}  // namespace price_stat
