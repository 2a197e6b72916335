// The counters of a pipe of this process, moved to where they begin anew.
#ifndef TARVO_SUPPORT_STATSWRAP_H
#define TARVO_SUPPORT_STATSWRAP_H

#include <vector>

#include "support/StatsDirectory.h"

namespace tarvo_test {

// Adds to all counters of the pipes in this process's file what takes them to just below 2^64, so that their sums still
// agree. Nothing may be under way.
inline void GoNearTheWrap() {
    constexpr uint64_t NEARLY_ALL = UINT64_MAX - 4;
    const int fd = open(StatsFileOf(getpid()).c_str(), O_RDWR | O_CLOEXEC);
    const auto add = [fd](off_t slot, std::size_t field) {
        uint64_t number = 0;
        const off_t at = slot + static_cast<off_t>(offsetof(TarvoStatsSlot, of) + field);
        ASSERT_EQ(ssize_t{sizeof(number)}, pread(fd, &number, sizeof(number), at));
        number += NEARLY_ALL;
        ASSERT_EQ(ssize_t{sizeof(number)}, pwrite(fd, &number, sizeof(number), at));
    };
    std::vector<std::size_t> fields = {
        offsetof(TarvoStatsPipe, received.messages[TARVO_STATS_ONE_WAY]),
        offsetof(TarvoStatsPipe, received.messages[TARVO_STATS_RESPONSE]),
        offsetof(TarvoStatsPipe, requests.begun),
        offsetof(TarvoStatsPipe, requests.finished),
        offsetof(TarvoStatsPipe, calls.begun),
        offsetof(TarvoStatsPipe, calls.ended[TARVO_STATS_END_ANSWERED]),
        offsetof(TarvoStatsPipe, sent.refused[TARVO_STATS_SEND_OTHER]),
        offsetof(TarvoStatsPipe, received.late),
    };
    for (std::size_t kind = 0; kind < TARVO_STATS_KINDS; ++kind) {
        fields.push_back(offsetof(TarvoStatsPipe, sent.messages) + kind * sizeof(uint64_t));
        fields.push_back(offsetof(TarvoStatsPipe, sent.bytes) + kind * sizeof(uint64_t));
        fields.push_back(offsetof(TarvoStatsPipe, received.bytes) + kind * sizeof(uint64_t));
    }
    for (const std::size_t times : {offsetof(TarvoStatsPipe, roundTrip), offsetof(TarvoStatsPipe, inFifo),
                                    offsetof(TarvoStatsPipe, wait), offsetof(TarvoStatsPipe, callback)}) {
        fields.push_back(times + offsetof(TarvoStatsTimes, sum));
    }
    const uint32_t slots = OwnStats().Header().slots;
    for (uint32_t index = 0; index < slots; ++index) {
        const off_t slot = TARVO_STATS_HEADER_SIZE + off_t{index} * TARVO_STATS_SLOT_SIZE;
        uint32_t kind = 0;
        ASSERT_EQ(ssize_t{sizeof(kind)},
                  pread(fd, &kind, sizeof(kind), slot + static_cast<off_t>(offsetof(TarvoStatsSlot, kind))));
        for (const std::size_t field : fields) {
            if (kind == TARVO_STATS_PIPE) {
                add(slot, field);
            }
        }
    }
    close(fd);
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_STATSWRAP_H
