// Who serves, and why somebody cannot be reached; part of tarvo.hpp.
#ifndef TARVO_NAMES_HPP
#define TARVO_NAMES_HPP

#include "tarvo_basics.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace tarvo {
namespace detail {

// Where all processes meet: a server has a FIFO under its own name there, a pipe two that are named A__to__B.
inline constexpr char DIRECTORY[] = "/dev/shm/velm/tarvo/";
inline const char *DirectoryRoot() noexcept { return GetCurrDomain() == TARVO_DOMAIN_ORLA ? "/local" : ""; }
inline std::string Directory() { return Join({DirectoryRoot(), DIRECTORY}); }

// What a look at a server's file tells, without a word to the server or to the log.
enum class Presence { Served, Abandoned, NoFile, NoDirectory, NoEntry, NoRight };

// Why a file could not be opened for writing. Takes the name off the path.
inline Presence ReasonOf(int error, char *path) noexcept {
    *std::strrchr(path, '/') = '\0';
    const bool mayEnter = access(path, X_OK) == 0;
    const bool isMissing = !mayEnter && errno == ENOENT;
    switch (error) {
    case ENXIO: // nobody has opened it for reading
        return Presence::Abandoned;
    case EACCES:
    case EPERM:
        return mayEnter ? Presence::NoRight : Presence::NoEntry;
    default:
        return isMissing ? Presence::NoDirectory : Presence::NoFile;
    }
}

inline bool IsNameOfPipe(const std::string &name) noexcept { return name.find("__to__") != std::string::npos; }

inline Presence LookFor(const std::string &name) noexcept {
    if (name.empty() || name.size() > MAX_NAME || HoldsZero(name)) {
        return Presence::NoFile;
    }
    char path[2 * MAX_NAME]; // nothing here allocates
    std::snprintf(path, sizeof(path), "%s%s%s", DirectoryRoot(), DIRECTORY, name.c_str());
    // Opening and closing a server's file says nothing to the server, which holds it open for writing itself. On a
    // pipe's file the reader would take the same for its remote's end.
    if (IsNameOfPipe(name)) {
        return access(path, F_OK) == 0 ? Presence::Served : ReasonOf(errno, path);
    }
    const int fd = open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return ReasonOf(errno, path);
    }
    struct stat status {};
    const bool isFifo = fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
    close(fd);
    return isFifo ? Presence::Served : Presence::NoFile;
}

// For people, about a connect that has ended with ENXIO; empty when there is nothing to add.
inline std::string WhyUnreachable(const std::string &name) {
    const std::string path = Join({Directory(), name});
    switch (LookFor(name)) {
    case Presence::Abandoned:
        return " (its file is there, and nobody behind it)";
    case Presence::NoFile:
        return Join({" (no server of this name has been started: there is no FIFO ", path, ")"});
    case Presence::NoDirectory:
        return Join({" (there is no directory for ", path, ")"});
    case Presence::NoEntry:
        return Join({" (no right to enter the directory of ", path, ")"});
    case Presence::NoRight:
        return Join({" (no right to write to ", path, ")"});
    case Presence::Served: // by one that has come since
        break;
    }
    return "";
}

} // namespace detail

// The names under which somebody serves at this moment, in alphabetical order: those in the FIFO directory whose file
// somebody reads. Not among them: servers to whose file this user may not write, and names that hold "/" or "__to__".
// A directory that is missing holds no servers; one that this user may not read is an error.
[[nodiscard]] inline std::vector<std::string> Servers(std::error_code &error) {
    error.clear();
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(detail::Directory().c_str()), &closedir);
    if (directory == nullptr && errno != ENOENT) {
        error.assign(errno, std::generic_category());
    }
    while (const dirent *entry = directory == nullptr ? nullptr : readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (!detail::IsNameOfPipe(name) && detail::LookFor(name) == detail::Presence::Served) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}
[[nodiscard]] inline std::vector<std::string> Servers() {
    std::error_code error;
    std::vector<std::string> names = Servers(error);
    detail::ThrowIf(error, {"tarvo servers in ", detail::Directory()});
    return names;
}

// Waits until somebody serves under `name`, not longer than `timeout`; whether that is so. Looks every 50 ms at the
// latest, and writes no log lines. The server may still end before a connect to it.
[[nodiscard]] inline bool WaitForServer(const std::string &name, std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds longest{50};
    const auto start = Clock::now();
    for (std::chrono::milliseconds pause{1}; detail::LookFor(name) != detail::Presence::Served; pause *= 2) {
        const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
        if (waited >= timeout) {
            return false;
        }
        std::this_thread::sleep_for(std::min({pause, timeout - waited, longest}));
        pause = std::min(pause, longest);
    }
    return true;
}

} // namespace tarvo

#endif // TARVO_NAMES_HPP
