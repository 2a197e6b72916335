#include "loop/Requests.h"

#include <new>

#include "tarvo_loop.h"

namespace {

constexpr std::size_t FIRST_SIZE = 64;

} // namespace

bool Requests::Add(uint32_t id, uint32_t &number) {
    const bool crowded = ids.empty() || waiting[IndexOf(next)];
    if (crowded && ids.size() < TARVO_LOOP_MAX_REQUESTS && !Grow()) {
        return false;
    }
    number = next++;
    ids[IndexOf(number)] = id;
    waiting[IndexOf(number)] = true;
    return true;
}

// Those that are older than the table is long have been answered, or are too old for that.
bool Requests::Waits(uint32_t number) const { return next - 1 - number < ids.size() && waiting[IndexOf(number)]; }

bool Requests::Find(uint32_t number, uint32_t &id) const {
    if (!Waits(number)) {
        return false;
    }
    id = ids[IndexOf(number)];
    return true;
}

void Requests::Remove(uint32_t number) { waiting[IndexOf(number)] = false; }

bool Requests::Grow() {
    Requests larger;
    const std::size_t size = ids.empty() ? FIRST_SIZE : 2 * ids.size();
    try {
        larger.ids.resize(size);
        larger.waiting.resize(size);
    } catch (const std::bad_alloc &) {
        return false;
    }
    for (std::size_t age = 1; age <= ids.size(); ++age) {
        const uint32_t number = next - static_cast<uint32_t>(age);
        larger.ids[larger.IndexOf(number)] = ids[IndexOf(number)];
        larger.waiting[larger.IndexOf(number)] = waiting[IndexOf(number)];
    }
    ids.swap(larger.ids);
    waiting.swap(larger.waiting);
    return true;
}
