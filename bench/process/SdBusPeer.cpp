// sd-bus from one process to the other, without a daemon: a connection and a server thread for each caller, since a
// connection belongs to one thread.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

#include "SdBus.h"

namespace bench {

namespace {

sockaddr_un Address(const std::string &endpoint) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/dev/shm/" + endpoint + ".sock";
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

void ServeConnection(int fd) {
    sd_bus *bus = nullptr;
    sd_id128_t id{};
    sd_id128_randomize(&id);
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, fd, fd);
    sd_bus_set_server(bus, 1, id);
    sd_bus_set_anonymous(bus, 1);
    sd_bus_start(bus);
    ServeSdBus(bus);
}

class SdBusServer : public Server {
public:
    explicit SdBusServer(const std::string &endpoint) {
        const sockaddr_un address = Address(endpoint);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
            listen(fd, SOMAXCONN) != 0) {
            throw std::runtime_error("bind");
        }
        std::thread([fd] {
            for (;;) {
                const int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (client >= 0) {
                    std::thread(ServeConnection, client).detach();
                }
            }
        }).detach();
        path = address.sun_path;
    }
    ~SdBusServer() override {
        unlink(path.c_str());
        _exit(0);
    }

private:
    std::string path;
};

std::unique_ptr<Client> Connect(const std::string &endpoint, std::size_t lanes) {
    std::vector<sd_bus *> buses;
    for (std::size_t i = 0; i < lanes; ++i) {
        const sockaddr_un address = Address(endpoint);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sd_bus *bus = nullptr;
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 || sd_bus_new(&bus) < 0 ||
            sd_bus_set_fd(bus, fd, fd) < 0 || sd_bus_set_anonymous(bus, 1) < 0 || sd_bus_start(bus) < 0) {
            throw std::runtime_error("connect");
        }
        buses.push_back(bus);
    }
    return std::make_unique<SdBusClient>(std::move(buses), nullptr);
}

} // namespace

Contestant TheContestant() {
    return {"sd-bus",
            "point to point, a connection and a server thread for each caller",
            BENCH_VERSION,
            LANES | ONE_WAY | WINDOW | CONNECTS | MANY_CLIENTS,
            "threads",
            false,
            [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<SdBusServer>(place.endpoint); },
            [](const Place &place) { return Connect(place.endpoint, place.lanes); }};
}

} // namespace bench
