// A terminal that is drawn anew again and again, and left as it was found.
//
// What is typed is not shown; 'q', Ctrl-C and the signals that end a program end the
// drawing, Ctrl-Z stops the program with its terminal in order. Where standard output is
// no terminal, or nothing is to be drawn, frames follow each other as plain text.
//
// Ownership: of the terminal's state, one object at a time, from before the first thread
// is started: the signals are blocked in all of them. Threads: one. Failure: a terminal
// that can't be changed is used as it is.
#pragma once

#include <termios.h>

#include <chrono>
#include <string>

namespace ctl {

class Screen {
 public:
  explicit Screen(bool draws);
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  // Shows lines, as many as there is room for.
  void show(const std::string& frame);

  enum class Wake { time, ready, resized, end };
  // Waits until the time has come, a descriptor can be read, or the user wants something.
  [[nodiscard]] Wake wait(std::chrono::milliseconds time, int descriptor);

  // Puts the terminal in order; nothing is shown any more. The end does it as well.
  void leave();

  [[nodiscard]] bool isTerminal() const {
    return terminal;
  }

 private:
  void enter();
  void stop();
  [[nodiscard]] Wake readSignal();
  [[nodiscard]] Wake readKey();

  bool terminal;
  bool keys;  // standard input is a terminal too
  bool entered = false;
  int signals;  // descriptor that gives them
  termios before{};
};

}  // namespace ctl
