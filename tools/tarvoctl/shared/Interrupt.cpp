#include "shared/Interrupt.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

namespace tarvoctl {
namespace {

void Raise(int eventFd) {
    const uint64_t one = 1;
    // A counter of zero always takes one more.
    if (write(eventFd, &one, sizeof(one)) < 0) {
        std::abort();
    }
}

} // namespace

Interrupt::Interrupt() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signo);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    requestFd = UniqueFd(eventfd(0, EFD_CLOEXEC));
    endFd = UniqueFd(eventfd(0, EFD_CLOEXEC));
    signalFd = UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC));
    if (requestFd.Get() < 0 || endFd.Get() < 0 || signalFd.Get() < 0) {
        throw std::system_error(errno, std::generic_category(), "no descriptor for signals");
    }
    watcher = std::thread([this] { Watch(); });
}

Interrupt::~Interrupt() {
    Raise(endFd.Get());
    watcher.join();
}

void Interrupt::Watch() {
    std::array<pollfd, 2> entries = {{{signalFd.Get(), POLLIN, 0}, {endFd.Get(), POLLIN, 0}}};
    while (entries[1].revents == 0) {
        if (poll(entries.data(), entries.size(), -1) < 0 || entries[0].revents == 0) {
            continue;
        }
        signalfd_siginfo info{};
        if (read(signalFd.Get(), &info, sizeof(info)) != sizeof(info) || requested.exchange(true)) {
            continue;
        }
        Raise(requestFd.Get());
        const std::lock_guard<std::mutex> lock(mutex);
        if (onRequest) {
            onRequest();
        }
    }
}

bool Interrupt::WaitFor(std::chrono::microseconds duration) const {
    const auto end = std::chrono::steady_clock::now() + duration;
    pollfd entry = {requestFd.Get(), POLLIN, 0};
    while (!requested) {
        const auto left = end - std::chrono::steady_clock::now();
        if (left <= std::chrono::nanoseconds(0)) {
            return requested;
        }
        const auto nanoseconds = std::chrono::nanoseconds(left).count();
        const timespec limit = {nanoseconds / 1000000000, nanoseconds % 1000000000};
        ppoll(&entry, 1, &limit, nullptr);
    }
    return true;
}

void Interrupt::OnRequest(std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(mutex);
    onRequest = std::move(action);
    if (requested && onRequest) {
        onRequest();
    }
}

} // namespace tarvoctl
