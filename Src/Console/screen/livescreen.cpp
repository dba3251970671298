#include "Console/screen/livescreen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include "Console/base/signals.h"
#include "Console/screen/display.h"
#include "Console/screen/text.h"

namespace {

constexpr std::chrono::seconds kRedraw{1};
// Longest delay until a signal that arrives just before poll() is noticed.
constexpr std::chrono::milliseconds kStep{100};

winsize ScreenSize() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
        size.ws_row = 24;
        size.ws_col = 80;
    }
    return size;
}

}  // namespace

bool LiveScreen::Possible() {
    return CanDraw(STDOUT_FILENO);
}

int LiveScreen::Columns() {
    // The last column stays free: some terminals wrap as soon as it is filled.
    return std::max(ScreenSize().ws_col - 1, 2);
}

LiveScreen::LiveScreen() {
    signals::Install();
    signals::CatchSuspend();
    TakeKeys();
    WriteAll(STDOUT_FILENO, "\x1b[2J");
}

LiveScreen::~LiveScreen() {
    GiveKeysBack();
}

void LiveScreen::TakeKeys() {
    // The kernel stops a background process that changes the terminal.
    if (isatty(STDIN_FILENO) != 1 || tcgetpgrp(STDIN_FILENO) != getpgrp()) return;
    if (!taken_ && tcgetattr(STDIN_FILENO, &before_) != 0) return;
    termios keys = before_;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys.c_cc[VMIN] = 1;
    keys.c_cc[VTIME] = 0;
    taken_ = tcsetattr(STDIN_FILENO, TCSANOW, &keys) == 0;
}

void LiveScreen::GiveKeysBack() {
    if (taken_) tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    taken_ = false;
}

void LiveScreen::Show(const std::vector<std::string>& lines) {
    const std::size_t rows = ScreenSize().ws_row;
    std::string page = "\x1b[H";
    // The last row stays free: a newline there would scroll.
    for (std::size_t i = 0; i < lines.size() && i + 1 < rows; ++i) {
        page += text::Wrap(lines[i], Columns()).front() + "\x1b[K\n";
    }
    if (!WriteAll(STDOUT_FILENO, page + "\x1b[J")) {
        GiveKeysBack();
        signals::EndBy(signals::StopCount() > 0 ? signals::StopSignal() : SIGTERM);
    }
}

bool LiveScreen::KeyEnds() const {
    pollfd keys{taken_ ? STDIN_FILENO : -1, POLLIN, 0};
    if (poll(&keys, 1, static_cast<int>(kStep.count())) != 1) return false;
    char key = 0;
    return read(STDIN_FILENO, &key, 1) != 1 || key == 'q' || key == 'Q';
}

bool LiveScreen::Wait() {
    const Clock::time_point end = Clock::now() + kRedraw;
    while (Clock::now() < end) {
        if (KeyEnds()) return false;
        if (signals::StopCount() > 0) {
            GiveKeysBack();
            signals::EndBy(signals::StopSignal());
        }
        if (signals::TakeSuspend()) {
            GiveKeysBack();
            std::raise(SIGSTOP);
        }
        const bool resumed = signals::TakeResume();
        if (resumed) TakeKeys();
        if (signals::TakeResize() || resumed) break;
    }
    return true;
}
