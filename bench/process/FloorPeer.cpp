// The floor: the least code that does what a call of the library does. The same topology (a FIFO each way, an epoll
// thread in each process, callbacks on a worker of the pipe), two reads and one write a message, a checksum and a heap
// buffer for each, a mutex and a condition variable where one thread hands over to another, the notification after the
// unlock. No log, no table, no time-outs, no arguments checked, nothing that copes with trouble.
#include <fcntl.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Contestant.h"

namespace bench {

namespace {

constexpr int MAX_EVENTS = 64;
constexpr std::size_t NAME_SIZE = 64;

struct Head {
    uint32_t magic;
    uint32_t id;
    uint32_t type;
    uint32_t length;
    uint32_t checksum;
    uint32_t timeout;
    uint64_t time;
};

struct Message {
    Head head{};
    std::unique_ptr<char[]> data;
};

std::string Path(const std::string &name, const char *suffix) { return "/dev/shm/" + name + suffix; }

int OpenOrThrow(const std::string &path, int flags) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("open " + path);
    }
    return fd;
}

// Compiled with -O3, so that this loop is vectorised.
uint32_t Checksum(const Head &head, const char *data) {
    uint32_t sum = head.magic + head.id + head.type + head.length;
    for (uint32_t i = 0; i < head.length; ++i) {
        sum += static_cast<uint8_t>(data[i]);
    }
    return sum;
}

int WriteFrame(int fd, uint32_t id, uint32_t type, const char *data, std::size_t size) {
    const auto frame = std::make_unique<char[]>(sizeof(Head) + size);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    Head head{0xA6B7C8D9U, id, type, static_cast<uint32_t>(size), 0, 0, static_cast<uint64_t>(now.tv_nsec)};
    head.checksum = Checksum(head, data);
    std::memcpy(frame.get(), &head, sizeof(head));
    std::memcpy(frame.get() + sizeof(head), data, size);
    return write(fd, frame.get(), sizeof(head) + size) < 0 ? -errno : 0;
}

bool ReadFrame(int fd, Message &message) {
    if (read(fd, &message.head, sizeof(message.head)) != static_cast<ssize_t>(sizeof(message.head))) {
        return false;
    }
    message.data = std::make_unique<char[]>(message.head.length);
    return read(fd, message.data.get(), message.head.length) == static_cast<ssize_t>(message.head.length) &&
           Checksum(message.head, message.data.get()) == message.head.checksum;
}

void Watch(int epollFd, int fd, void *context) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = context;
    epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
}

// One client as the server sees it, with the worker that runs its callbacks.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    explicit Connection(const std::string &client)
        : writeFd(OpenOrThrow(Path(client, ".in"), O_WRONLY | O_NONBLOCK)),
          readFd(OpenOrThrow(Path(client, ".out"), O_RDONLY | O_NONBLOCK)) {}
    ~Connection() {
        close(readFd);
        close(writeFd);
    }

    void Start() {
        std::thread([self = shared_from_this()] { self->Work(); }).detach();
    }

    void Post(Message message) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            queue.push_back(std::move(message));
        }
        wake.notify_one();
    }

private:
    // In this order: the client goes on, and removes both files, once its FIFO is read.
    const int writeFd;

public:
    const int readFd;

private:
    void Work() {
        for (;;) {
            Message message;
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [this] { return !queue.empty(); });
                message = std::move(queue.front());
                queue.pop_front();
            }
            if (!message.data) {
                return; // the remote has closed
            }
            uint64_t count = 0;
            const Answer answer = HandleMessage(message.data.get(), message.head.length, count);
            if (answer.size > 0) {
                WriteFrame(writeFd, message.head.id, 1, answer.data, answer.size);
            }
        }
    }

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Message> queue;
};

class FloorServer : public Server {
public:
    explicit FloorServer(const std::string &endpoint) : path(Path(endpoint, ".srv")), epollFd(epoll_create1(0)) {
        if (mkfifo(path.c_str(), 0600) != 0) {
            throw std::runtime_error("mkfifo " + path);
        }
        listenFd = OpenOrThrow(path, O_RDWR | O_NONBLOCK);
        Watch(epollFd, listenFd, nullptr);
        std::thread([this] { Loop(); }).detach();
    }
    ~FloorServer() override {
        unlink(path.c_str());
        _exit(0); // the threads still use this object
    }

private:
    void Accept() {
        char name[NAME_SIZE] = {};
        if (read(listenFd, name, sizeof(name)) != static_cast<ssize_t>(sizeof(name))) {
            return;
        }
        auto *connection = new std::shared_ptr<Connection>(std::make_shared<Connection>(name));
        (*connection)->Start();
        Watch(epollFd, (*connection)->readFd, connection);
    }

