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

    // Columns that Show has room for.
    static int Columns();

    // Installs the handlers of signals, so there is but one object in a process. Keys are taken as
    // they are pressed while it lives.
    LiveScreen();
    ~LiveScreen();

    // Draws the page: as many lines, and of each as much, as the screen has room for. The lines are
    // fit for a terminal.
    void Show(const std::vector<std::string>& lines);

    // Waits until the page is to be drawn anew: a second, or less when the screen has changed.
    // False when the user has pressed q. Does not return when a signal is to end the process.
    bool Wait();

  private:
    void TakeKeys();
    void GiveKeysBack();
    bool KeyEnds() const;

    termios before_{};
    bool taken_ = false;  // the keys; `before_` holds how they were
};
