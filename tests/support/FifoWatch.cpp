#include "support/FifoWatch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>

#include "support/Names.h"

namespace tarvo_test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds LIMIT(30);

class Inotify {
public:
    explicit Inotify(const std::string &directory) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        constexpr uint32_t EVENTS = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_OPEN | IN_CLOSE | IN_ATTRIB;
        if (fd_ < 0 || inotify_add_watch(fd_, directory.c_str(), EVENTS) < 0) {
            const int error = errno;
            close(fd_);
            throw std::system_error(error, std::generic_category(), "watch " + directory);
        }
    }
    ~Inotify() { close(fd_); }
    Inotify(const Inotify &) = delete;
    Inotify &operator=(const Inotify &) = delete;

    // False at `deadline`; true when something happened before.
    bool Await(Clock::time_point deadline) const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd entry = {fd_, POLLIN, 0};
        if (left <= 0 || poll(&entry, 1, static_cast<int>(left)) == 0) {
            return false;
        }
        // The condition is tested anew for any event, so their contents do not matter.
        alignas(inotify_event) char events[4096];
        while (read(fd_, events, sizeof(events)) > 0) {
        }
        return true;
    }

private:
    const int fd_;
};

} // namespace

void AwaitFifoDirectory(const std::string &what, const std::function<bool()> &done) {
    // Mostly there is nothing to wait for, and closing a watch takes the kernel milliseconds.
    if (done()) {
        return;
    }
    // Watched before the condition is tested again, so that no change falls between the two.
    const Inotify watch(FifoDirectory());
    const auto deadline = Clock::now() + LIMIT;
    while (!done()) {
        if (!watch.Await(deadline)) {
            throw std::runtime_error("waited 30 s in vain: " + what);
        }
    }
}

} // namespace tarvo_test
