// sd-bus from one process to the other, without a daemon: a connection and a server thread for each caller, since a
// connection belongs to one thread.
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include "Contestant.h"

namespace bench {

namespace {

constexpr char OBJECT[] = "/bench";
constexpr char INTERFACE[] = "bench.Echo";
constexpr char MEMBER[] = "Call";
constexpr uint64_t NO_LIMIT = UINT64_MAX;

sockaddr_un Address(const std::string &endpoint) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/dev/shm/" + endpoint + ".sock";
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

int OnMessage(sd_bus_message *message, void *, sd_bus_error *) {
    if (sd_bus_message_is_method_call(message, INTERFACE, MEMBER) <= 0) {
        return 0;
    }
    const void *data = nullptr;
    std::size_t size = 0;
    sd_bus_message_read_array(message, 'y', &data, &size);
    uint64_t count = 0;
    const Answer answer = HandleMessage(static_cast<const char *>(data), size, count);
    if (answer.size == 0) {
        return 1;
    }
    sd_bus_message *reply = nullptr;
    sd_bus_message_new_method_return(message, &reply);
    sd_bus_message_append_array(reply, 'y', answer.data, answer.size);
    const int ret = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return ret < 0 ? ret : 1;
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
    sd_bus_add_filter(bus, nullptr, OnMessage, nullptr);
    for (;;) {
        const int ret = sd_bus_process(bus, nullptr);
        if (ret < 0 || (ret == 0 && sd_bus_wait(bus, NO_LIMIT) < 0)) {
            break;
        }
    }
    sd_bus_close_unref(bus);
}

class SdBusServer : public Server {
public:
    explicit SdBusServer(const std::string &endpoint) {
        const sockaddr_un address = Address(endpoint);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 || listen(fd, 64) != 0) {
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

class SdBusClient : public Client {
public:
    SdBusClient(const std::string &endpoint, std::size_t lanes) {
        for (std::size_t i = 0; i < lanes; ++i) {
            const sockaddr_un address = Address(endpoint);
            const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sd_bus *bus = nullptr;
            if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
                sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, fd, fd) < 0 || sd_bus_set_anonymous(bus, 1) < 0 ||
                sd_bus_start(bus) < 0) {
                throw std::runtime_error("connect");
            }
            buses.push_back(bus);
        }
    }

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override {
        sd_bus_message *message = Message(buses[lane], data, size);
        sd_bus_message *reply = nullptr;
        const int ret = sd_bus_call(buses[lane], message, 0, nullptr, &reply);
        sd_bus_message_unref(message);
        if (ret < 0) {
            return false;
        }
        const void *answer = nullptr;
        std::size_t answerSize = 0;
        sd_bus_message_read_array(reply, 'y', &answer, &answerSize);
        word = FirstWord(static_cast<const char *>(answer), answerSize);
        sd_bus_message_unref(reply);
        return true;
    }

    bool Send(const char *data, std::size_t size) override {
        sd_bus_message *message = Message(buses[0], data, size);
        sd_bus_message_set_expect_reply(message, 0);
        const bool sent = sd_bus_send(buses[0], message, nullptr) >= 0 && sd_bus_flush(buses[0]) >= 0;
        sd_bus_message_unref(message);
        return sent;
    }

private:
    static sd_bus_message *Message(sd_bus *bus, const char *data, std::size_t size) {
        sd_bus_message *message = nullptr;
        sd_bus_message_new_method_call(bus, &message, nullptr, OBJECT, INTERFACE, MEMBER);
        sd_bus_message_append_array(message, 'y', data, size);
        return message;
    }

    std::vector<sd_bus *> buses;
};

} // namespace

Contestant SdBusContestant() {
    return {
        "sd-bus",
        "point to point, a connection and a server thread for each caller",
        [](const std::string &endpoint) -> std::unique_ptr<Server> { return std::make_unique<SdBusServer>(endpoint); },
        [](const std::string &endpoint, const std::string &, std::size_t lanes) -> std::unique_ptr<Client> {
            return std::make_unique<SdBusClient>(endpoint, lanes);
        },
        true,
        true};
}

} // namespace bench
