// What the process-level benchmark measures: a messaging system as a server process and its clients see it.
#ifndef TARVO_BENCH_PROCESS_CONTESTANT_H
#define TARVO_BENCH_PROCESS_CONTESTANT_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

// What a message asks for; its first byte. An echo is answered with the same bytes, a one-way message is only counted,
// and the question for the count is answered with 8 bytes.
enum Op : char { OP_ECHO = 'e', OP_ONE_WAY = 'o', OP_COUNT = 'c' };

constexpr std::size_t MAX_PAYLOAD = 4000;

// A running server. Owns: its threads. Ends: by its destructor, which may leave the rest to the end of the process.
class Server {
public:
    Server() = default;
    virtual ~Server() = default;
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Processes beside this one that do the server's work.
    virtual std::vector<pid_t> Helpers() const { return {}; }
};

// A connection to a server. Threads: `Call` at the same time from one thread for each lane; `Send` from one.
class Client {
public:
    Client() = default;
    virtual ~Client() = default;
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Sends and waits for the answer; its first 8 bytes go to `word`. False when the call failed.
    virtual bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) = 0;
    // Sends one-way, waiting while the way is full. False when it failed.
    virtual bool Send(const char *data, std::size_t size) = 0;
};

struct Contestant {
    const char *name;
    const char *remark; // how it is run, for the report
    std::unique_ptr<Server> (*serve)(const std::string &endpoint);
    // Throws std::runtime_error when it fails. `self` is unique on the machine.
    std::unique_ptr<Client> (*connect)(const std::string &endpoint, const std::string &self, std::size_t lanes);
    bool manyLanes; // whether several callers at once are supported
    bool oneWay;
};

// Those that were found when this was built, the library and the floor first, and the names of the others.
const std::vector<Contestant> &Contestants();
const std::vector<const char *> &AbsentContestants();

Contestant TarvoContestant();
Contestant FloorContestant();
Contestant FifoContestant();
Contestant ZeroMqContestant();
Contestant NngContestant();
Contestant SdBusContestant();
Contestant DbusContestant();
Contestant CapnProtoContestant();
Contestant GrpcContestant();

// What every server does with a message: the number of bytes to answer from `reply`, 0 for none. `reply` holds 8 bytes
// or is `data` itself.
struct Answer {
    const char *data;
    std::size_t size;
};
Answer HandleMessage(const char *data, std::size_t size, uint64_t &countBuffer);

// The first 8 bytes of an answer, as far as there are.
uint64_t FirstWord(const char *data, std::size_t size);

} // namespace bench

#endif // TARVO_BENCH_PROCESS_CONTESTANT_H
