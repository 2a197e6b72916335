// What the two contestants that speak with sd-bus have in common: one method that takes and returns bytes.
#ifndef TARVO_BENCH_PROCESS_SDBUS_H
#define TARVO_BENCH_PROCESS_SDBUS_H

#include <systemd/sd-bus.h>

#include <cstddef>
#include <string>
#include <vector>

#include "Contestant.h"

namespace bench {

// Answers what comes in over a started connection until it ends, and closes it.
void ServeSdBus(sd_bus *bus);

// A client with a connection for each caller, since a connection belongs to one thread.
// Owns: the connections, as long as the process. Threads: as Client. Locks: none. Ends: with the process.
class SdBusClient : public Client {
public:
    // Started connections; `destination` is the server's name on the bus, null without one.
    SdBusClient(std::vector<sd_bus *> connections, const char *destination)
        : buses(std::move(connections)), name(destination) {}

    bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) override;
    bool Send(const char *data, std::size_t size) override;

private:
    sd_bus_message *Message(std::size_t lane, const char *data, std::size_t size) const;

    const std::vector<sd_bus *> buses;
    const char *const name;
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_SDBUS_H
