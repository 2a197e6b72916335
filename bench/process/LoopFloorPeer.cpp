// The floor of loops: the least program that answers calls on one thread a side over our frames. A FIFO each way, one
// epoll set, large reads, a checksum, and one write for what a round has to say. No log, no table, no time-outs, no
// arguments checked, nothing that copes with trouble.
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Contestant.h"
#include "FloorFrame.h"

namespace bench {

namespace {

constexpr uint32_t MAGIC = 0xA6B7C8D9U;
constexpr uint32_t REQUEST = 0;
constexpr uint32_t RESPONSE = 1;
constexpr std::size_t READ_SIZE = 65536;
constexpr std::size_t LONGEST = sizeof(Head) + MAX_PAYLOAD;

uint32_t Sum(const Head &head, const char *data) {
    uint32_t sum = head.magic + head.id + head.type + head.length;
    for (uint32_t i = 0; i < head.length; ++i) {
        sum += static_cast<uint8_t>(data[i]);
    }
    return sum;
}

uint64_t Microseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// Frames for one write. Owns: nothing but its bytes. Threads: one. Ends: any time.
class Batch {
public:
    bool Fits(std::size_t size) const { return used + sizeof(Head) + size <= PIPE_BUF; }
    void Add(uint32_t id, uint32_t type, const char *data, std::size_t size) {
        Head head{MAGIC, id, type, static_cast<uint32_t>(size), 0, UINT32_MAX, Microseconds()};
        head.checksum = Sum(head, data);
        std::memcpy(bytes + used, &head, sizeof(head));
        std::memcpy(bytes + used + sizeof(head), data, size);
        used += sizeof(head) + size;
    }
    bool Write(int fd) {
        while (used > 0 && write(fd, bytes, used) < 0) {
            pollfd room{fd, POLLOUT, 0};
            if (errno != EAGAIN || poll(&room, 1, -1) < 0) {
                return false;
            }
        }
        used = 0;
        return true;
    }

private:
    std::size_t used = 0;
    char bytes[PIPE_BUF];
};

// The frames of large reads. Owns: its bytes. Threads: one. Ends: any time.
class Frames {
public:
    // False at the end.
    template <typename Handler>
    bool Read(int fd, Handler handle) {
        const ssize_t count = read(fd, bytes.get() + rest, READ_SIZE);
        if (count <= 0) {
            return count < 0 && errno == EAGAIN;
        }
        std::size_t at = 0;
        const std::size_t end = rest + static_cast<std::size_t>(count);
        while (end - at >= sizeof(Head)) {
            Head head;
            std::memcpy(&head, bytes.get() + at, sizeof(head));
            if (end - at < sizeof(head) + head.length) {
                break;
            }
            const char *const data = bytes.get() + at + sizeof(head);
            at += sizeof(head) + head.length;
            if (head.magic == MAGIC && head.checksum == Sum(head, data)) {
                handle(head, data);
            }
        }
        rest = end - at;
        std::memmove(bytes.get(), bytes.get() + at, rest);
        return true;
    }

private:
    std::size_t rest = 0;
    std::unique_ptr<char[]> bytes{new char[READ_SIZE + LONGEST]};
};

// ---- The server ----

class LoopFloorServer : public Server {
public:
    explicit LoopFloorServer(const std::string &endpoint) : path(FloorPath(endpoint, "")) {
        MakeFifo(path);
        clientsFd = OpenOrThrow(path, O_RDWR | O_NONBLOCK);
        epollFd = epoll_create1(EPOLL_CLOEXEC);
        Watch(epollFd, clientsFd, nullptr);
    }
    ~LoopFloorServer() override { unlink(path.c_str()); }

    void Run(int stop) override {
        Watch(epollFd, stop, this);
        for (;;) {
            epoll_event events[FLOOR_EVENTS];
            const int count = epoll_wait(epollFd, events, FLOOR_EVENTS, -1);
            for (int i = 0; i < count; ++i) {
                if (events[i].data.ptr == this) {
                    return;
                }
                events[i].data.ptr == nullptr ? Accept() : Serve(static_cast<Pipe *>(events[i].data.ptr));
            }
        }
    }

private:
    struct Pipe {
        int in;
        int out;
        Frames frames;
        Batch batch;
    };

