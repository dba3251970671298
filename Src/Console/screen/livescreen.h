// A terminal on standard output that shows one page, drawn again and again.
#pragma once

#include <termios.h>

#include <string>
#include <vector>

#include "common/uncopyable.h"

class LiveScreen : private Uncopyable {
  public:
    // Whether standard output is a terminal that can be drawn on.
    static bool Possible();

    // Columns of the screen that Show uses.
    static int Columns();

    // Installs the handlers of signals, so a process makes one object at most. While it lives, keys
    // are read as they are pressed, without echo.
    LiveScreen();
    ~LiveScreen();

    // Draws the page: as many lines, and as much of each, as fit on the screen. The lines are
    // printable.
    void Show(const std::vector<std::string>& lines);

    // Waits until the page is to be redrawn: for a second, or until the screen has changed. False
    // when the user has pressed q. Does not return after a signal that ends the process.
    bool Wait();

  private:
    void TakeKeys();
    void GiveKeysBack();
    bool KeyEnds() const;

    termios before_{};
    bool taken_ = false;  // the terminal is changed; `before_` holds its settings of before
};
