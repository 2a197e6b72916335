#include "loop/Poller.h"

#include <cerrno>
#include <cstddef>
#include <new>

#include "diag/velm_syslog.h"

namespace {

constexpr char LOG_TAG[] = "Poller";
constexpr unsigned GENERATION_SHIFT = 32;

} // namespace

int Poller::Init() {
    fd = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    return fd.Get() < 0 ? -errno : 0;
}

uint64_t Poller::IdentityOf(uint32_t place) const {
    return uint64_t{places[place].generation} << GENERATION_SHIFT | place;
}

int Poller::Add(int watched, uint32_t events, Watcher &watcher, uint32_t what, Watch &watch) {
    try {
        if (freePlaces.empty()) {
            // Room for the way back, which must not fail.
            freePlaces.reserve(places.size() + 1);
            places.emplace_back();
            freePlaces.push_back(static_cast<uint32_t>(places.size() - 1));
        }
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
    const uint32_t place = freePlaces.back();
    epoll_event event{};
    event.events = events;
    event.data.u64 = IdentityOf(place);
    if (epoll_ctl(fd.Get(), EPOLL_CTL_ADD, watched, &event) != 0) {
        const int error = errno;
        TARVO_LOG(LOG_ERR, "Insert fd=%d to epoll-fd=%d failed, errno=%d.", watched, fd.Get(), error);
        return -error;
    }
    freePlaces.pop_back();
    places[place].watcher = &watcher;
    places[place].what = what;
    watch = {watched, place};
    return 0;
}

int Poller::Modify(const Watch &watch, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = IdentityOf(watch.place);
    return epoll_ctl(fd.Get(), EPOLL_CTL_MOD, watch.fd, &event) == 0 ? 0 : -errno;
}

void Poller::Remove(Watch &watch) {
    if (!watch.Active()) {
        return;
    }
    epoll_ctl(fd.Get(), EPOLL_CTL_DEL, watch.fd, nullptr);
    Place &place = places[watch.place];
    place.watcher = nullptr;
    ++place.generation;
    freePlaces.push_back(watch.place);
    watch = {};
}

void Poller::Wait(Ready &ready, int timeoutMs) const {
    ready.count = epoll_wait(fd.Get(), ready.events.data(), static_cast<int>(ready.events.size()), timeoutMs);
    if (ready.count < 0) {
        ready.count = errno == EINTR ? 0 : -errno;
    }
}

int Poller::Tell(const Ready &ready) {
    if (ready.count < 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Epoll_wait failed, errno = %d.", -ready.count);
        return ready.count;
    }
    for (int i = 0; i < ready.count; ++i) {
        Tell(ready.events[static_cast<std::size_t>(i)]);
    }
    return 0;
}

void Poller::Tell(const epoll_event &event) {
    const auto index = static_cast<uint32_t>(event.data.u64);
    const Place place = places[index];
    if (place.watcher != nullptr && place.generation == event.data.u64 >> GENERATION_SHIFT) {
        place.watcher->OnEvents(place.what, event.events);
    }
}
