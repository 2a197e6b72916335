// Sums and differences of pipes' numbers. Counters are added and taken away without regard to their wrap.
#include <stddef.h>
#include <string.h>

#include "tarvo_stats.h"

// All numbers of a pipe are 64 bits wide, those in reserve included.
#define PIPE_WORDS (sizeof(TarvoStatsPipe) / sizeof(uint64_t))
_Static_assert(sizeof(TarvoStatsPipe) % sizeof(uint64_t) == 0, "a pipe's numbers are words");

static void PipeAdd(TarvoStatsPipe *sum, const TarvoStatsPipe *more) {
    uint64_t words[PIPE_WORDS];
    uint64_t others[PIPE_WORDS];
    TarvoStatsPipe result;
    memcpy(words, sum, sizeof(words));
    memcpy(others, more, sizeof(others));
    for (size_t word = 0; word < PIPE_WORDS; ++word) {
        words[word] += others[word];
    }
    memcpy(&result, words, sizeof(result));
    result.roundTrip = sum->roundTrip;
    result.inFifo = sum->inFifo;
    result.wait = sum->wait;
    result.callback = sum->callback;
    *sum = result;
    TarvoStatsTimesAdd(&sum->roundTrip, &more->roundTrip);
    TarvoStatsTimesAdd(&sum->inFifo, &more->inFifo);
    TarvoStatsTimesAdd(&sum->wait, &more->wait);
    TarvoStatsTimesAdd(&sum->callback, &more->callback);
}

void TarvoStatsSum(const TarvoStatsReading *reading, TarvoStatsPipe *sum) {
    memset(sum, 0, sizeof(*sum));
    for (uint32_t index = 0; index < reading->slots; ++index) {
        const TarvoStatsSlot *const slot = &reading->slot[index];
        if (slot->kind == TARVO_STATS_PIPE || slot->kind == TARVO_STATS_GONE) {
            PipeAdd(sum, &slot->of.pipe);
        }
    }
}

void TarvoStatsPipeSince(const TarvoStatsPipe *now, const TarvoStatsPipe *before, TarvoStatsPipe *since) {
    uint64_t words[PIPE_WORDS];
    uint64_t others[PIPE_WORDS];
    memcpy(words, now, sizeof(words));
    memcpy(others, before, sizeof(others));
    for (size_t word = 0; word < PIPE_WORDS; ++word) {
        words[word] -= others[word];
    }
    const TarvoStatsLevel queued = now->requests.queued;
    const TarvoStatsLevel running = now->requests.running;
    const TarvoStatsLevel outstanding = now->calls.outstanding;
    const uint64_t longest[] = {now->roundTrip.longest, now->inFifo.longest, now->wait.longest, now->callback.longest};
    memcpy(since, words, sizeof(*since));
    since->requests.queued = queued;
    since->requests.running = running;
    since->calls.outstanding = outstanding;
    since->roundTrip.longest = longest[0];
    since->inFifo.longest = longest[1];
    since->wait.longest = longest[2];
    since->callback.longest = longest[3];
}

int TarvoStatsSame(const TarvoStatsSlot *one, const TarvoStatsSlot *other) {
    return one->sequence != 0 && one->sequence == other->sequence && one->kind == other->kind;
}
