// Statistics files that a test writes itself, right or wrong.
#ifndef TARVO_SUPPORT_HANDMADESTATS_H
#define TARVO_SUPPORT_HANDMADESTATS_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Names.h"
#include "tarvo_stats.h"

namespace tarvo_test {

inline TarvoStatsHeader StatsHeader(uint32_t slots, const std::string &process = "writer", int32_t pid = 4711) {
    TarvoStatsHeader header{};
    header.magic = TARVO_STATS_MAGIC;
    header.version = TARVO_STATS_VERSION;
    header.headerSize = TARVO_STATS_HEADER_SIZE;
    header.slotSize = TARVO_STATS_SLOT_SIZE;
    header.slots = slots;
    header.clock = CLOCK_MONOTONIC;
    header.pid = pid;
    header.oneWaysPerTime = 1;
    header.callsPerTime = 1;
    process.copy(header.process, TARVO_STATS_NAME_SIZE - 1);
    return header;
}

inline TarvoStatsSlot StatsSlot(uint32_t kind, const std::string &name, const std::string &remote = "") {
    TarvoStatsSlot slot{};
    slot.sequence = 2;
    slot.kind = kind;
    slot.state = TARVO_STATS_OPEN;
    name.copy(slot.name, TARVO_STATS_NAME_SIZE - 1);
    remote.copy(slot.remote, TARVO_STATS_NAME_SIZE - 1);
    return slot;
}

// A directory for statistics files, removed with its content.
class StatsDirectory {
public:
    explicit StatsDirectory(mode_t mode = 03770) : path_("/dev/shm/" + UniqueName("stats")) {
        std::filesystem::create_directories(path_);
        chmod(path_.c_str(), mode);
    }
    ~StatsDirectory() { std::filesystem::remove_all(path_); }
    StatsDirectory(const StatsDirectory &) = delete;
    StatsDirectory &operator=(const StatsDirectory &) = delete;
    const std::string &Path() const { return path_; }
    std::string File(const std::string &name) const { return path_ + "/" + name; }
    bool Has(const std::string &name) const {
        return std::filesystem::exists(std::filesystem::symlink_status(File(name)));
    }

private:
    const std::string path_;
};

// A file with the header and slots of a test, held by a lock as by a living process until it is let die.
class StatsFile {
public:
    StatsFile(const StatsDirectory &directory, const std::string &name, const TarvoStatsHeader &header = StatsHeader(0))
        : path_(directory.File(name)), fd_(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0640)) {
        if (fd_ < 0) {
            throw std::runtime_error("no file " + path_);
        }
        Cut(TARVO_STATS_HEADER_SIZE + uint64_t{header.slots} * TARVO_STATS_SLOT_SIZE);
        Write(header, 0);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        fcntl(fd_, F_OFD_SETLK, &lock);
    }
    ~StatsFile() { Die(); }
    StatsFile(const StatsFile &) = delete;
    StatsFile &operator=(const StatsFile &) = delete;

    const std::string &Path() const { return path_; }
    int Fd() const { return fd_; }
    template <typename Value>
    void Write(const Value &value, uint64_t offset) const {
        if (pwrite(fd_, &value, sizeof(value), static_cast<off_t>(offset)) != static_cast<ssize_t>(sizeof(value))) {
            throw std::runtime_error("cannot write " + path_);
        }
    }
    void Set(uint32_t index, const TarvoStatsSlot &slot) const {
        Write(slot, TARVO_STATS_HEADER_SIZE + uint64_t{index} * TARVO_STATS_SLOT_SIZE);
    }
    void Cut(uint64_t size) const {
        if (ftruncate(fd_, static_cast<off_t>(size)) != 0) {
            throw std::runtime_error("cannot cut " + path_);
        }
    }
    // As the kernel does at a process's end.
    void Die() {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = -1;
    }

private:
    const std::string path_;
    int fd_;
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_HANDMADESTATS_H
