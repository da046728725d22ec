// Standard output as the tools use it.
#pragma once

#include <string_view>

namespace cli {

// Results go to standard output unbuffered, and a result that could not be written is an error.
class Output {
 public:
  // From now on a write that standard output does not take at once fails when the descriptor becomes readable: whoever
  // reads the output may never go on, and must not keep a tool from ending. The descriptor has to outlive this.
  void GiveUpOn(int descriptor) noexcept { m_giveUp = descriptor; }

  // Throws std::system_error unless everything was written.
  void Write(std::string_view text) const;

  bool IsTerminal() const;

 private:
  void WaitUntilWritable() const;

  int m_giveUp = -1;
};

}  // namespace cli
