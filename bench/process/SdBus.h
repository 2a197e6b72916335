// What the two contestants that speak with sd-bus have in common: one method that takes and returns bytes.
#ifndef TARVO_BENCH_PROCESS_SDBUS_H
#define TARVO_BENCH_PROCESS_SDBUS_H

#include <systemd/sd-bus.h>

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "Contestant.h"

namespace bench {

// Answers what comes in over a started connection until it ends, and closes it.
void ServeSdBus(sd_bus *bus);

// A client with a connection for each caller, since a connection belongs to one thread.
// Owns: the connections. Threads: as Client. Locks: none. Ends: when no call is outstanding.
class SdBusClient : public Client {
public:
    // Started connections; `destination` is the server's name on the bus, null without one.
    SdBusClient(std::vector<sd_bus *> connections, const char *destination)
        : buses(std::move(connections)), name(destination) {}
    ~SdBusClient() override;

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override;
    bool Send(const char *data, std::size_t size) override;
    bool Start(uint64_t token, const char *data, std::size_t size) override;
    bool Await(std::vector<Answered> &answers, int64_t until) override;

private:
    struct Started {
        SdBusClient *client;
        uint64_t token;
    };
    static int OnAnswer(sd_bus_message *reply, void *started, sd_bus_error *error);
    sd_bus_message *Message(std::size_t lane, const char *data, std::size_t size) const;

    const std::vector<sd_bus *> buses;
    const char *const name;
    std::deque<Answered> answered;
    bool failed = false;
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_SDBUS_H
