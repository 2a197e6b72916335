#include "fuzz/Target.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <string>

#include "support/Names.h"

namespace tarvo_test {

namespace {

constexpr std::size_t KEPT_LINES = 40;
constexpr std::size_t LINE_SIZE = 256;
constexpr long LONG_SLEEP_NS = 100000000;

// The last lines that the library has logged. Never destroyed, like everything here: threads log while statics die.
struct Log {
    std::mutex mutex;
    std::array<std::array<char, LINE_SIZE>, KEPT_LINES> lines{};
    std::size_t written = 0;
};

Log &TheLog() {
    static auto *const log = new Log;
    return *log;
}

struct Sleepers {
    std::mutex mutex;
    std::condition_variable woken;
    unsigned round = 0;
};

Sleepers &TheSleepers() {
    static auto *const sleepers = new Sleepers;
    return *sleepers;
}

void SleepUntilWoken(const timespec &time) {
    Sleepers &sleepers = TheSleepers();
    std::unique_lock<std::mutex> lock(sleepers.mutex);
    const unsigned round = sleepers.round;
    sleepers.woken.wait_for(lock, std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec),
                            [&] { return sleepers.round != round; });
}

// Calls it with the number of each open descriptor and what it leads to. Not for anonymous pipes: those lead to a
// symbolizer that libFuzzer starts when it likes; the library has none.
template <typename Visitor>
void ForEachDescriptor(Visitor visit) {
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        std::perror("/proc/self/fd");
        std::abort();
    }
    const std::string own = std::to_string(dirfd(directory));
    while (const dirent *entry = readdir(directory)) {
        std::array<char, LINE_SIZE> target{};
        const ssize_t length = readlinkat(dirfd(directory), entry->d_name, target.data(), target.size() - 1);
        if (length > 0 && std::strncmp(target.data(), "pipe:", 5) != 0 && own != entry->d_name) {
            visit(entry->d_name, target.data());
        }
    }
    closedir(directory);
}

void PrintLog() {
    Log &log = TheLog();
    const std::unique_lock<std::mutex> lock(log.mutex, std::try_to_lock);
    for (std::size_t i = log.written < KEPT_LINES ? 0 : log.written - KEPT_LINES; i < log.written; ++i) {
        std::fprintf(stderr, "  %s\n", log.lines[i % KEPT_LINES].data());
    }
}

// What a raw peer throws that waits in vain says little without what the library has said.
[[noreturn]] void EndUncaught() {
    try {
        std::rethrow_exception(std::current_exception());
    } catch (const std::exception &thrown) {
        tarvo_test::Require(false, thrown.what());
    }
    std::abort();
}

// As every user of the library must.
__attribute__((constructor)) void Prepare() {
    std::signal(SIGPIPE, SIG_IGN);
    std::set_terminate(EndUncaught);
    FifoDirectory();
    RemoveOwnFifoFiles();
    std::atexit(RemoveOwnFifoFiles);
}

} // namespace

void Require(bool kept, const char *promise) {
    if (kept) {
        return;
    }
    std::fprintf(stderr, "Broken promise: %s. The open descriptors:\n", promise);
    ForEachDescriptor([](const char *fd, const char *target) { std::fprintf(stderr, "  %s %s\n", fd, target); });
    std::fprintf(stderr, "The last log lines:\n");
    PrintLog();
    RemoveOwnFifoFiles();
    std::abort();
}

void Await(const char *promise, const std::function<bool()> &condition) {
    const auto end = std::chrono::steady_clock::now() + WAIT_LIMIT;
    for (unsigned round = 0; !condition(); ++round) {
        Require(std::chrono::steady_clock::now() < end, promise);
        // What is waited for announces itself by no event; leave the processor to it.
        const timespec pause{0, round < 20 ? 0 : 1000000};
        syscall(SYS_nanosleep, &pause, nullptr);
    }
}

void WakeSleepers() {
    Sleepers &sleepers = TheSleepers();
    {
        const std::lock_guard<std::mutex> lock(sleepers.mutex);
        ++sleepers.round;
    }
    sleepers.woken.notify_all();
}

std::size_t DescriptorCount() {
    std::size_t count = 0;
    ForEachDescriptor([&count](const char *, const char *) { ++count; });
    return count;
}

} // namespace tarvo_test

// In front of the C library's: nothing reaches the machine's log.
extern "C" void syslog(int, const char *format, ...) {
    tarvo_test::Log &log = tarvo_test::TheLog();
    va_list arguments;
    va_start(arguments, format);
    {
        const std::lock_guard<std::mutex> lock(log.mutex);
        auto &line = log.lines[log.written % tarvo_test::KEPT_LINES];
        ++log.written;
        const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
        if (length >= static_cast<int>(tarvo_test::LINE_SIZE)) {
            std::fprintf(stderr, "A log line of %d characters\n", length);
            std::abort();
        }
    }
    va_end(arguments);
}

// What the library sleeps with. Sleeping on the system call keeps every other thread's sleep as it is.
extern "C" int nanosleep(const timespec *time, timespec *left) {
    if (time->tv_sec == 0 && time->tv_nsec < tarvo_test::LONG_SLEEP_NS) {
        return static_cast<int>(syscall(SYS_nanosleep, time, left));
    }
    tarvo_test::SleepUntilWoken(*time);
    return 0;
}
