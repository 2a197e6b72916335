// Many clients of one server through two bridges.
#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "bridge/BridgeKit.h"
#include "support/Rounds.h"

using namespace tarvo_test;

namespace {

// A process of whose loops none gives up a link that takes long to open.
struct PatientProcess {
    PatientProcess() { setenv("KELDOR_RUN_MODE", "1", 1); }
};

// Opens are under way for so long here that a machine which stands still for two seconds would stop some in the middle.
class CrowdTest : private PatientProcess, public BridgeTest {};

// Each call adds to the caller's sum at the server, and is answered by it: one that came twice, was lost, or got to
// another's sum would make it wrong.
TEST_F(CrowdTest, SixtyFourCallersFindTheirSumsRight) {
    Server server(loop, real);
    std::map<TarvoLink *, int64_t> sums;
    server.links.onRequest = [&sums](TarvoLink *link, uint32_t number, TarvoBytes payload) {
        sums[link] += std::stoll(Text(payload));
        EXPECT_EQ(TarvoLinkReply(link, number, Bytes(std::to_string(sums[link]))), 0);
    };
    StartBoth(4);
    ASSERT_TRUE(IsOffered());
    constexpr int CALLERS = 64;
    const int calls = StressRounds(40);
    struct Caller {
        Recorder recorder;
        TarvoLink *link = nullptr;
        int number = 0;
        int made = 0;
        int64_t sum = 0;
        std::function<void()> next;
    };
    std::deque<Caller> callers(CALLERS);
    int finished = 0;
    int number = 0;
    for (Caller &caller : callers) {
        caller.number = number++;
        caller.next = [&caller, &finished, calls] {
            if (caller.made == calls) {
                ++finished;
                return;
            }
            const int64_t summand = ++caller.made * 1000 + caller.number;
            caller.sum += summand;
            const auto done = [](void *context, int result, TarvoBytes answer) {
                auto &self = *static_cast<Caller *>(context);
                EXPECT_EQ(result, 0);
                EXPECT_EQ(Text(answer), std::to_string(self.sum));
                self.next();
            };
            ASSERT_GT(TarvoLinkCall(caller.link, Bytes(std::to_string(summand)), PATIENCE_MS, done, &caller), 0);
        };
        caller.recorder.onOpened = [&caller](TarvoLink *link) {
            ASSERT_EQ(caller.recorder.result, 0);
            caller.link = link;
            caller.next();
        };
        OpenLink(loop, caller.recorder, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    }
    EXPECT_TRUE(Wait([&] { return finished == CALLERS; }));
    EXPECT_EQ(sums.size(), static_cast<std::size_t>(CALLERS));
}

} // namespace
