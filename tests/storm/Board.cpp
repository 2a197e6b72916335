#include "storm/Board.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <new>

#include "support/TimedWaits.h"

namespace storm {

SharedMemory::SharedMemory(std::size_t bytes)
    : size(bytes), address(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    if (address == MAP_FAILED) {
        throw std::bad_alloc();
    }
}

SharedMemory::~SharedMemory() { munmap(address, size); }

int64_t Now() { return tarvo_test::detail::RealNow(CLOCK_MONOTONIC); }

void Board::Set(Command next) {
    command = static_cast<uint32_t>(next);
    syscall(SYS_futex, &command, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

void Board::AwaitOther(Command current) const {
    while (Get() == current) {
        syscall(SYS_futex, &command, FUTEX_WAIT, static_cast<uint32_t>(current), nullptr, nullptr, 0);
    }
}

} // namespace storm
