#ifndef TARVO_LOOP_REQUESTS_H
#define TARVO_LOOP_REQUESTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

// The requests of a remote that may still be answered: the numbers under which the program knows them, and their ids on
// the wire. Nothing in a frame tells whether its sender waits for an answer, so a number ends when it is answered, or
// when TARVO_LOOP_MAX_REQUESTS others have come after it.
// Owns: the table, which grows up to that limit as requests stay unanswered. Threads: one. Locks: none. Ends: any time.
class Requests {
public:
    // The number of the request with this id; false when there is no memory.
    bool Add(uint32_t id, uint32_t &number);

    // The id of a request that waits for its answer; false when it does not, or never came.
    bool Find(uint32_t number, uint32_t &id) const;

    // It waits no more.
    void Remove(uint32_t number);

private:
    std::size_t IndexOf(uint32_t number) const { return number & (ids.size() - 1); }
    bool Waits(uint32_t number) const;
    bool Grow();

    // Of the last requests, by the low bits of their numbers: their ids, and whether they wait. Small, as a stream of
    // one-way requests goes through all of it.
    std::vector<uint32_t> ids; // a power of two
    std::vector<bool> waiting;
    uint32_t next = 1;
};

#endif // TARVO_LOOP_REQUESTS_H
