// The terminal while a live view is on it.
#pragma once

#include <string_view>

#include "cli/frame.h"
#include "cli/output.h"

namespace cli {

// Between construction and destruction the terminal shows a screen of our own without a cursor. The user's screen comes
// back with the object's end, and when a fatal signal ends the process. One at a time.
class Terminal {
 public:
  enum class Keys {
    kLineByLine,  // standard input is left alone
    kOneByOne,    // it gives each key as it is hit, unseen, where it is a terminal; it comes back with the screen
  };

  explicit Terminal(const Output& output, Keys keys = Keys::kLineByLine);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Follows the window as the user resizes it.
  ScreenSize Size() const;
  void Draw(std::string_view frame) const { m_output.Write(frame); }

  // Gives the user's screen back and stops the process, as Ctrl-Z does; takes the screen again when it is continued.
  void Suspend() const;

 private:
  void Enter() const;

  const Output& m_output;
  Keys m_keys;
};

}  // namespace cli