    void Loop() {
        epoll_event events[MAX_EVENTS];
        for (;;) {
            const int ready = epoll_wait(epollFd, events, MAX_EVENTS, -1);
            for (int i = 0; i < ready; ++i) {
                if (events[i].data.ptr == nullptr) {
                    Accept();
                    continue;
                }
                auto *connection = static_cast<std::shared_ptr<Connection> *>(events[i].data.ptr);
                Message message;
                if ((events[i].events & EPOLLIN) != 0 && ReadFrame((*connection)->readFd, message)) {
                    (*connection)->Post(std::move(message));
                } else if ((events[i].events & EPOLLHUP) != 0) {
                    epoll_ctl(epollFd, EPOLL_CTL_DEL, (*connection)->readFd, nullptr);
                    (*connection)->Post(Message{});
                    delete connection;
                }
            }
        }
    }

    const std::string path;
    const int epollFd;
    int listenFd = -1;
};

struct Waiter {
    std::mutex mutex;
    std::condition_variable wake;
    Message answer;
};

// The receive thread of a process, shared by its connections.
int ReceiveEpoll();

class FloorClient : public Client {
public:
    FloorClient(const std::string &endpoint, const std::string &self, std::size_t lanes) : waiters(lanes) {
        const std::string in = Path(self, ".in");
        const std::string out = Path(self, ".out");
        if (mkfifo(in.c_str(), 0600) != 0 || mkfifo(out.c_str(), 0600) != 0) {
            throw std::runtime_error("mkfifo " + in);
        }
        readFd = OpenOrThrow(in, O_RDONLY | O_NONBLOCK);
        Watch(ReceiveEpoll(), readFd, this);
        const int server = OpenOrThrow(Path(endpoint, ".srv"), O_WRONLY);
        char name[NAME_SIZE] = {};
        self.copy(name, sizeof(name) - 1);
        if (write(server, name, sizeof(name)) < 0) {
            throw std::runtime_error("write to server");
        }
        close(server);
        writeFd = OpenOrThrow(out, O_WRONLY); // waits until the server reads
        fcntl(writeFd, F_SETFL, O_NONBLOCK);
        unlink(in.c_str());
        unlink(out.c_str());
    }
    // Its receive thread may still hold the pointer of an event: only the end of the process takes the object away.
    ~FloorClient() override {
        epoll_ctl(ReceiveEpoll(), EPOLL_CTL_DEL, readFd, nullptr);
        close(writeFd);
        close(readFd);
    }

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override {
        Waiter &waiter = waiters[lane];
        if (WriteFrame(writeFd, static_cast<uint32_t>(lane), 0, data, size) != 0) {
            return false;
        }
        std::unique_lock<std::mutex> lock(waiter.mutex);
        waiter.wake.wait(lock, [&waiter] { return waiter.answer.data != nullptr; });
        const Message answer = std::move(waiter.answer);
        lock.unlock();
        word = FirstWord(answer.data.get(), answer.head.length);
        return true;
    }

    bool Send(const char *data, std::size_t size) override {
        int ret = WriteFrame(writeFd, 0, 0, data, size);
        while (ret == -EAGAIN) {
            sched_yield();
            ret = WriteFrame(writeFd, 0, 0, data, size);
        }
        return ret == 0;
    }

    void Receive() {
        Message message;
        if (!ReadFrame(readFd, message)) {
            return;
        }
        Waiter &waiter = waiters[message.head.id];
        {
            const std::lock_guard<std::mutex> lock(waiter.mutex);
            waiter.answer = std::move(message);
        }
        waiter.wake.notify_one();
    }

private:
    std::deque<Waiter> waiters;
    int readFd = -1;
    int writeFd = -1;
};

void ReceiveLoop(int epollFd) {
    epoll_event events[MAX_EVENTS];
    for (;;) {
        const int ready = epoll_wait(epollFd, events, MAX_EVENTS, -1);
        for (int i = 0; i < ready; ++i) {
            static_cast<FloorClient *>(events[i].data.ptr)->Receive();
        }
    }
}

int ReceiveEpoll() {
    static const int epollFd = [] {
        const int fd = epoll_create1(0);
        std::thread(ReceiveLoop, fd).detach();
        return fd;
    }();
    return epollFd;
}

} // namespace

Contestant FloorContestant() {
    return {
        "floor",
        "bare program of the library's topology",
        [](const std::string &endpoint) -> std::unique_ptr<Server> { return std::make_unique<FloorServer>(endpoint); },
        [](const std::string &endpoint, const std::string &self, std::size_t lanes) -> std::unique_ptr<Client> {
            return std::make_unique<FloorClient>(endpoint, self, lanes);
        },
        true,
        true};
}

} // namespace bench
