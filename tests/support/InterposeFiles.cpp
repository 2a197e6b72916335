// Files, descriptors and epoll.
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>

#include "support/Interpose.h"

using tarvo_test::Call;
using tarvo_test::CallInfo;
using tarvo_test::detail::Forward;

namespace {

CallInfo PathCall(Call call, const char *path, int number = 0, std::size_t size = 0) {
    CallInfo info{call};
    info.path = path;
    info.number = number;
    info.size = size;
    return info;
}

CallInfo FdCall(Call call, int fd, int number = 0) {
    CallInfo info{call};
    info.fd = fd;
    info.number = number;
    return info;
}

CallInfo TransferCall(Call call, int fd, const void *buffer, std::size_t size) {
    CallInfo info = FdCall(call, fd);
    info.data = const_cast<void *>(buffer);
    info.size = size;
    return info;
}

int OpenNext(const char *path, int flags, mode_t mode) {
    return Forward<int>(PathCall(Call::Open, path, flags, mode), [&] { return TARVO_NEXT(open)(path, flags, mode); });
}

bool TakesMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

} // namespace

extern "C" {

int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if (TakesMode(flags)) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    return OpenNext(path, flags, mode);
}

int open64(const char *path, int flags, ...) {
    mode_t mode = 0;
    if (TakesMode(flags)) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    return OpenNext(path, flags | O_LARGEFILE, mode);
}

ssize_t read(int fd, void *buffer, size_t size) {
    return Forward<ssize_t>(TransferCall(Call::Read, fd, buffer, size),
                            [&] { return TARVO_NEXT(read)(fd, buffer, size); });
}

ssize_t write(int fd, const void *buffer, size_t size) {
    return Forward<ssize_t>(TransferCall(Call::Write, fd, buffer, size),
                            [&] { return TARVO_NEXT(write)(fd, buffer, size); });
}

int close(int fd) {
    return Forward<int>(FdCall(Call::Close, fd), [&] { return TARVO_NEXT(close)(fd); });
}

int mkfifo(const char *path, mode_t mode) noexcept {
    return Forward<int>(PathCall(Call::Mkfifo, path, static_cast<int>(mode)),
                        [&] { return TARVO_NEXT(mkfifo)(path, mode); });
}

int unlink(const char *path) noexcept {
    return Forward<int>(PathCall(Call::Unlink, path), [&] { return TARVO_NEXT(unlink)(path); });
}

int link(const char *from, const char *to) noexcept {
    CallInfo info = PathCall(Call::Link, from);
    info.path2 = to;
    return Forward<int>(info, [&] { return TARVO_NEXT(link)(from, to); });
}

int chmod(const char *path, mode_t mode) noexcept {
    return Forward<int>(PathCall(Call::Chmod, path, static_cast<int>(mode)),
                        [&] { return TARVO_NEXT(chmod)(path, mode); });
}

int chown(const char *path, uid_t owner, gid_t group) noexcept {
    return Forward<int>(PathCall(Call::Chown, path, static_cast<int>(owner), group),
                        [&] { return TARVO_NEXT(chown)(path, owner, group); });
}

int lchown(const char *path, uid_t owner, gid_t group) noexcept {
    return Forward<int>(PathCall(Call::Chown, path, static_cast<int>(owner), group),
                        [&] { return TARVO_NEXT(lchown)(path, owner, group); });
}

int fstat(int fd, struct stat *status) noexcept {
    CallInfo info = FdCall(Call::Fstat, fd);
    info.data = status;
    return Forward<int>(info, [&] { return TARVO_NEXT(fstat)(fd, status); });
}

int lstat(const char *path, struct stat *status) noexcept {
    CallInfo info = PathCall(Call::Lstat, path);
    info.data = status;
    return Forward<int>(info, [&] { return TARVO_NEXT(lstat)(path, status); });
}

int access(const char *path, int mode) noexcept {
    return Forward<int>(PathCall(Call::Access, path, mode), [&] { return TARVO_NEXT(access)(path, mode); });
}

