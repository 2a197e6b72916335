// What the floors under the bridge share: bytes in and out of FIFOs.
#ifndef TARVO_BENCH_BRIDGE_FLOOR_H
#define TARVO_BENCH_BRIDGE_FLOOR_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tarvo_bench {

constexpr std::size_t BUFFER = 65536;

inline int Checked(int result, const char *what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
    return result;
}

// Both ways without waiting for the other side: a FIFO that is held open for both never hangs up.
inline int OpenFifo(const char *path) { return Checked(open(path, O_RDWR | O_CLOEXEC), path); }

inline void WriteAll(int fd, const char *bytes, std::size_t size) {
    while (size > 0) {
        const int written = Checked(static_cast<int>(write(fd, bytes, size)), "write");
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
}

inline std::size_t ReadSome(int fd, char *bytes, std::size_t size) {
    return static_cast<std::size_t>(Checked(static_cast<int>(read(fd, bytes, size)), "read"));
}

} // namespace tarvo_bench

#endif // TARVO_BENCH_BRIDGE_FLOOR_H
