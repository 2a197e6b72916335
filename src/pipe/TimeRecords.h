// When a message was written, received and handed to its callback. All times are monotonic microseconds.
#ifndef TARVO_PIPE_TIMERECORDS_H
#define TARVO_PIPE_TIMERECORDS_H

#include <cstdint>

namespace Tarvo {

// Microseconds between two times. One of them comes from a head, which may hold any number: the difference wraps.
inline int64_t Elapsed(int64_t from, int64_t to) {
    return static_cast<int64_t>(static_cast<uint64_t>(to) - static_cast<uint64_t>(from));
}

// Filled by a receive monitor for the pipes whose events it hands on; -1 where nothing is known yet. Monitors that have
// had no heartbeat pipe, the only ones that ask, leave the time of the return out.
struct EpollTimeRecord {
    int64_t epollWaitT = -1; // when the monitor started to wait
    int64_t epollRecvT = -1; // when the wait returned
    int eventNum = -1;       // number of ready events
    int eventIdx = -1;       // the one being handled, counted from 1
};

// One message of a heartbeat pipe on its way to the callback.
struct TimedRPCRecord {
    int32_t timeout;   // ms, from the head
    int64_t writeT;    // the sender's start of the write
    int64_t epollT;    // when the monitor's wait returned
    int64_t callbackT; // when the callback started, -1 before
    int64_t waitT;     // how long after the write the monitor started to wait, 0 when it waited already
};

} // namespace Tarvo

#endif // TARVO_PIPE_TIMERECORDS_H
