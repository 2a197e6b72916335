// Two processes that hand one message back and forth over two FIFOs, with blocking reads and nothing else: what the
// kernel alone takes for a call.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "Contestant.h"

namespace bench {

namespace {

std::string Path(const std::string &endpoint, const char *suffix) { return "/dev/shm/" + endpoint + suffix; }

int OpenOrThrow(const std::string &path, int flags) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("open " + path);
    }
    return fd;
}

class FifoServer : public Server {
public:
    explicit FifoServer(const std::string &endpointName) : endpoint(endpointName) {
        if (mkfifo(Path(endpoint, ".in").c_str(), 0600) != 0 || mkfifo(Path(endpoint, ".out").c_str(), 0600) != 0) {
            throw std::runtime_error("mkfifo");
        }
        std::thread(Serve, endpoint).detach();
    }
    ~FifoServer() override {
        unlink(Path(endpoint, ".in").c_str());
        unlink(Path(endpoint, ".out").c_str());
    }

private:
    static void Serve(const std::string &name) {
        const int in = OpenOrThrow(Path(name, ".in"), O_RDWR);
        const int out = OpenOrThrow(Path(name, ".out"), O_RDWR);
        char buffer[MAX_PAYLOAD];
        for (;;) {
            const ssize_t size = read(in, buffer, sizeof(buffer));
            const Answer answer = HandleMessage(buffer, size > 0 ? static_cast<std::size_t>(size) : 0);
            if (answer.size > 0 && write(out, answer.data, answer.size) < 0) {
                return;
            }
        }
    }

    const std::string endpoint;
};

class FifoClient : public Client {
public:
    explicit FifoClient(const std::string &endpoint)
        : out(OpenOrThrow(Path(endpoint, ".in"), O_WRONLY)), in(OpenOrThrow(Path(endpoint, ".out"), O_RDWR)) {}
    ~FifoClient() override {
        close(out);
        close(in);
    }

    bool Call(std::size_t, const char *data, std::size_t size, uint64_t &word) override {
        char buffer[MAX_PAYLOAD];
        if (write(out, data, size) < 0) {
            return false;
        }
        const ssize_t received = read(in, buffer, sizeof(buffer));
        if (received <= 0) {
            return false;
        }
        word = FirstWord(buffer, static_cast<std::size_t>(received));
        return true;
    }

private:
    const int out;
    const int in;
};

} // namespace

Contestant TheContestant() {
    return {"fifo",
            "two processes, blocking read and write, one message under way",
            "",
            0,
            "threads",
            false,
            [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<FifoServer>(place.endpoint); },
            [](const Place &place) -> std::unique_ptr<Client> { return std::make_unique<FifoClient>(place.endpoint); }};
}

} // namespace bench