char *realpath(const char *path, char *resolved) noexcept {
    CallInfo info = PathCall(Call::Realpath, path);
    info.data = resolved;
    return Forward<char *>(info, [&] { return TARVO_NEXT(realpath)(path, resolved); });
}

int flock(int fd, int operation) noexcept {
    return Forward<int>(FdCall(Call::Flock, fd, operation), [&] { return TARVO_NEXT(flock)(fd, operation); });
}

int fcntl(int fd, int operation, ...) {
    va_list args;
    va_start(args, operation);
    void *const argument = va_arg(args, void *); // an int comes in the same register
    va_end(args);
    return Forward<int>(FdCall(Call::Fcntl, fd, operation), [&] { return TARVO_NEXT(fcntl)(fd, operation, argument); });
}

int epoll_create(int size) noexcept {
    return Forward<int>(FdCall(Call::EpollCreate, -1, size), [&] { return TARVO_NEXT(epoll_create)(size); });
}

int epoll_create1(int flags) noexcept {
    return Forward<int>(FdCall(Call::EpollCreate, -1, flags), [&] { return TARVO_NEXT(epoll_create1)(flags); });
}

int epoll_ctl(int epollFd, int operation, int fd, struct epoll_event *event) noexcept {
    CallInfo info = FdCall(Call::EpollCtl, fd, operation);
    info.epollFd = epollFd;
    info.data = event;
    return Forward<int>(info, [&] { return TARVO_NEXT(epoll_ctl)(epollFd, operation, fd, event); });
}

int epoll_wait(int epollFd, struct epoll_event *events, int count, int timeout) {
    CallInfo info = FdCall(Call::EpollWait, -1, timeout);
    info.epollFd = epollFd;
    info.data = events;
    info.size = static_cast<size_t>(count);
    return Forward<int>(info, [&] { return TARVO_NEXT(epoll_wait)(epollFd, events, count, timeout); });
}

int poll(struct pollfd *entries, nfds_t count, int timeout) {
    CallInfo info = FdCall(Call::Poll, -1, timeout);
    info.data = entries;
    info.size = count;
    return Forward<int>(info, [&] { return TARVO_NEXT(poll)(entries, count, timeout); });
}

int ppoll(struct pollfd *entries, nfds_t count, const struct timespec *timeout, const sigset_t *signals) {
    CallInfo info = FdCall(Call::Poll, -1, timeout == nullptr ? -1 : static_cast<int>(timeout->tv_sec));
    info.data = entries;
    info.size = count;
    return Forward<int>(info, [&] { return TARVO_NEXT(ppoll)(entries, count, timeout, signals); });
}

int eventfd(unsigned int initial, int flags) noexcept {
    CallInfo info = FdCall(Call::Eventfd, -1, static_cast<int>(initial));
    info.size = static_cast<size_t>(flags);
    return Forward<int>(info, [&] { return TARVO_NEXT(eventfd)(initial, flags); });
}

int inotify_init1(int flags) noexcept {
    return Forward<int>(FdCall(Call::InotifyInit, -1, flags), [&] { return TARVO_NEXT(inotify_init1)(flags); });
}

int inotify_add_watch(int fd, const char *path, uint32_t mask) noexcept {
    CallInfo info = PathCall(Call::InotifyAddWatch, path, static_cast<int>(mask));
    info.fd = fd;
    return Forward<int>(info, [&] { return TARVO_NEXT(inotify_add_watch)(fd, path, mask); });
}

int timerfd_create(int clock, int flags) noexcept {
    return Forward<int>(FdCall(Call::TimerfdCreate, -1, flags),
                        [&] { return TARVO_NEXT(timerfd_create)(clock, flags); });
}

int timerfd_settime(int fd, int flags, const struct itimerspec *value, struct itimerspec *before) noexcept {
    return Forward<int>(FdCall(Call::TimerfdSettime, fd, flags),
                        [&] { return TARVO_NEXT(timerfd_settime)(fd, flags, value, before); });
}

} // extern "C"
