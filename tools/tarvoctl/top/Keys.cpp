#include "top/Keys.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <ctime>

namespace tarvoctl {

Keys::Keys() {
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1 || tcgetattr(STDIN_FILENO, &former) != 0) {
        return;
    }
    termios mode = former;
    // Neither lines nor echo; the keys for signals stay.
    mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    mode.c_cc[VMIN] = 0;
    mode.c_cc[VTIME] = 0;
    available = tcsetattr(STDIN_FILENO, TCSANOW, &mode) == 0;
}

Keys::~Keys() {
    if (available) {
        tcsetattr(STDIN_FILENO, TCSANOW, &former);
    }
}

std::string Keys::Await(std::chrono::microseconds time, const Interrupt &interrupt) {
    if (!available) {
        interrupt.WaitFor(time);
        return "";
    }
    std::array<pollfd, 2> entries = {{{STDIN_FILENO, POLLIN, 0}, {interrupt.Fd(), POLLIN, 0}}};
    const timespec limit = {time.count() / 1000000, time.count() % 1000000 * 1000};
    if (ppoll(entries.data(), entries.size(), &limit, nullptr) <= 0 || entries[0].revents == 0) {
        return "";
    }
    std::array<char, 64> keys{};
    const ssize_t size = read(STDIN_FILENO, keys.data(), keys.size());
    if (size <= 0) {
        available = false; // the terminal is gone; the interval paces what follows
        return "";
    }
    return {keys.data(), static_cast<std::size_t>(size)};
}

} // namespace tarvoctl
