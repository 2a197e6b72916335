#ifndef TARVO_LOOP_LOOPFIXTURE_H
#define TARVO_LOOP_LOOPFIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "loop/LoopKit.h"
#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/RawPeer.h"

namespace tarvo_test {

using Strings = std::vector<std::string>;

// A loop with one link by arrangement, and a remote whose bytes are written by hand. No descriptor, thread or file is
// left after it.
class LoopTest : public LeakCheckedTest {
protected:
    // The files are the remote's for a link in client mode, and the link's otherwise.
    void OpenLink(TarvoLinkKind kind) {
        if (kind == TARVO_LINK_ARRANGED_CLIENT) {
            peer.CreateFiles();
        }
        ASSERT_EQ(link.Open(kind, remote, self), 0);
        loop.RunBeside([&] {
            if (kind == TARVO_LINK_ARRANGED_CLIENT) {
                peer.OpenWrite();
            } else {
                peer.OpenBoth();
            }
        });
        ASSERT_TRUE(link.Await("opened 0"));
        link.events.clear();
    }

    // A frame that arrives shows that the link is alive and has dealt with everything before it.
    void ExpectAlive(const std::string &text = "alive") {
        peer.Send(RawRequest(77, text));
        EXPECT_TRUE(link.Await("request " + text));
    }

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    TestLoop loop;
    RawPeer peer{remote, self};
    Probe link{loop};
};

inline std::string KindName(const testing::TestParamInfo<TarvoLinkKind> &info) {
    switch (info.param) {
    case TARVO_LINK_TO_SERVER:
        return "ToServer";
    case TARVO_LINK_ARRANGED_CLIENT:
        return "ArrangedClient";
    case TARVO_LINK_ARRANGED_SERVER:
        return "ArrangedServer";
    }
    return "Unknown";
}

// The parameter: the mode of the link.
class BothModes : public LoopTest, public testing::WithParamInterface<TarvoLinkKind> {
protected:
    void SetUp() override { OpenLink(GetParam()); }
};

} // namespace tarvo_test

#define TARVO_BOTH_MODES(suite)                                                                                        \
    INSTANTIATE_TEST_SUITE_P(Modes, suite, testing::Values(TARVO_LINK_ARRANGED_CLIENT, TARVO_LINK_ARRANGED_SERVER),    \
                             ::tarvo_test::KindName)

#endif // TARVO_LOOP_LOOPFIXTURE_H
