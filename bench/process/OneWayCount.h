#ifndef TARVO_BENCH_PROCESS_ONEWAYCOUNT_H
#define TARVO_BENCH_PROCESS_ONEWAYCOUNT_H

#include <cstdint>
#include <string>

namespace bench {

// How many one-way messages a server has handled, in memory that it shares with its client. The client keeps a window
// of unhandled messages by it, so that no message of the contestant is needed to know, and each contestant pays the
// same. Owns: nothing; the memory stays for the life of the process. Threads: any for `Handled`, one for the rest.
// Locks: none.
class OneWayCount {
public:
    // In the server, before the first message; the file is gone when the server's object is.
    static void Create(const std::string &endpoint);
    static void Remove(const std::string &endpoint);
    // In the client. Throws std::runtime_error.
    static void Open(const std::string &endpoint);

    static void Handled();
    static uint64_t Read();
    // Waits until so many have been handled.
    static void Await(uint64_t target);
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_ONEWAYCOUNT_H
