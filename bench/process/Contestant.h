// What the process-level benchmark measures: a messaging system as a server process and its clients see it. Each
// contestant is a program of its own, made of main.cpp, the tasks and one source that defines `TheContestant`.
#ifndef TARVO_BENCH_PROCESS_CONTESTANT_H
#define TARVO_BENCH_PROCESS_CONTESTANT_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bench {

// What a message asks for; its first byte. An echo is answered with the same bytes, a one-way message is only counted.
enum Op : char { OP_ECHO = 'e', OP_ONE_WAY = 'o' };

constexpr std::size_t MAX_PAYLOAD = 4000;
constexpr int64_t NO_LIMIT = INT64_MAX;

// Where a server is, and how it is to be reached.
struct Place {
    std::string endpoint;  // of the server, unique on the machine
    std::string self;      // of a client, unique on the machine
    std::size_t lanes = 1; // threads that call at the same time
    bool urgent = false;   // with the contestant's real-time priority
};

// A running server. Owns: its threads. Ends: by its destructor, which may leave the rest to the end of the process.
class Server {
public:
    Server() = default;
    virtual ~Server() = default;
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Processes beside this one that do the server's work.
    virtual std::vector<pid_t> Helpers() const { return {}; }

    // Called once, on the main thread: returns when `stop` can be read or has hung up. A server on one thread does its
    // work in here; the others have threads, and only wait.
    virtual void Run(int stop);
};

// A call that has been answered: the number that `Start` was given, and the first 8 bytes of the answer.
struct Answered {
    uint64_t token;
    uint64_t word;
};

// A connection to a server. A contestant overrides what its abilities name. Threads: `Call` at the same time from one
// thread for each lane; everything else from the main thread.
class Client {
public:
    Client() = default;
    virtual ~Client() = default;
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Sends and waits for the answer; its first 8 bytes go to `word`. False when the call failed. Unless overridden, it
    // is a started call that is waited for.
    virtual bool Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word);
    // Sends one-way, waiting while the way is full. False when it failed.
    virtual bool Send(const char *data, std::size_t size);
    // Before the sender waits for what it has sent to be handled: nothing stays behind. False when it failed.
    virtual bool Flush();

    // Starts a call and does not wait for its answer. False when it failed.
    virtual bool Start(uint64_t token, const char *data, std::size_t size);
    // Waits until a started call has been answered, or until a moment of the monotonic clock (ns), and appends all that
    // have been. A client on one thread runs its loop in here. False when a call failed.
    virtual bool Await(std::vector<Answered> &answers, int64_t until);
};

// What a contestant can take part in, besides calls one after the other from one client.
enum Ability : unsigned {
    LANES = 1,         // several threads call at the same time over one connection object
    ONE_WAY = 2,       // Client::Send
    WINDOW = 4,        // Client::Start and Await
    CONNECTS = 8,      // clients come and go
    MANY_CLIENTS = 16, // several client processes
    MANY_PIPES = 32,   // the cost of many open connections in one client is of interest
    URGENT = 64,       // Place::urgent means something
};

struct Contestant {
    std::string name;
    std::string remark;  // how it is run, for the report
    std::string version; // of the peer's library
    unsigned abilities;  // of Ability
    // The floors of a design are what its contestants are divided by: "threads" for those with threads of their own
    // (all peers as well), "loop" for those that run on the program's thread.
    std::string design;
    bool floor;
    std::unique_ptr<Server> (*serve)(const Place &place);
    // Throws std::runtime_error when it fails.
    std::unique_ptr<Client> (*connect)(const Place &place);
};

// The one that this program measures. Defined by the contestant's own source.
Contestant TheContestant();

// What every server does with a message: the bytes to answer, none for a one-way message, which has then been counted.
struct Answer {
    const char *data;
    std::size_t size;
};
Answer HandleMessage(const char *data, std::size_t size);

// The first 8 bytes of an answer, as far as there are.
uint64_t FirstWord(const char *data, std::size_t size);

// Waits until a descriptor can be read or has hung up.
void AwaitReadable(int fd);

} // namespace bench

#endif // TARVO_BENCH_PROCESS_CONTESTANT_H
