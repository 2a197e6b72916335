// The processes of the soak: servers, steady callers, and visitors that come and go.
#ifndef TARVO_STORM_SOAKPEERS_H
#define TARVO_STORM_SOAKPEERS_H

#include <atomic>
#include <cstdint>
#include <string>

#include "storm/Board.h"
#include "storm/Histogram.h"
#include "tarvo.h"

namespace storm {

// What all processes of a soak share.
struct SoakBoard {
    Board board;       // its command: Run, then Finish
    Histogram latency; // of answered calls, in us
    std::atomic<uint64_t> calls{0};
    std::atomic<uint64_t> oneWay{0};
    std::atomic<uint64_t> refused{0};  // sends and calls that failed, as they may when a peer is killed or a FIFO full
    std::atomic<uint64_t> received{0}; // one-way requests in callbacks
    std::atomic<uint64_t> wrong{0};
    std::atomic<unsigned> paceUs{1000}; // what each steady peer leaves between two messages
};

// Serves until told to finish. Falls back to normal priority where real-time scheduling is not allowed.
int SoakServer(SoakBoard &board, const std::string &name, TarvoPriority priority);
// Calls the server, and again when it is gone, until told to finish.
int SoakCaller(SoakBoard &board, const std::string &server, const std::string &self);
// Sends one-way requests to it.
int SoakSender(SoakBoard &board, const std::string &server, const std::string &self);
// Connects, makes `calls` calls, closes and ends.
int SoakVisitor(SoakBoard &board, const std::string &server, const std::string &self, unsigned calls);
// The two ends of a pipe by arrangement, with concurrent callbacks.
int SoakConcurrentMaker(SoakBoard &board, const std::string &self, const std::string &other);
int SoakConcurrentCaller(SoakBoard &board, const std::string &self, const std::string &other, unsigned threads);

} // namespace storm

#endif // TARVO_STORM_SOAKPEERS_H
