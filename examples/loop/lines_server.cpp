// lines_server [NAME]: counts the letters of what it is asked, for any number of clients, on one thread, until SIGTERM.
#include <csignal>
#include <cstdio>
#include <exception>

#include "tarvo_loop.hpp"

namespace {

tarvo::Loop *running = nullptr;

} // namespace

int main(int argc, char **argv) try {
    tarvo::IgnoreSigpipe();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    tarvo::Loop loop = tarvo::Loop::Create();
    running = &loop;
    std::signal(SIGTERM, [](int) { running->Stop(); });
    std::signal(SIGINT, [](int) { running->Stop(); });
    int clients = 0;
    const tarvo::Service service = tarvo::Service::Open(
        loop, argc > 1 ? argv[1] : "lines", {},
        tarvo::ServiceHandlers()
            .OnClient([&clients](tarvo::LinkView, std::string_view name) {
                std::printf("lines: %.*s is client %d\n", static_cast<int>(name.size()), name.data(), ++clients);
            })
            .OnRequest([](const tarvo::LinkRequest &request) { return std::to_string(request.Bytes().size()); })
            .OnClosed([&clients](tarvo::LinkView) { std::printf("lines: %d clients left\n", --clients); }));
    std::printf("lines: serving\n");
    return loop.Run() ? 1 : 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "lines: %s\n", error.what());
    return 1;
}
