#include "support/FileFaults.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>

#include "support/Interpose.h"

namespace tarvo_test {

namespace {

struct Plan {
    std::atomic<unsigned> passes{0}; // how many calls are made before the first that fails
    std::atomic<int> error{0};
};

std::array<Plan, static_cast<std::size_t>(FileCall::Count)> plans;

Plan &PlanOf(FileCall call) { return plans[static_cast<std::size_t>(call)]; }

bool FailsNow(FileCall call) {
    Plan &plan = PlanOf(call);
    const int error = plan.error;
    if (error == 0) {
        return false;
    }
    if (plan.passes > 0) {
        --plan.passes;
        return false;
    }
    errno = error;
    return true;
}

// A sanitizer maps memory while it gets ready, with locks held that the look-up of the next mmap() would take again.
std::atomic<bool> started{false};
__attribute__((constructor)) void Start() { started = true; }

} // namespace

FileFault::FileFault(FileCall failing, int error, unsigned nth) : call(failing) {
    PlanOf(call).passes = nth - 1;
    PlanOf(call).error = error;
}

FileFault::~FileFault() { PlanOf(call).error = 0; }

} // namespace tarvo_test

using tarvo_test::Call;
using tarvo_test::CallInfo;
using tarvo_test::FailsNow;
using tarvo_test::FileCall;

extern "C" {

int openat(int directory, const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    CallInfo info{Call::Open};
    info.path = path;
    info.fd = directory;
    info.number = flags;
    info.size = mode;
    return tarvo_test::detail::Forward<int>(info, [&] { return TARVO_NEXT(openat)(directory, path, flags, mode); });
}

ssize_t pread(int fd, void *buffer, size_t size, off_t offset) {
    CallInfo info{Call::Read};
    info.fd = fd;
    info.data = buffer;
    info.size = size;
    info.number = static_cast<int>(offset);
    return tarvo_test::detail::Forward<ssize_t>(info, [&] { return TARVO_NEXT(pread)(fd, buffer, size, offset); });
}

void *mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
    if (fd >= 0 && FailsNow(FileCall::Mmap)) {
        return MAP_FAILED;
    }
    if (!tarvo_test::started) {
        return reinterpret_cast<void *>(syscall(SYS_mmap, address, size, protection, flags, fd, offset));
    }
    return TARVO_NEXT(mmap)(address, size, protection, flags, fd, offset);
}

DIR *fdopendir(int fd) { return FailsNow(FileCall::Fdopendir) ? nullptr : TARVO_NEXT(fdopendir)(fd); }

struct dirent *readdir(DIR *stream) {
    return FailsNow(FileCall::Readdir) ? nullptr : TARVO_NEXT(readdir)(stream);
}

} // extern "C"
