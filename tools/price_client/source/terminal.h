// The terminal while the live view is on it.
#pragma once

#include <string_view>

#include "cli/output.h"
#include "live_view.h"

namespace price_client {

// Between construction and destruction the terminal shows a screen of our own
// without a cursor. The user's screen comes back with the object's end, and
// when a fatal signal ends the process. One at a time.
class Terminal {
 public:
  explicit Terminal(const cli::Output& output);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Follows the window as the user resizes it.
  ScreenSize Size() const;
  void Draw(std::string_view frame) const { m_output.Write(frame); }

  // Gives the user's screen back and stops the process, as Ctrl-Z does; takes
  // the screen again when it is continued.
  void Suspend() const;

 private:
  const cli::Output& m_output;
};

}  // namespace price_client
