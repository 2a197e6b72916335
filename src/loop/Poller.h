#ifndef TARVO_LOOP_POLLER_H
#define TARVO_LOOP_POLLER_H

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <vector>

#include "base/UniqueFd.h"

// What is told of events. Owns: nothing. Threads: that of the loop. Locks: none. Ends: unwatched.
class Watcher {
public:
    Watcher() = default;
    virtual ~Watcher() = default;
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;

    // `events` of the descriptor that it had called `what`. Calls no callback of the user.
    virtual void OnEvents(uint32_t what, uint32_t events) = 0;
};

// The place of a descriptor in a Poller; none as long as `fd` is -1.
// Owns: nothing. Threads: that of the loop. Locks: none. Ends: after Poller::Remove().
struct Watch {
    int fd = -1;
    uint32_t place = 0;
    bool Active() const { return fd >= 0; }
};

// An epoll set whose events carry the identity of a registration: what comes of one that is over finds nobody, also
// when its descriptor's number or its memory is somebody else's by then.
// Owns: the epoll set. Threads: one, any for Wait(). Locks: none. Ends: any time; the descriptors are the watchers'.
class Poller {
public:
    // 0 or a negated errno.
    int Init();
    int Fd() const { return fd.Get(); }

    // Level-triggered. 0, or a negated errno with `watch` untouched.
    int Add(int watched, uint32_t events, Watcher &watcher, uint32_t what, Watch &watch);
    int Modify(const Watch &watch, uint32_t events);
    // Before the descriptor is closed: a copy in another process would keep the registration alive.
    void Remove(Watch &watch);

    // What a wait has found: that many events, or a negated errno.
    struct Ready {
        std::array<epoll_event, 64> events;
        int count = 0;
    };

    // Waits at most `timeoutMs`; negative: no limit. Any thread, also while another one changes what is watched.
    void Wait(Ready &ready, int timeoutMs) const;
    // Tells the watchers. Returns 0 or a negated errno.
    int Tell(const Ready &ready);

private:
    struct Place {
        Watcher *watcher = nullptr;
        uint32_t what = 0;
        uint32_t generation = 0;
    };

    uint64_t IdentityOf(uint32_t place) const;
    void Tell(const epoll_event &event);

    UniqueFd fd;
    std::vector<Place> places;
    std::vector<uint32_t> freePlaces;
};

#endif // TARVO_LOOP_POLLER_H
