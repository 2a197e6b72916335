// Reading what a process writes at the same time.
#include <errno.h>
#include <sched.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "stats_reader/stats_file.h"

// A change of an identity takes a microsecond, unless its thread was held up in it, or killed.
#define SLOT_ATTEMPTS 100
#define FILE_ATTEMPTS 8

// The loads on both sides stay on their sides, those that the kernel does for us included.
static int ReadOrdered(const TarvoStatsFile *file, void *data, size_t size, uint64_t offset) {
    atomic_thread_fence(memory_order_seq_cst);
    const int result = TarvoStatsReadAt(file, data, size, offset);
    atomic_thread_fence(memory_order_seq_cst);
    return result;
}

static int IsSound(const TarvoStatsSlot *slot) {
    const int values =
        slot->kind <= TARVO_STATS_POOL && slot->engine <= TARVO_STATS_LOOP && slot->state <= TARVO_STATS_REMOTE_CLOSED;
    return values && memchr(slot->name, '\0', sizeof(slot->name)) != NULL &&
           memchr(slot->remote, '\0', sizeof(slot->remote)) != NULL;
}

static uint64_t SumOf(const uint64_t *values, size_t count) {
    uint64_t sum = 0;
    for (size_t index = 0; index < count; ++index) {
        sum += values[index];
    }
    return sum;
}

// What came in and did not come out yet. Counters that were written at different moments may have more come out.
static void SetLevel(TarvoStatsLevel *level, uint64_t in, uint64_t out) {
    level->now = (int64_t)(in - out) < 0 ? 0 : in - out;
    level->most = level->most < level->now ? level->now : level->most;
}

static void Move(uint64_t *sum, uint64_t *first) {
    *sum += *first;
    *first = 0;
}

// What the first threads have counted goes to what the others have.
static void AddFirst(TarvoStatsPipe *pipe) {
    for (size_t kind = 0; kind < TARVO_STATS_KINDS; ++kind) {
        Move(&pipe->sent.messages[kind], &pipe->sent.firstMessages[kind]);
        Move(&pipe->sent.bytes[kind], &pipe->sent.firstBytes[kind]);
    }
    Move(&pipe->requests.begun, &pipe->requests.firstBegun);
    Move(&pipe->requests.finished, &pipe->requests.firstFinished);
    Move(&pipe->calls.begun, &pipe->calls.firstBegun);
    Move(&pipe->calls.ended[TARVO_STATS_END_ANSWERED], &pipe->calls.firstAnswered);
}

static void SetLevels(TarvoStatsPipe *pipe) {
    const uint64_t received = pipe->received.messages[TARVO_STATS_ONE_WAY] + pipe->received.messages[TARVO_STATS_CALL];
    SetLevel(&pipe->requests.queued, received,
             pipe->requests.begun + SumOf(pipe->requests.dropped, TARVO_STATS_DROP_REASONS));
    SetLevel(&pipe->requests.running, pipe->requests.begun, pipe->requests.finished);
    SetLevel(&pipe->calls.outstanding, pipe->calls.begun, SumOf(pipe->calls.ended, TARVO_STATS_ENDS));
}

// Most slots of most files were never used, and what they had in the reading before was zeros already.
static void Clear(TarvoStatsSlot *slot) {
    if (slot->sequence != 0 || slot->kind != TARVO_STATS_FREE) {
        memset(slot, 0, sizeof(*slot));
    }
}

// Once; -EAGAIN when it was being changed.
static int TryReadSlot(const TarvoStatsFile *file, uint64_t offset, TarvoStatsSlot *slot) {
    uint32_t before = 0;
    uint32_t after = 0;
    const uint64_t sequence = offset + offsetof(TarvoStatsSlot, sequence);
    int result = ReadOrdered(file, &before, sizeof(before), sequence);
    if (result == 0 && before == 0) {
        Clear(slot);
        return 0;
    }
    if (result == 0 && before % 2 != 0) {
        return -EAGAIN;
    }
    result = result < 0 ? result : ReadOrdered(file, slot, sizeof(*slot), offset);
    result = result < 0 ? result : ReadOrdered(file, &after, sizeof(after), sequence);
    if (result < 0) {
        return result;
    }
    slot->sequence = before;
    return before == after ? 0 : -EAGAIN;
}

