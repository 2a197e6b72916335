#include "loop/Posts.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include "loop/Loop.h"

int Posts::Init() {
    fd = UniqueFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    return fd.Get() < 0 ? -errno : 0;
}

int Posts::Add(void (*function)(void *), void *context) {
    try {
        MutexLock lock(mutex);
        incoming.push_back({function, context});
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    return 0;
}

int Posts::Post(void (*function)(void *), void *context) {
    MutexLock lock(mutex);
    try {
        incoming.push_back({function, context});
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    const int ret = Wake();
    if (ret != 0) {
        incoming.pop_back();
    }
    return ret;
}

int Posts::Wake() {
    if (signalled.exchange(true)) {
        return 0;
    }
    const int before = errno;
    const uint64_t one = 1;
    int ret = 0;
    if (write(fd.Get(), &one, sizeof(one)) < 0) {
        ret = -errno;
        signalled.store(false);
    }
    errno = before;
    return ret;
}

void Posts::Clear() {
    uint64_t count = 0;
    const ssize_t cleared = read(fd.Get(), &count, sizeof(count));
    static_cast<void>(cleared);
    signalled.exchange(false);
}

bool Posts::HasAny() {
    if (position < taken.size()) {
        return true;
    }
    MutexLock lock(mutex);
    return !incoming.empty();
}

bool Posts::Refill() {
    taken.clear();
    position = 0;
    MutexLock lock(mutex);
    taken.swap(incoming);
    return !taken.empty();
}

bool Posts::Serve(int share, int &ran) {
    if (position == taken.size() && !Refill()) {
        return false;
    }
    while (ran < share && position < taken.size() && !loop.Interrupted()) {
        const Posted posted = taken[position++];
        ++ran;
        posted.function(posted.context);
    }
    const bool more = position < taken.size();
    if (!more && HasAny()) {
        loop.Queue(*this);
    }
    return more;
}
