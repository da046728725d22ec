// Standard output as the tools use it.
#pragma once

#include <string_view>

namespace cli {

// Results go to standard output unbuffered, and a result that could not be written is an error.
class Output {
 public:
  // Throws std::system_error unless everything was written.
  void Write(std::string_view text) const;

  bool IsTerminal() const;
};

}  // namespace cli
