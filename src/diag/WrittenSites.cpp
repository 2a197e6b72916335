#include "diag/WrittenSites.h"

#include <atomic>
#include <cstddef>
#include <cstring>

namespace {

struct Site {
    uint32_t generation; // of the process that wrote; 0: free, or being changed
    int line;
    int64_t second;
    char file[40];
};
constexpr std::size_t SITES = 2; // a call whose write is refused comes by two

// Part of every thread from its start: memory may have run out when it is needed.
__thread Site sites[SITES] __attribute__((tls_model("initial-exec")));
__thread unsigned oldest __attribute__((tls_model("initial-exec")));

// Counts the forks between the first process and this one, from 1.
std::atomic<uint32_t> generation{1};

} // namespace

bool WrittenSites::WroteSince(int line, const char *file, int64_t second) {
    const uint32_t current = generation.load(std::memory_order_relaxed);
    for (const Site &site : sites) {
        if (site.generation == current && site.line == line && site.second > second &&
            std::strcmp(site.file, file) == 0) {
            return true;
        }
    }
    return false;
}

void WrittenSites::Remember(int line, const char *file, int64_t second) {
    const std::size_t length = strnlen(file, sizeof(Site::file));
    // Lines written before 1970 restrain nothing.
    if (second < 0 || length == sizeof(Site::file)) {
        return;
    }
    Site &site = sites[oldest++ % SITES];
    // A signal handler of this thread may come at any moment.
    site.generation = 0;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    site.line = line;
    site.second = second;
    std::memcpy(site.file, file, length + 1);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    site.generation = generation.load(std::memory_order_relaxed);
}

void WrittenSites::ForgetParents() { generation.fetch_add(1, std::memory_order_relaxed); }
