#include "wait/ServerWatch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "api/EnvManager.h"

namespace tarvoctl {
namespace {

// Where the directory is watched, for the changes that tell nobody: a new right of this user.
constexpr std::chrono::microseconds WATCHED_INTERVAL = std::chrono::seconds(1);
// Where there is no directory yet, or no room for one more watch.
constexpr std::chrono::microseconds BLIND_INTERVAL = std::chrono::milliseconds(50);

// A server links its finished FIFO to its name and then opens it. Rights may change, and the directory may go.
constexpr uint32_t CHANGES = IN_CREATE | IN_MOVED_TO | IN_OPEN | IN_ATTRIB | IN_DELETE_SELF | IN_ONLYDIR;

} // namespace

ServerWatch::ServerWatch(const std::string &name)
    : path(EnvManager::FifoPrefix() + name), directory(path.substr(0, path.rfind('/'))),
      events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

Presence ServerWatch::Look() {
    // Before the look, so that no change falls between it and the wait. Each time: a watch goes with its directory, and
    // a second one of the same directory is the first.
    watched = inotify_add_watch(events.Get(), directory.c_str(), CHANGES) >= 0;
    struct stat state {};
    if (lstat(path.c_str(), &state) != 0) {
        return errno == EACCES ? Presence::NO_RIGHT : Presence::NO_FILE;
    }
    // Only a FIFO is ever opened: another file would be changed or wait for something by that.
    if (!S_ISFIFO(state.st_mode)) {
        return Presence::NO_FILE;
    }
    // The server holds both ends of its FIFO and so sees nothing of a writer that comes and goes.
    const UniqueFd writer(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (writer.Get() >= 0) {
        return Presence::SERVING;
    }
    return errno == EACCES ? Presence::NO_RIGHT : errno == ENXIO ? Presence::NO_READER : Presence::NO_FILE;
}

bool ServerWatch::Wait(int interruptFd, std::optional<std::chrono::microseconds> limit) const {
    const std::chrono::microseconds interval = watched ? WATCHED_INTERVAL : BLIND_INTERVAL;
    const std::chrono::nanoseconds left = std::min(interval, limit.value_or(interval));
    const timespec timeout = {left.count() / 1000000000, left.count() % 1000000000};
    std::array<pollfd, 2> entries = {{{interruptFd, POLLIN, 0}, {events.Get(), POLLIN, 0}}};
    ppoll(entries.data(), entries.size(), &timeout, nullptr);
    // What has happened is found by looking.
    std::array<char, 4096> buffer{};
    while (read(events.Get(), buffer.data(), buffer.size()) > 0) {
    }
    return (entries[0].revents & POLLIN) != 0;
}

} // namespace tarvoctl
