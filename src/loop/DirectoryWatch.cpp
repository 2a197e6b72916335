#include "loop/DirectoryWatch.h"

#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "loop/Loop.h"

namespace {

constexpr char LOG_TAG[] = "DirectoryWatch";
constexpr uint32_t CHANGES = IN_CREATE | IN_MOVED_TO;
constexpr std::size_t BUFFER_SIZE = 4096;

} // namespace

void DirectoryWatch::Add(FileWaiter &waiter) {
    if (!waiter.waits) {
        waiter.waits = true;
        waiter.previous = nullptr;
        waiter.next = first;
        if (first != nullptr) {
            first->previous = &waiter;
        }
        first = &waiter;
    }
    if (directory < 0) {
        Begin();
    }
}

void DirectoryWatch::Begin() {
    int ret = 0;
    if (fd.Get() < 0) {
        fd = UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        ret = fd.Get() < 0 ? -errno : 0;
    } else {
        Forget();
    }
    if (ret == 0) {
        directory = inotify_add_watch(fd.Get(), EnvManager::FifoPrefix().c_str(), CHANGES | IN_ONLYDIR);
        ret = directory < 0 ? -errno : loop.Events().Add(fd.Get(), EPOLLIN, *this, 0, watch);
    }
    if (ret != 0) {
        TARVO_LOG_RESTRAINED(LOG_WARNING, "Watch the FIFO directory failed, ret=%d: looking from time to time.", ret);
        End();
    }
}

// What came after the end of an earlier watch, and of its end.
void DirectoryWatch::Forget() {
    std::array<char, BUFFER_SIZE> buffer;
    while (read(fd.Get(), buffer.data(), buffer.size()) > 0) {
    }
}

void DirectoryWatch::Remove(FileWaiter &waiter) {
    if (!waiter.waits) {
        return;
    }
    waiter.waits = false;
    (waiter.previous != nullptr ? waiter.previous->next : first) = waiter.next;
    if (waiter.next != nullptr) {
        waiter.next->previous = waiter.previous;
    }
    if (first == nullptr) {
        End();
    }
}

void DirectoryWatch::End() {
    loop.Events().Remove(watch);
    // Closing the descriptor would wait for all processors: many milliseconds.
    if (directory >= 0) {
        inotify_rm_watch(fd.Get(), directory);
    }
    directory = -1;
}

void DirectoryWatch::Tell(std::string_view name) {
    FileWaiter *waiter = first;
    while (waiter != nullptr) {
        // It may not wait any more after that; the others still do.
        FileWaiter *const next = waiter->next;
        waiter->OnFileChanged(name);
        waiter = next;
    }
}

void DirectoryWatch::OnEvents(uint32_t /*what*/, uint32_t /*events*/) {
    alignas(inotify_event) std::array<char, BUFFER_SIZE> buffer;
    const ssize_t size = read(fd.Get(), buffer.data(), buffer.size());
    // Nobody may wait any more after one of them.
    for (ssize_t at = 0; at < size && first != nullptr;) {
        inotify_event event{};
        std::memcpy(&event, buffer.data() + at, sizeof(event));
        const char *const name = buffer.data() + at + sizeof(event);
        at += static_cast<ssize_t>(sizeof(event) + event.len);
        if ((event.mask & IN_IGNORED) != 0 && event.wd == directory) {
            // The directory is gone. Another one that takes its name is watched when the next one waits.
            directory = -1;
            End();
        }
        // An overflow has no name, and concerns everybody.
        Tell(event.len > 0 ? std::string_view(name) : std::string_view());
    }
}
