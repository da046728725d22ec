// Standard output as the tools use it.
#pragma once

#include <string_view>

namespace cli {

// Results go to standard output unbuffered, and a result that could not be written is an error.
class Output {
 public:
  // From now on a write fails when standard output still takes nothing a second after the descriptor has become
  // readable: whoever reads the output may never go on, and must not keep a tool from ending. The descriptor has to be
  // open until the last write.
  void GiveUpOn(int descriptor) noexcept { m_giveUp = descriptor; }

  // Throws std::system_error unless everything was written.
  void Write(std::string_view text) const;

  bool IsTerminal() const;

 private:
  void WaitUntilWritable() const;

  int m_giveUp = -1;
};

}  // namespace cli
