#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <thread>

#include "FloorHandover.h"
#include "FloorPeer.h"

namespace bench {

namespace {

// One client as the server sees it.
struct Connection {
    explicit Connection(const std::string &client)
        : writeFd(OpenOrThrow(FloorPath(client, ".in"), O_WRONLY | O_NONBLOCK)),
          readFd(OpenOrThrow(FloorPath(client, ".out"), O_RDONLY | O_NONBLOCK)) {}
    ~Connection() {
        close(readFd);
        close(writeFd);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // In this order: the client goes on, and removes both files, once its FIFO is read.
    const int writeFd;
    const int readFd;
};

// Without data: the remote has closed, and the connection is the worker's to delete.
struct Job {
    Connection *connection;
    Message message;
};

// The thread that runs callbacks. Owns: its queue. Ends: by a job without data, unless it is the shared one.
class FloorWorker : public std::enable_shared_from_this<FloorWorker> {
public:
    void Start() {
        std::thread([self = shared_from_this()] { self->Work(); }).detach();
    }
    void Post(Job job) { jobs.Put(std::move(job)); }

private:
    void Work() {
        for (;;) {
            const Job job = jobs.Take();
            if (!job.message.data) {
                delete job.connection;
                if (FLOOR_WITH_SHARED_WORKER) {
                    continue;
                }
                return;
            }
            const Answer answer = HandleMessage(job.message.data.get(), job.message.head.length);
            if (answer.size > 0) {
                WriteFrame(job.connection->writeFd, job.message.head.id, answer.data, answer.size);
            }
        }
    }

    Handover<Job> jobs;
};

std::shared_ptr<FloorWorker> NewWorker() {
    auto worker = std::make_shared<FloorWorker>();
    worker->Start();
    return worker;
}

std::shared_ptr<FloorWorker> WorkerOfConnection() {
    if (!FLOOR_WITH_SHARED_WORKER) {
        return NewWorker();
    }
    static const std::shared_ptr<FloorWorker> shared = NewWorker();
    return shared;
}

// What the epoll set points to.
struct Entry {
    Connection *connection;
    std::shared_ptr<FloorWorker> worker;
};

class FloorServer : public Server {
public:
    explicit FloorServer(const Place &place) : path(FloorPath(place.endpoint, ".srv")), epollFd(epoll_create1(0)) {
        MakeFifo(path);
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
        char name[FLOOR_NAME_SIZE] = {};
        if (read(listenFd, name, sizeof(name)) != static_cast<ssize_t>(sizeof(name))) {
            return;
        }
        auto *entry = new Entry{new Connection(name), WorkerOfConnection()};
        Watch(epollFd, entry->connection->readFd, entry);
    }

    void Serve(Entry *entry, uint32_t events) {
        Message message;
        if ((events & EPOLLIN) != 0 && ReadFrame(entry->connection->readFd, message)) {
            entry->worker->Post({entry->connection, std::move(message)});
        } else if ((events & EPOLLHUP) != 0) {
            epoll_ctl(epollFd, EPOLL_CTL_DEL, entry->connection->readFd, nullptr);
            entry->worker->Post({entry->connection, Message{}});
            delete entry;
        }
    }

    void Loop() {
        epoll_event events[FLOOR_EVENTS];
        for (;;) {
            const int ready = epoll_wait(epollFd, events, FLOOR_EVENTS, -1);
            for (int i = 0; i < ready; ++i) {
                if (events[i].data.ptr == nullptr) {
                    Accept();
                } else {
                    Serve(static_cast<Entry *>(events[i].data.ptr), events[i].events);
                }
            }
        }
    }

    const std::string path;
    const int epollFd;
    int listenFd = -1;
};

} // namespace

std::unique_ptr<Server> MakeFloorServer(const Place &place) { return std::make_unique<FloorServer>(place); }

} // namespace bench
