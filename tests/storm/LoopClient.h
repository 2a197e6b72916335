// The client of loop_calls.cpp: calls in masses, each of which must end once, with its own answer or with a reason.
#ifndef TARVO_STORM_LOOPCLIENT_H
#define TARVO_STORM_LOOPCLIENT_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tarvo_loop.h"

namespace storm {

// Owns: its loop. Threads: one. Locks: none. Ends: any time.
class LoopClient {
public:
    LoopClient(uint64_t seed, std::string serviceName);
    ~LoopClient();
    LoopClient(const LoopClient &) = delete;
    LoopClient &operator=(const LoopClient &) = delete;

    // Connects; the calls of an earlier link have ended.
    bool Connect();
    bool Connected() const { return opened == 0 && !closed; }

    // Begins, cancels and dispatches once.
    void Turn();
    // Cancels what is outstanding and waits for the ends. The service answers a batch at a time: some of the last calls
    // would wait for others that do not come.
    void EndAll();

    uint64_t Begun() const { return begun; }
    // Prints how the calls have ended, and says whether all did as they should.
    bool Judge() const;

private:
    struct Call {
        LoopClient *client;
        uint64_t text;
        int64_t number;
        int64_t begun;
        bool open;
        bool cancelled;
    };

    static LoopClient &Of(void *context) { return *static_cast<LoopClient *>(context); }
    static void Done(void *context, int result, TarvoBytes answer);
    static void Closed(void *context, TarvoLink *link);
    void Fail(const char *what);
    void Dispatch(int limitMs);
    bool Begin(Call &call);
    void End(Call &call, int result, TarvoBytes answer);
    void Sample(double us);

    const std::string name;
    std::mt19937_64 random;
    TarvoLoop *loop = nullptr;
    TarvoLink *link = nullptr;
    int opened = 1;
    bool closed = false;
    std::vector<Call> calls;
    std::vector<double> samples;
    uint64_t medianUs = 1000;
    uint64_t text = 0;
    uint64_t begun = 0;
    unsigned outstanding = 0;
    uint64_t ends[4] = {};
    unsigned failures = 0;
};

} // namespace storm

#endif // TARVO_STORM_LOOPCLIENT_H