    void Accept() {
        char name[FLOOR_NAME_SIZE];
        while (read(clientsFd, name, sizeof(name)) == static_cast<ssize_t>(sizeof(name))) {
            auto pipe = std::make_unique<Pipe>();
            pipe->in = OpenOrThrow(FloorPath(name, ".in"), O_RDONLY | O_NONBLOCK);
            pipe->out = OpenOrThrow(FloorPath(name, ".out"), O_WRONLY | O_NONBLOCK);
            Watch(epollFd, pipe->in, pipe.get());
            Pipe *const key = pipe.get();
            pipes[key] = std::move(pipe);
        }
    }

    void Serve(Pipe *pipe) {
        const bool open = pipe->frames.Read(pipe->in, [pipe](const Head &head, const char *data) {
            const Answer answer = HandleMessage(data, head.length);
            if (answer.size == 0) {
                return;
            }
            if (!pipe->batch.Fits(answer.size)) {
                pipe->batch.Write(pipe->out);
            }
            pipe->batch.Add(head.id, RESPONSE, answer.data, answer.size);
        });
        if (!pipe->batch.Write(pipe->out) || !open) {
            close(pipe->in);
            close(pipe->out);
            pipes.erase(pipe);
        }
    }

    const std::string path;
    int clientsFd = -1;
    int epollFd = -1;
    std::map<Pipe *, std::unique_ptr<Pipe>> pipes;
};

// ---- The client ----

class LoopFloorClient : public Client {
public:
    explicit LoopFloorClient(const Place &place)
        : outPath(FloorPath(place.self, ".in")), inPath(FloorPath(place.self, ".out")) {
        MakeFifo(outPath);
        MakeFifo(inPath);
        in = OpenOrThrow(inPath, O_RDONLY | O_NONBLOCK);
        // A reader until the server reads.
        const int reader = OpenOrThrow(outPath, O_RDONLY | O_NONBLOCK);
        out = OpenOrThrow(outPath, O_WRONLY | O_NONBLOCK);
        epollFd = epoll_create1(EPOLL_CLOEXEC);
        char name[FLOOR_NAME_SIZE] = {};
        place.self.copy(name, sizeof(name) - 1);
        const int server = OpenOrThrow(FloorPath(place.endpoint, ""), O_WRONLY);
        const bool told = write(server, name, sizeof(name)) == static_cast<ssize_t>(sizeof(name));
        close(server);
        // The answer to a first call shows that the server reads.
        uint64_t word = 0;
        const char echo = OP_ECHO;
        Watch(epollFd, in, nullptr);
        if (!told || !Call(0, &echo, 1, word)) {
            throw std::runtime_error("no server");
        }
        close(reader);
    }
    ~LoopFloorClient() override {
        close(in);
        close(out);
        close(epollFd);
        unlink(outPath.c_str());
        unlink(inPath.c_str());
    }

    bool Send(const char *data, std::size_t size) override { return Start(0, data, size); }
    bool Flush() override { return batch.Write(out); }

    bool Start(uint64_t token, const char *data, std::size_t size) override {
        if (!batch.Fits(size) && !batch.Write(out)) {
            return false;
        }
        batch.Add(static_cast<uint32_t>(token), REQUEST, data, size);
        return true;
    }

    bool Await(std::vector<Answered> &answers, int64_t until) override {
        if (!batch.Write(out)) {
            return false;
        }
        const std::size_t before = answers.size();
        while (answers.size() == before) {
            const int64_t left = (until - static_cast<int64_t>(Microseconds()) * 1000) / 1000000;
            epoll_event event;
            if (epoll_wait(epollFd, &event, 1, until == NO_LIMIT ? -1 : static_cast<int>(left < 0 ? 0 : left)) == 0) {
                return true;
            }
            if (!frames.Read(in, [&answers](const Head &head, const char *data) {
                    answers.push_back({head.id, FirstWord(data, head.length)});
                })) {
                return false;
            }
        }
        return true;
    }

private:
    const std::string outPath;
    const std::string inPath;
    int in = -1;
    int out = -1;
    int epollFd = -1;
    Frames frames;
    Batch batch;
};

} // namespace

Contestant TheContestant() {
    return {
        "loop-floor",
        "bare program of one thread a side: our frames, one epoll set, one write a round",
        "",
        ONE_WAY | WINDOW | MANY_CLIENTS | MANY_PIPES,
        "loop",
        true,
        [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<LoopFloorServer>(place.endpoint); },
        [](const Place &place) -> std::unique_ptr<Client> { return std::make_unique<LoopFloorClient>(place); }};
}

} // namespace bench
