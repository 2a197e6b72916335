#ifndef TARVO_TOOLS_SCRATCH_H
#define TARVO_TOOLS_SCRATCH_H

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "support/Mounts.h"
#include "support/Names.h"

namespace tarvo_test {

// A FIFO directory of the test's own, on the same file system as the real one.
class ScratchDirectory {
public:
    explicit ScratchDirectory(mode_t mode = 02770) : path_("/dev/shm/" + UniqueName("dir") + "/tarvo/") {
        std::filesystem::create_directories(path_);
        chmod(path_.c_str(), mode);
    }
    ~ScratchDirectory() { std::filesystem::remove_all(Parent()); }
    ScratchDirectory(const ScratchDirectory &) = delete;
    ScratchDirectory &operator=(const ScratchDirectory &) = delete;

    const std::string &Path() const { return path_; }
    std::string Parent() const { return path_.substr(0, path_.size() - 6); }
    std::string AddFifo(const std::string &name) const {
        if (mkfifo((path_ + name).c_str(), 0660) != 0) {
            throw std::runtime_error("no FIFO " + name);
        }
        chmod((path_ + name).c_str(), 0660); // whatever the umask
        return path_ + name;
    }
    std::string AddFile(const std::string &name) const {
        std::ofstream(path_ + name) << "text";
        return path_ + name;
    }
    bool Has(const std::string &name) const { return std::filesystem::exists(path_ + name); }

private:
    const std::string path_;
};

// Mounts of this process are its own from now on, and there is no FIFO directory. False without the right to that.
inline bool LoseFifoDirectory() {
    return EnterMountNamespace() && mount("tarvo", "/dev/shm", "tmpfs", 0, "mode=1777") == 0;
}

// An open FIFO.
class Opened {
public:
    Opened(const std::string &path, int flags) : fd_(open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC)) {
        if (fd_ < 0) {
            throw std::runtime_error("cannot open " + path);
        }
    }
    ~Opened() { close(fd_); }
    Opened(const Opened &) = delete;
    Opened &operator=(const Opened &) = delete;
    int Fd() const { return fd_; }

private:
    const int fd_;
};

} // namespace tarvo_test

#endif // TARVO_TOOLS_SCRATCH_H
