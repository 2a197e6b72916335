#include "loop/Requests.h"

#include <new>

#include "tarvo_loop.h"

namespace {

constexpr std::size_t FIRST_SIZE = 64;

} // namespace

bool Requests::Add(uint32_t id, uint32_t &number) {
    if ((table.empty() || At(next).waits) && table.size() < TARVO_LOOP_MAX_REQUESTS && !Grow()) {
        return false;
    }
    number = next++;
    At(number) = {number, id, true};
    return true;
}

bool Requests::Find(uint32_t number, uint32_t &id) const {
    if (table.empty()) {
        return false;
    }
    const Entry &entry = table[number & (table.size() - 1)];
    if (entry.number != number || !entry.waits) {
        return false;
    }
    id = entry.id;
    return true;
}

void Requests::Remove(uint32_t number) { At(number).waits = false; }

bool Requests::Grow() {
    std::vector<Entry> larger;
    try {
        larger.resize(table.empty() ? FIRST_SIZE : 2 * table.size());
    } catch (const std::bad_alloc &) {
        return false;
    }
    larger.swap(table);
    for (const Entry &entry : larger) {
        At(entry.number) = entry;
    }
    return true;
}
