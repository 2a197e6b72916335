#include "OneWayCount.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <stdexcept>

namespace bench {

namespace {

// The counter is written with every message, the rest once in a window: apart, so that they share no cache line.
struct Shared {
    alignas(64) std::atomic<uint64_t> handled;
    alignas(64) std::atomic<uint64_t> wakeAt;
    std::atomic<uint32_t> bell;
};

Shared *shared = nullptr;

std::string Path(const std::string &endpoint) { return "/dev/shm/" + endpoint + ".count"; }

void Map(const std::string &endpoint, int flags) {
    const int fd = open(Path(endpoint).c_str(), flags | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(Shared)) != 0) {
        throw std::runtime_error("cannot open " + Path(endpoint));
    }
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("cannot map " + Path(endpoint));
    }
    shared = static_cast<Shared *>(memory); // zeros, which is what a new counter is
}

} // namespace

void OneWayCount::Create(const std::string &endpoint) { Map(endpoint, O_CREAT | O_EXCL); }
void OneWayCount::Remove(const std::string &endpoint) { unlink(Path(endpoint).c_str()); }
void OneWayCount::Open(const std::string &endpoint) { Map(endpoint, 0); }

void OneWayCount::Handled() {
    const uint64_t number = shared->handled.fetch_add(1) + 1;
    if (number == shared->wakeAt.load()) {
        shared->bell.fetch_add(1);
        syscall(SYS_futex, &shared->bell, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    }
}

uint64_t OneWayCount::Read() { return shared->handled.load(); }

// Either this sees the target counted, or the one who counts it sees `wakeAt`.
void OneWayCount::Await(uint64_t target) {
    const uint32_t before = shared->bell.load();
    shared->wakeAt.store(target);
    while (shared->handled.load() < target) {
        syscall(SYS_futex, &shared->bell, FUTEX_WAIT, before, nullptr, nullptr, 0);
    }
}

} // namespace bench
