// A libselinux that remembers what it was asked for and answers as the test says. The test program defines the
// functions in front of the real library's.
#ifndef TARVO_UNIT_FIFO_FAKESELINUX_H
#define TARVO_UNIT_FIFO_FAKESELINUX_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarvo_test {

struct FakeSelinux {
    // Such as "setfilecon /a/path u:r:t:s"; freecon is not among them.
    std::vector<std::string> calls;
    // What getpidcon and getcon hand out, if anything, and return.
    std::optional<std::string> context;
    int getResult = 0;
    // What every other function returns.
    int result = 0;
    // What security_compute_av makes of the allowed vector, and what it was before.
    uint32_t allowed = 0;
    uint32_t allowedBefore = 0;
    // Contexts that were handed out and not yet released.
    std::set<char *> outstanding;
    // Releases of what was not handed out.
    int strayReleases = 0;
};

FakeSelinux &Selinux();

} // namespace tarvo_test

#endif // TARVO_UNIT_FIFO_FAKESELINUX_H
