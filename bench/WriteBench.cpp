// A frame into a FIFO and out again: head and payload copied into one block and written from there, as the library
// does, or written from where they are by `writev`.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t HEAD_SIZE = 32;

// Both ends of a FIFO without a name. -1: there is none.
int OpenFifo() {
    const std::string path = "/dev/shm/tarvo_bench_write_" + std::to_string(getpid());
    if (mkfifo(path.c_str(), 0600) != 0) {
        return -1;
    }
    const int fifo = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    unlink(path.c_str());
    return fifo;
}

ssize_t WriteCopy(int fifo, const char *head, const std::string &payload) {
    const std::size_t size = HEAD_SIZE + payload.size();
    const std::unique_ptr<char[]> frame(new char[size]);
    std::memcpy(frame.get(), head, HEAD_SIZE);
    std::memcpy(frame.get() + HEAD_SIZE, payload.data(), payload.size());
    return write(fifo, frame.get(), size);
}

ssize_t WriteParts(int fifo, char *head, std::string &payload) {
    const iovec parts[] = {{head, HEAD_SIZE}, {payload.data(), payload.size()}};
    return writev(fifo, parts, 2);
}

template <typename Write>
void Measure(benchmark::State &state, Write writeFrame) {
    static const int fifo = OpenFifo();
    std::string payload(static_cast<std::size_t>(state.range(0)), '\xA5');
    char head[HEAD_SIZE] = {};
    std::vector<char> room(HEAD_SIZE + payload.size());
    for (auto _ : state) {
        const ssize_t size = static_cast<ssize_t>(room.size());
        if (writeFrame(fifo, head, payload) != size || read(fifo, room.data(), room.size()) != size) {
            state.SkipWithError("the frame did not go through the FIFO");
            return;
        }
    }
}

void FrameWritten(benchmark::State &state) { Measure(state, WriteCopy); }
void FrameWrittenInParts(benchmark::State &state) { Measure(state, WriteParts); }
BENCHMARK(FrameWritten)->Arg(64)->Arg(1000)->Arg(4000);
BENCHMARK(FrameWrittenInParts)->Arg(64)->Arg(1000)->Arg(4000);

} // namespace
