#include "program/NameLocks.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace tarvo_bridge {
namespace {

std::string HolderIn(int fd) {
    std::array<char, 128> text{};
    const ssize_t size = pread(fd, text.data(), text.size() - 1, 0);
    return size > 0 ? std::string(text.data(), static_cast<std::size_t>(size)) : "taken";
}

// A file that a bridge of another user has made can be locked, but not written to.
UniqueFd OpenFile(const std::string &path, bool &writable) {
    UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    writable = file.Get() >= 0;
    if (!writable && errno == EACCES) {
        file = UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        errno = EACCES; // which tells more than that there is none
    }
    return file;
}

bool Write(int fd, const std::string &text) {
    return ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

} // namespace

std::string NameLocks::Take(const std::string &folder, const std::string &name, const std::string &purpose) {
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        return fmt::format("'{}' cannot be made: {}", folder, std::strerror(errno));
    }
    const std::string path = folder + "/" + name + ".name";
    bool writable = false;
    UniqueFd file = OpenFile(path, writable);
    if (file.Get() < 0) {
        return fmt::format("'{}' cannot be opened: {}", path, std::strerror(errno));
    }
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        return fmt::format("another bridge of this machine has '{}': it is {}", name, HolderIn(file.Get()));
    }
    if (writable && !Write(file.Get(), fmt::format("{} by process {}", purpose, getpid()))) {
        return fmt::format("'{}' cannot be written: {}", path, std::strerror(errno));
    }
    files.push_back(std::move(file));
    return "";
}

} // namespace tarvo_bridge
