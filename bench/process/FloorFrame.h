// The floor: the least code that does what a call of the library does. The same topology (a FIFO each way, an epoll
// thread in each process, callbacks on a worker of the pipe), two reads and one write a message, a checksum and a heap
// buffer for each. No log, no table, no time-outs, no arguments checked, nothing that copes with trouble. There are
// three, each a program of its own:
//   floor         a mutex and a condition variable where one thread hands over to another, the notification after the
//                 unlock; cleared buffers, a time in each frame
//   floor-sem     a semaphore where one thread hands over to another; none of the rest
//   floor-shared  the same, with one worker for all clients of the server
#ifndef TARVO_BENCH_PROCESS_FLOORFRAME_H
#define TARVO_BENCH_PROCESS_FLOORFRAME_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace bench {

#ifdef FLOOR_SEM
constexpr bool FLOOR_WITH_SEMAPHORES = true;
#else
constexpr bool FLOOR_WITH_SEMAPHORES = false;
#endif
#ifdef FLOOR_SHARED
constexpr bool FLOOR_WITH_SHARED_WORKER = true;
#else
constexpr bool FLOOR_WITH_SHARED_WORKER = false;
#endif

constexpr int FLOOR_EVENTS = 64;
constexpr std::size_t FLOOR_NAME_SIZE = 64;

struct Head {
    uint32_t magic;
    uint32_t id;
    uint32_t type;
    uint32_t length;
    uint32_t checksum;
    uint32_t timeout;
    uint64_t time;
};

struct Message {
    Head head;
    std::unique_ptr<char[]> data;
};

std::string FloorPath(const std::string &name, const char *suffix);
// Throws std::runtime_error.
int OpenOrThrow(const std::string &path, int flags);
void MakeFifo(const std::string &path);
void Watch(int epollFd, int fd, void *context);

// 0 or a negated errno value.
int WriteFrame(int fd, uint32_t id, const char *data, std::size_t size);
// Waits while the FIFO is full.
int WriteFrameWaiting(int fd, uint32_t id, const char *data, std::size_t size);
bool ReadFrame(int fd, Message &message);

} // namespace bench

#endif // TARVO_BENCH_PROCESS_FLOORFRAME_H