// `slot` is zeros, or what this has read into it before.
static int ReadSlotAt(const TarvoStatsFile *file, uint32_t index, TarvoStatsSlot *slot, int attempts) {
    const uint64_t offset = TARVO_STATS_HEADER_SIZE + (uint64_t)index * TARVO_STATS_SLOT_SIZE;
    int result = -EAGAIN;
    for (int attempt = 0; result == -EAGAIN && attempt < attempts; ++attempt) {
        if (attempt > 0) {
            sched_yield(); // to the thread that was held up
        }
        result = TryReadSlot(file, offset, slot);
    }
    if (result == 0 && !IsSound(slot)) {
        result = -EBADMSG;
    }
    if (result < 0) {
        memset(slot, 0, sizeof(*slot));
    } else if (slot->kind == TARVO_STATS_PIPE || slot->kind == TARVO_STATS_GONE) {
        AddFirst(&slot->of.pipe);
        SetLevels(&slot->of.pipe);
    }
    return result;
}

int TarvoStatsReadSlot(TarvoStatsFile *file, uint32_t index, TarvoStatsSlot *slot) {
    TarvoStatsHeader header;
    const int result = TarvoStatsReadHeader(file, &header);
    if (result < 0) {
        return result;
    }
    if (index >= header.slots) {
        return -EBADMSG;
    }
    memset(slot, 0, sizeof(*slot));
    return ReadSlotAt(file, index, slot, SLOT_ATTEMPTS);
}

static int Reserve(TarvoStatsReading *reading, uint32_t slots) {
    if (slots <= reading->capacity) {
        return 0;
    }
    // What was there is read anew, so nothing is to be kept.
    free(reading->slot);
    reading->capacity = 0;
    reading->slot = calloc(slots, sizeof(TarvoStatsSlot));
    if (reading->slot == NULL) {
        return -ENOMEM;
    }
    reading->capacity = slots;
    return 0;
}

static int ReadSlots(const TarvoStatsFile *file, TarvoStatsReading *reading) {
    // Of a process that has ended nothing moves any more. And a process changes one slot at a time: who has waited in
    // vain for one need not wait for the next.
    int attempts = reading->alive ? SLOT_ATTEMPTS : 1;
    for (uint32_t index = 0; index < reading->header.slots; ++index) {
        const int result = ReadSlotAt(file, index, &reading->slot[index], attempts);
        attempts = result == -EAGAIN ? 1 : attempts;
        if (result == -EAGAIN || result == -EBADMSG) {
            ++reading->unreadable;
        } else if (result < 0) {
            return result;
        }
    }
    reading->slots = reading->header.slots;
    return 0;
}

// Once. Sets `inexact` when a pipe's numbers moved meanwhile.
static int TryRead(const TarvoStatsFile *file, TarvoStatsReading *reading) {
    uint32_t folding = 0;
    reading->slots = 0;
    reading->unreadable = 0;
    int result = TarvoStatsReadHeader(file, &reading->header);
    result = result < 0 ? result : Reserve(reading, reading->header.slots);
    atomic_thread_fence(memory_order_seq_cst);
    result = result < 0 ? result : ReadSlots(file, reading);
    result = result < 0 ? result : ReadOrdered(file, &folding, sizeof(folding), offsetof(TarvoStatsHeader, folding));
    reading->inexact = reading->header.folding % 2 != 0 || folding != reading->header.folding;
    return result;
}

int TarvoStatsRead(TarvoStatsFile *file, TarvoStatsReading *reading) {
    const int alive = TarvoStatsAlive(file);
    if (alive < 0) {
        return alive;
    }
    reading->alive = (uint32_t)alive;
    reading->owner = file->owner;
    int result = TryRead(file, reading);
    // Of one that was killed in the middle nothing moves any more.
    for (int attempt = 1; result == 0 && alive && reading->inexact && attempt < FILE_ATTEMPTS; ++attempt) {
        sched_yield();
        result = TryRead(file, reading);
    }
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    reading->readAt = (uint64_t)now.tv_sec * UINT64_C(1000000000) + (uint64_t)now.tv_nsec;
    return result;
}

void TarvoStatsFree(TarvoStatsReading *reading) {
    free(reading->slot);
    memset(reading, 0, sizeof(*reading));
}
