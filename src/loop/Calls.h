#ifndef TARVO_LOOP_CALLS_H
#define TARVO_LOOP_CALLS_H

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "loop/Timers.h"
#include "tarvo_loop.h"

// A call that waits for its end, or for somebody to tell its end.
struct CallEnd {
    TarvoDone done;
    void *context;
    int result;
    uint32_t wireId;
    uint64_t begun; // as it was given to Begin()
};

// The calls of a link, each in a slot that its id on the wire names, so that an answer finds it at once. An id comes
// again after 32,767 other calls in its slot, and slots are taken in turn.
// Owns: the slots, which are kept for later calls. Threads: one. Locks: none. Ends: any time; the timers outlive it.
class Calls {
public:
    // What is told when a call has run out of time. It calls nobody back.
    class Listener {
    public:
        virtual void OnCallEnded() = 0;

    protected:
        ~Listener() = default;
    };

    Calls(Timers &loopTimers, Listener &endListener) : timers(loopTimers), listener(endListener) {}
    ~Calls();
    Calls(const Calls &) = delete;
    Calls &operator=(const Calls &) = delete;

    // Begins a call; `deadlineUs` below 0: no limit. Its number, above 0, -ENOBUFS or -ENOMEM.
    // `begun` is kept for whoever measures it.
    int64_t Begin(TarvoDone done, void *context, int64_t deadlineUs, uint64_t begun = 0);
    // Takes a call back that has not been sent: it has no end.
    void Undo(int64_t number);

    // The id of a call in its frames. Never one of OneWayId().
    static uint32_t WireId(int64_t number) { return static_cast<uint32_t>(number) & ~ONE_WAY; }
    // An id for a request that nobody waits for the answer of.
    uint32_t OneWayId() { return ONE_WAY | ++oneWay; }

    // The answer to `wireId` is there: its call ends now, `end` tells whose it is. False: nobody waits for it.
    bool Answer(uint32_t wireId, CallEnd &end);

    // Ends a call with `result`, to be told in a round after `round`. False: it has ended.
    bool End(int64_t number, int result, uint64_t round);
    bool EndByWireId(uint32_t wireId, int result, uint64_t round);
    // Ends all, oldest first.
    void EndAll(int result, uint64_t round);
    // EndAll() with -ECANCELED, which is also told of those that have ended already: by any other result the program
    // may believe that it still has the link.
    void CancelAll(uint64_t round);

    // Whether ends are still to be told; the first of them, if it may be told in `round`.
    bool HasEnds() const { return ended.first != nullptr; }
    bool NextEnd(uint64_t round, CallEnd &end);

private:
    static constexpr uint32_t ONE_WAY = 0x80000000U;
    static constexpr uint32_t SLOT_BITS = 16;
    static constexpr uint32_t SLOT_MASK = (1U << SLOT_BITS) - 1;
    static constexpr uint32_t CHUNK = 64;

    enum class State { FREE, ACTIVE, ENDED };

    // Owns: its entry among the timers. Threads, Locks, Ends: as Calls.
    struct Slot final : Timer {
        void OnTimer() override;

        Calls *calls = nullptr;
        int64_t number = 0; // the count of its uses above its index
        uint64_t round = 0;
        CallEnd end{};
        State state = State::FREE;
        Slot *previous = nullptr;
        Slot *next = nullptr;
    };

    struct List {
        void Append(Slot &slot);
        void Remove(Slot &slot);
        Slot *first = nullptr;
        Slot *last = nullptr;
    };

    bool AddChunk();
    Slot *Active(uint32_t index);
    void Release(Slot &slot, List &list);
    void End(Slot &slot, int result, uint64_t round);

    Timers &timers;
    Listener &listener;
    std::vector<std::unique_ptr<std::array<Slot, CHUNK>>> chunks;
    List unused;
    List active;
    List ended;
    uint32_t oneWay = 0;
};

#endif // TARVO_LOOP_CALLS_H
