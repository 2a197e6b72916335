// D-Bus through its daemon: a private bus for each measurement, started by the server process and ended with it. The
// server has one connection and one thread, as services of a bus have; a client has a connection for each caller.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <thread>

#include "SdBus.h"

namespace bench {

namespace {

constexpr char BUS_NAME[] = "bench.Echo";

std::string SocketPath(const std::string &endpoint) { return "/dev/shm/" + endpoint + ".sock"; }

// A bus on which everybody may do everything, however many they are, in a file without a name.
int ConfigFile(const std::string &endpoint) {
    const std::string text = "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                             " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                             "<busconfig><limit name=\"max_connections_per_user\">10000</limit>"
                             "<limit name=\"max_completed_connections\">10000</limit>"
                             "<limit name=\"max_incomplete_connections\">10000</limit>"
                             "<type>session</type><listen>unix:path=" +
                             SocketPath(endpoint) +
                             "</listen><policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                             "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    const int fd = memfd_create("bus.conf", 0);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error("bus configuration");
    }
    return fd;
}

// The daemon. Owns: the process. Ends: by its destructor, or with the thread that made it.
class Daemon {
public:
    explicit Daemon(const std::string &endpoint) {
        const int config = ConfigFile(endpoint);
        int ready[2];
        if (pipe(ready) != 0) {
            throw std::runtime_error("pipe");
        }
        pid = fork();
        if (pid == 0) {
            Become(config, ready[1]);
        }
        close(config);
        close(ready[1]);
        // It writes its address once it listens.
        char letter = 0;
        while (read(ready[0], &letter, 1) == 1 && letter != '\n') {
        }
        close(ready[0]);
        if (letter != '\n') {
            throw std::runtime_error("dbus-daemon");
        }
    }
    ~Daemon() {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    pid_t Pid() const { return pid; }

private:
    [[noreturn]] static void Become(int config, int ready) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const std::string file = "--config-file=/proc/self/fd/" + std::to_string(config);
        const std::string address = "--print-address=" + std::to_string(ready);
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO); // it complains about limits that it may not raise
        execl(BENCH_DBUS_DAEMON, "dbus-daemon", "--nofork", "--nopidfile", file.c_str(), address.c_str(), nullptr);
        _exit(127);
    }

    pid_t pid = -1;
};

sd_bus *ConnectToBus(const std::string &endpoint) {
    sd_bus *bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, ("unix:path=" + SocketPath(endpoint)).c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        throw std::runtime_error("connect to the bus");
    }
    return bus;
}

class DbusServer : public Server {
public:
    explicit DbusServer(const std::string &endpoint) : daemon(endpoint) {
        sd_bus *bus = ConnectToBus(endpoint);
        if (sd_bus_request_name(bus, BUS_NAME, 0) < 0) {
            throw std::runtime_error("name on the bus");
        }
        std::thread(ServeSdBus, bus).detach();
    }

    std::vector<pid_t> Helpers() const override { return {daemon.Pid()}; }

private:
    Daemon daemon;
};

std::unique_ptr<Client> Connect(const std::string &endpoint, std::size_t lanes) {
    std::vector<sd_bus *> buses;
    for (std::size_t i = 0; i < lanes; ++i) {
        buses.push_back(ConnectToBus(endpoint));
    }
    return std::make_unique<SdBusClient>(std::move(buses), BUS_NAME);
}

} // namespace

Contestant TheContestant() {
    return {"dbus",
            "sd-bus through a dbus-daemon of its own, one server thread, a connection for each caller",
            BENCH_VERSION,
            LANES | ONE_WAY | WINDOW | CONNECTS | MANY_CLIENTS,
            "threads",
            false,
            [](const Place &place) -> std::unique_ptr<Server> { return std::make_unique<DbusServer>(place.endpoint); },
            [](const Place &place) { return Connect(place.endpoint, place.lanes); }};
}

} // namespace bench
