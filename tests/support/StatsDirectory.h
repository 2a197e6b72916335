// A directory of statistics for a test, and what stands in its files. Reads them by the public layout alone.
#ifndef TARVO_SUPPORT_STATSDIRECTORY_H
#define TARVO_SUPPORT_STATSDIRECTORY_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "support/Mounts.h"
#include "tarvo_stats.h"

namespace tarvo_test {

// /dev/shm of this process and its children is their own from now on, with the directory of the FIFOs, and with that of
// the statistics unless `mode` is 0. Needs what EnterMountNamespace does. `options` are those of the file system that
// holds the statistics.
inline bool GetOwnStatsDirectory(mode_t mode = 02770, const char *options = nullptr) {
    if (!EnterMountNamespace() || mount("tarvo", "/dev/shm", "tmpfs", 0, "mode=1777") != 0 ||
        mkdir("/dev/shm/velm", 0755) != 0 || mkdir("/dev/shm/velm/tarvo", 0770) != 0) {
        return false;
    }
    if (mode == 0) {
        return true;
    }
    if (mkdir(TARVO_STATS_DIRECTORY, 0770) != 0 ||
        (options != nullptr && mount("tarvo", TARVO_STATS_DIRECTORY, "tmpfs", 0, options) != 0)) {
        return false;
    }
    return chmod(TARVO_STATS_DIRECTORY, mode) == 0;
}

inline std::vector<std::string> StatsFiles() {
    std::vector<std::string> paths;
    for (const auto &entry : std::filesystem::directory_iterator(TARVO_STATS_DIRECTORY)) {
        paths.push_back(entry.path());
    }
    return paths;
}

// The path of the file of a process, by its id; empty when it has none.
inline std::string StatsFileOf(pid_t pid) {
    for (const std::string &path : StatsFiles()) {
        if (path.find("/" + std::to_string(pid) + ".") != std::string::npos) {
            return path;
        }
    }
    return "";
}

// Whether its process lives, as any reader sees it.
inline bool IsAliveStatsFile(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool alive = fd >= 0 && fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(fd);
    return alive;
}

// A copy of a file at one moment.
class StatsSnapshot {
public:
    explicit StatsSnapshot(const std::string &path) {
        std::ifstream stream(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    }

    bool IsWhole() const {
        return bytes.size() >= TARVO_STATS_HEADER_SIZE && Header().magic == TARVO_STATS_MAGIC &&
               bytes.size() >= TARVO_STATS_HEADER_SIZE + std::size_t{Header().slots} * TARVO_STATS_SLOT_SIZE;
    }
    TarvoStatsHeader Header() const {
        TarvoStatsHeader header{};
        std::memcpy(&header, bytes.data(), std::min(sizeof(header), bytes.size()));
        return header;
    }
    std::vector<TarvoStatsSlot> Slots(uint32_t kind) const {
        std::vector<TarvoStatsSlot> slots;
        for (std::size_t i = 0; IsWhole() && i < Header().slots; ++i) {
            TarvoStatsSlot slot{};
            std::memcpy(&slot, bytes.data() + TARVO_STATS_HEADER_SIZE + i * sizeof(slot), sizeof(slot));
            if (slot.kind == kind) {
                const bool isOfPipes = kind == TARVO_STATS_PIPE || kind == TARVO_STATS_GONE;
                slots.push_back(isOfPipes ? WithFirst(slot) : slot);
            }
        }
        return slots;
    }

private:
    // As readers do it: what the first threads have counted among what all have.
    static TarvoStatsSlot WithFirst(TarvoStatsSlot slot) {
        TarvoStatsPipe &pipe = slot.of.pipe;
        for (std::size_t kind = 0; kind < TARVO_STATS_KINDS; ++kind) {
            pipe.sent.messages[kind] += std::exchange(pipe.sent.firstMessages[kind], 0);
            pipe.sent.bytes[kind] += std::exchange(pipe.sent.firstBytes[kind], 0);
        }
        pipe.requests.begun += std::exchange(pipe.requests.firstBegun, 0);
        pipe.requests.finished += std::exchange(pipe.requests.firstFinished, 0);
        pipe.calls.begun += std::exchange(pipe.calls.firstBegun, 0);
        pipe.calls.ended[TARVO_STATS_END_ANSWERED] += std::exchange(pipe.calls.firstAnswered, 0);
        return slot;
    }

    std::string bytes;
};

// That of this process.
inline StatsSnapshot OwnStats() { return StatsSnapshot(StatsFileOf(getpid())); }

} // namespace tarvo_test

// In a test: goes on in a directory of its own, or skips where that takes more rights.
#define TARVO_STATS_OR_SKIP(...)                                                                                       \
    do {                                                                                                               \
        if (!tarvo_test::EnterMountNamespace()) {                                                                      \
            GTEST_SKIP() << tarvo_test::NO_MOUNTS;                                                                     \
        }                                                                                                              \
        ASSERT_TRUE(tarvo_test::GetOwnStatsDirectory(__VA_ARGS__));                                                    \
    } while (false)

#endif // TARVO_SUPPORT_STATSDIRECTORY_H
