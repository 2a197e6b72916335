#include "loop/Calls.h"

#include <cerrno>
#include <new>

namespace {

// The part of a count of uses that an id on the wire holds.
constexpr int64_t USES_MASK = 0x7FFF;

} // namespace

Calls::~Calls() {
    for (Slot *slot = active.first; slot != nullptr; slot = slot->next) {
        timers.Disarm(*slot);
    }
}

void Calls::Slot::OnTimer() {
    calls->End(*this, -ETIMEDOUT, 0);
    calls->listener.OnCallEnded();
}

int64_t Calls::Begin(TarvoDone done, void *context, int64_t deadlineUs, uint64_t begun) {
    if (unused.first == nullptr) {
        if (chunks.size() * CHUNK >= TARVO_LOOP_MAX_CALLS) {
            return -ENOBUFS;
        }
        if (!AddChunk()) {
            return -ENOMEM;
        }
    }
    Slot &slot = *unused.first;
    if (deadlineUs >= 0 && !timers.Arm(slot, deadlineUs)) {
        return -ENOMEM;
    }
    unused.Remove(slot);
    active.Append(slot);
    slot.state = State::ACTIVE;
    const int64_t uses = (slot.number >> SLOT_BITS) + 1;
    // A count of 0 would make the id 0, which other peers may give to what has none.
    const int64_t whole = (uses & USES_MASK) == 0 ? uses + 1 : uses;
    slot.number = whole << SLOT_BITS | (slot.number & SLOT_MASK);
    slot.end = {done, context, 0, WireId(slot.number), begun};
    return slot.number;
}

bool Calls::AddChunk() {
    try {
        chunks.push_back(std::make_unique<std::array<Slot, CHUNK>>());
    } catch (const std::bad_alloc &) {
        return false;
    }
    auto index = static_cast<int64_t>((chunks.size() - 1) * CHUNK);
    for (Slot &slot : *chunks.back()) {
        slot.calls = this;
        slot.number = index++;
        unused.Append(slot);
    }
    return true;
}

Calls::Slot *Calls::Active(uint32_t index) {
    if (index >= chunks.size() * CHUNK) {
        return nullptr;
    }
    Slot &slot = (*chunks[index / CHUNK])[index % CHUNK];
    return slot.state == State::ACTIVE ? &slot : nullptr;
}

void Calls::Release(Slot &slot, List &list) {
    timers.Disarm(slot);
    list.Remove(slot);
    unused.Append(slot);
    slot.state = State::FREE;
}

void Calls::Undo(int64_t number) {
    const uint32_t index = static_cast<uint32_t>(number) & SLOT_MASK;
    Slot &slot = (*chunks[index / CHUNK])[index % CHUNK];
    // Its end may have come of the same failure that it is taken back for.
    Release(slot, slot.state == State::ACTIVE ? active : ended);
}

bool Calls::Answer(uint32_t wireId, CallEnd &end) {
    Slot *const slot = Active(wireId & SLOT_MASK);
    if (slot == nullptr || WireId(slot->number) != wireId) {
        return false;
    }
    end = slot->end;
    Release(*slot, active);
    return true;
}

void Calls::End(Slot &slot, int result, uint64_t round) {
    timers.Disarm(slot);
    active.Remove(slot);
    ended.Append(slot);
    slot.state = State::ENDED;
    slot.end.result = result;
    slot.round = round;
}

bool Calls::End(int64_t number, int result, uint64_t round) {
    Slot *const slot = Active(static_cast<uint32_t>(number) & SLOT_MASK);
    if (slot == nullptr || slot->number != number) {
        return false;
    }
    End(*slot, result, round);
    return true;
}

bool Calls::EndByWireId(uint32_t wireId, int result, uint64_t round) {
    Slot *const slot = Active(wireId & SLOT_MASK);
    return slot != nullptr && WireId(slot->number) == wireId && End(slot->number, result, round);
}

void Calls::EndAll(int result, uint64_t round) {
    while (active.first != nullptr) {
        End(*active.first, result, round);
    }
}

void Calls::CancelAll(uint64_t round) {
    for (Slot *slot = ended.first; slot != nullptr; slot = slot->next) {
        slot->end.result = -ECANCELED;
    }
    EndAll(-ECANCELED, round);
}

bool Calls::NextEnd(uint64_t round, CallEnd &end) {
    if (ended.first == nullptr || ended.first->round >= round) {
        return false;
    }
    end = ended.first->end;
    Release(*ended.first, ended);
    return true;
}

void Calls::List::Append(Slot &slot) {
    slot.previous = last;
    slot.next = nullptr;
    (last != nullptr ? last->next : first) = &slot;
    last = &slot;
}

void Calls::List::Remove(Slot &slot) {
    (slot.previous != nullptr ? slot.previous->next : first) = slot.next;
    (slot.next != nullptr ? slot.next->previous : last) = slot.previous;
}
