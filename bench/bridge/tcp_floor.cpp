// The floor under the bridge: what two processes that only copy bytes between FIFOs and a TCP connection make of a call
// from one machine to the other. No frames, no checks, no sessions, no end that is noticed.
//
//   tcp_floor echo IN OUT                       a server: writes back what it reads
//   tcp_floor listen PORT IN OUT                the server's machine: IN is written, OUT is read
//   tcp_floor connect HOST PORT IN OUT          the client's machine: IN is read, OUT is written
//   tcp_floor call IN OUT SIZE COUNT WINDOW     a client with so many calls under way; prints JSON
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <string>
#include <vector>

#include "floor.h"

using namespace tarvo_bench;

namespace {

int Echo(const char *in, const char *out) {
    const int from = OpenFifo(in);
    const int to = OpenFifo(out);
    std::array<char, BUFFER> bytes;
    for (;;) {
        WriteAll(to, bytes.data(), ReadSome(from, bytes.data(), bytes.size()));
    }
}

int Copy(int connection, const char *readFrom, const char *writeTo) {
    const int on = 1;
    Checked(setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)), "TCP_NODELAY");
    std::array<pollfd, 2> ends{{{OpenFifo(readFrom), POLLIN, 0}, {connection, POLLIN, 0}}};
    const int to = OpenFifo(writeTo);
    std::array<char, BUFFER> bytes;
    for (;;) {
        Checked(poll(ends.data(), ends.size(), -1), "poll");
        if (ends[0].revents != 0) {
            WriteAll(connection, bytes.data(), ReadSome(ends[0].fd, bytes.data(), bytes.size()));
        }
        if (ends[1].revents != 0) {
            const std::size_t count = ReadSome(connection, bytes.data(), bytes.size());
            if (count == 0) {
                return 0;
            }
            WriteAll(to, bytes.data(), count);
        }
    }
}

sockaddr_in Address(const char *host, const char *port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::atoi(port)));
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

int Listen(const char *port, const char *in, const char *out) {
    const int listening = Checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const int on = 1;
    setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const sockaddr_in address = Address("0.0.0.0", port);
    Checked(bind(listening, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), "bind");
    Checked(listen(listening, 1), "listen");
    return Copy(Checked(accept(listening, nullptr, nullptr), "accept"), out, in);
}

int Connect(const char *host, const char *port, const char *in, const char *out) {
    const int connection = Checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const sockaddr_in address = Address(host, port);
    Checked(connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), "connect");
    return Copy(connection, in, out);
}

int Call(const char *in, const char *out, std::size_t size, std::size_t count, std::size_t window) {
    using Clock = std::chrono::steady_clock;
    const int to = OpenFifo(in);
    const int from = OpenFifo(out);
    const std::string request(size, 'x');
    std::vector<char> bytes(BUFFER);
    std::deque<Clock::time_point> started;
    std::vector<double> took;
    std::size_t unread = 0;
    const auto start = Clock::now();
    for (std::size_t sent = 0; took.size() < count;) {
        for (; sent < count && started.size() < window; ++sent) {
            started.push_back(Clock::now());
            WriteAll(to, request.data(), size);
        }
        for (unread += ReadSome(from, bytes.data(), bytes.size()); unread >= size; unread -= size) {
            took.push_back(std::chrono::duration<double, std::micro>(Clock::now() - started.front()).count());
            started.pop_front();
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::sort(took.begin(), took.end());
    std::printf("{\"median_us\": %.2f, \"calls_per_s\": %.0f}\n", took[took.size() / 2],
                static_cast<double>(count) / seconds);
    return 0;
}

int Run(int argc, char **argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "echo" && argc == 4) {
        return Echo(argv[2], argv[3]);
    }
    if (mode == "listen" && argc == 5) {
        return Listen(argv[2], argv[3], argv[4]);
    }
    if (mode == "connect" && argc == 6) {
        return Connect(argv[2], argv[3], argv[4], argv[5]);
    }
    if (mode == "call" && argc == 7) {
        return Call(argv[2], argv[3], std::strtoul(argv[4], nullptr, 10), std::strtoul(argv[5], nullptr, 10),
                    std::strtoul(argv[6], nullptr, 10));
    }
    std::fputs("Usage: tcp_floor echo|listen|connect|call ...; see its source\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return Run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tcp_floor: %s\n", error.what());
        return 1;
    }
}
