#include "FloorFrame.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace bench {

namespace {

constexpr uint32_t MAGIC = 0xA6B7C8D9U;

// Compiled with -O3, so that this loop is vectorised.
uint32_t Checksum(const Head &head, const char *data) {
    uint32_t sum = head.magic + head.id + head.type + head.length;
    for (uint32_t i = 0; i < head.length; ++i) {
        sum += static_cast<uint8_t>(data[i]);
    }
    return sum;
}

// C++17's make_unique clears what it makes.
std::unique_ptr<char[]> Buffer(std::size_t size) {
    return FLOOR_WITH_SEMAPHORES ? std::unique_ptr<char[]>(new char[size]) : std::make_unique<char[]>(size);
}

uint64_t SendTime() {
    timespec now{};
    if (!FLOOR_WITH_SEMAPHORES) {
        clock_gettime(CLOCK_MONOTONIC, &now);
    }
    return static_cast<uint64_t>(now.tv_nsec);
}

void AwaitRoom(int fd) {
    if (!FLOOR_WITH_SEMAPHORES) {
        sched_yield();
        return;
    }
    pollfd event{fd, POLLOUT, 0};
    poll(&event, 1, -1);
}

} // namespace

std::string FloorPath(const std::string &name, const char *suffix) { return "/dev/shm/" + name + suffix; }

int OpenOrThrow(const std::string &path, int flags) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("open " + path);
    }
    return fd;
}

void MakeFifo(const std::string &path) {
    if (mkfifo(path.c_str(), 0600) != 0) {
        throw std::runtime_error("mkfifo " + path);
    }
}

void Watch(int epollFd, int fd, void *context) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = context;
    epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
}

int WriteFrame(int fd, uint32_t id, const char *data, std::size_t size) {
    const std::unique_ptr<char[]> frame = Buffer(sizeof(Head) + size);
    Head head{MAGIC, id, 0, static_cast<uint32_t>(size), 0, 0, SendTime()};
    head.checksum = Checksum(head, data);
    std::memcpy(frame.get(), &head, sizeof(head));
    std::memcpy(frame.get() + sizeof(head), data, size);
    return write(fd, frame.get(), sizeof(head) + size) < 0 ? -errno : 0;
}

int WriteFrameWaiting(int fd, uint32_t id, const char *data, std::size_t size) {
    int ret = WriteFrame(fd, id, data, size);
    while (ret == -EAGAIN) {
        AwaitRoom(fd);
        ret = WriteFrame(fd, id, data, size);
    }
    return ret;
}

bool ReadFrame(int fd, Message &message) {
    if (read(fd, &message.head, sizeof(message.head)) != static_cast<ssize_t>(sizeof(message.head))) {
        return false;
    }
    message.data = Buffer(message.head.length);
    return read(fd, message.data.get(), message.head.length) == static_cast<ssize_t>(message.head.length) &&
           Checksum(message.head, message.data.get()) == message.head.checksum;
}

} // namespace bench
