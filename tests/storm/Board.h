// What the processes of one group tell each other and the one that kills them, in memory that they share.
#ifndef TARVO_STORM_BOARD_H
#define TARVO_STORM_BOARD_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace storm {

// Memory that forked children share with their parent, and that outlives each of them.
// Owns: the mapping. Threads: any. Locks: none; `T` consists of atomics. Ends: each process unmaps its own view.
class SharedMemory {
public:
    explicit SharedMemory(std::size_t bytes);
    ~SharedMemory();
    SharedMemory(const SharedMemory &) = delete;
    SharedMemory &operator=(const SharedMemory &) = delete;
    void *Address() const { return address; }

private:
    std::size_t size;
    void *address;
};

template <typename T>
class Shared {
public:
    Shared() : memory(sizeof(T)), object(new (memory.Address()) T) {}
    T *operator->() const { return object; }
    T &operator*() const { return *object; }

private:
    SharedMemory memory;
    T *object;
};

// Monotonic nanoseconds of the real clock, the same in all processes, and not moved by a test.
int64_t Now();

enum class Command : uint32_t { Run, Rest, Finish };

constexpr std::size_t MAX_CLIENTS = 8;

// What a client has got to.
struct ClientEntry {
    std::atomic<uint64_t> answered{0};  // generation of the client << 32 | generation of the server, of the last answer
    std::atomic<int64_t> answeredAt{0}; // when the first answer between the two came
    std::atomic<uint64_t> answers{0};
    std::atomic<uint64_t> wrong{0}; // answers that are not those to the request
    std::atomic<uint32_t> rested{0};
};

struct Board {
    std::atomic<uint32_t> command{0}; // a Command; also the word that waiting processes sleep on
    std::atomic<uint32_t> serverRested{0};
    ClientEntry clients[MAX_CLIENTS];

    Command Get() const { return static_cast<Command>(command.load()); }
    // Tells all processes of the group.
    void Set(Command next);
    // Sleeps until the command is another one than `current`.
    void AwaitOther(Command current) const;
};

} // namespace storm

#endif // TARVO_STORM_BOARD_H
