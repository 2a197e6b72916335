#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "FloorHandover.h"
#include "FloorPeer.h"

namespace bench {

namespace {

// The receive thread of a process, shared by its connections.
int ReceiveEpoll();

class FloorClient : public Client {
public:
    explicit FloorClient(const Place &place) : answers(place.lanes) {
        const std::string in = FloorPath(place.self, ".in");
        const std::string out = FloorPath(place.self, ".out");
        MakeFifo(in);
        MakeFifo(out);
        readFd = OpenOrThrow(in, O_RDONLY | O_NONBLOCK);
        Watch(ReceiveEpoll(), readFd, this);
        const int server = OpenOrThrow(FloorPath(place.endpoint, ".srv"), O_WRONLY);
        char name[FLOOR_NAME_SIZE] = {};
        place.self.copy(name, sizeof(name) - 1);
        if (write(server, name, sizeof(name)) < 0) {
            throw std::runtime_error("write to server");
        }
        close(server);
        writeFd = OpenOrThrow(out, O_WRONLY); // waits until the server reads
        fcntl(writeFd, F_SETFL, O_NONBLOCK);
        unlink(in.c_str());
        unlink(out.c_str());
    }
    // Its receive thread may still hold the pointer of an event, but not of one with an answer that is not taken: the
    // benchmark closes only what is quiet.
    ~FloorClient() override {
        epoll_ctl(ReceiveEpoll(), EPOLL_CTL_DEL, readFd, nullptr);
        close(writeFd);
        close(readFd);
    }

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override {
        if (WriteFrame(writeFd, static_cast<uint32_t>(lane), data, size) != 0) {
            return false;
        }
        const Message answer = answers[lane].Take();
        word = FirstWord(answer.data.get(), answer.head.length);
        return true;
    }

    bool Send(const char *data, std::size_t size) override { return WriteFrameWaiting(writeFd, 0, data, size) == 0; }

    void Receive() {
        Message message;
        if (ReadFrame(readFd, message)) {
            answers[message.head.id].Put(std::move(message));
        }
    }

private:
    std::deque<Slot<Message>> answers; // one for each lane
    int readFd = -1;
    int writeFd = -1;
};

void ReceiveLoop(int epollFd) {
    epoll_event events[FLOOR_EVENTS];
    for (;;) {
        const int ready = epoll_wait(epollFd, events, FLOOR_EVENTS, -1);
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

std::unique_ptr<Client> MakeFloorClient(const Place &place) { return std::make_unique<FloorClient>(place); }

} // namespace bench
