// The link between two bridges over a network that loses, repeats and delays.
#include "core/PeerLink.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

using namespace tarvo_bridge;

namespace {

constexpr int64_t LEASE_MS = 1000;
constexpr RunId A = 11;
constexpr RunId B = 22;

Item Numbered(uint32_t number) {
    Item item;
    item.kind = ItemKind::FRAME;
    item.id = number;
    item.payload = "x";
    return item;
}

// One side, and the bundles that it has sent.
struct LinkSide final : Network, PeerLink::Listener {
    LinkSide(RunId self, RunId peer) : link({self, peer}, LEASE_MS, beginnings, *this, *this) {}

    bool Announce(const Announcement &) override { return true; }
    bool Connect(RunId) override { return ++connects > 0; }
    void Disconnect(RunId) override { ++disconnects; }
    bool Send(const Bundle &bundle) override {
        if (!hasRoom) {
            return false;
        }
        sent.push_back(bundle);
        return true;
    }
    void OnLinkUp() override {
        ++ups;
        items.clear();
    }
    void OnLinkDown(const char *why) override {
        EXPECT_NE(std::string(why), "");
        ++downs;
    }
    void OnLinkRoom() override { ++rooms; }
    void OnItem(Item &item) override { items.push_back(item.id); }

    uint32_t beginnings = 0;
    bool hasRoom = true;
    int connects = 0;
    int disconnects = 0;
    int ups = 0;
    int downs = 0;
    int rooms = 0;
    std::deque<Bundle> sent;
    std::vector<uint32_t> items;
    PeerLink link;
};

class PeerLinkTest : public testing::Test {
protected:
    // Carries the oldest bundle of `from`, or loses it.
    void Carry(LinkSide &from, bool arrives = true) {
        ASSERT_FALSE(from.sent.empty());
        Bundle bundle = from.sent.front();
        from.sent.pop_front();
        if (arrives) {
            (&from == &a ? b : a).link.OnBundle(bundle, now);
        }
    }
    void CarryAll() {
        for (int steps = 0; !a.sent.empty() || !b.sent.empty(); ++steps) {
            ASSERT_LT(steps, 1000) << "the two never come to an end";
            Carry(a.sent.empty() ? b : a);
        }
    }
    void Pass(int64_t milliseconds) {
        now += milliseconds;
        a.link.OnTime(now);
        b.link.OnTime(now);
    }
    void ComeUp() {
        a.link.Begin(now);
        CarryAll();
        ASSERT_TRUE(a.link.IsUp());
        ASSERT_TRUE(b.link.IsUp());
    }
    void SendItem(LinkSide &side, uint32_t number) {
        side.link.Send(Numbered(number));
        side.link.Flush(now);
    }

    int64_t now = 100;
    LinkSide a{A, B};
    LinkSide b{B, A};
};

using Numbers = std::vector<uint32_t>;

TEST_F(PeerLinkTest, ComesUpWhenBothAreHeard) {
    a.link.Begin(now);
    Carry(a);
    EXPECT_FALSE(b.link.IsUp()) << "the peer cannot know yet that it is heard";
    Carry(b);
    EXPECT_TRUE(a.link.IsUp());
    CarryAll();
    EXPECT_TRUE(b.link.IsUp());
    EXPECT_EQ(a.ups, 1);
    EXPECT_EQ(b.ups, 1);
    EXPECT_EQ(a.link.Due(), PeerLink::NEVER) << "an idle link needs no time";
}

TEST_F(PeerLinkTest, CountsThatAPeerUsesUpAreThoseOfItsOwnLink) {
    ComeUp();
    Bundle bundle;
    bundle.from = B;
    bundle.to = A;
    bundle.mine = 1;
    bundle.theirs = 0x7FFFFFFF;
    a.link.OnBundle(bundle, now);
    EXPECT_LT(a.beginnings, 10U) << "other links go on counting from here";
}

TEST_F(PeerLinkTest, GreetingIsRepeatedUntilItIsHeard) {
    a.link.Begin(now);
    for (int lost = 0; lost < 20; ++lost) {
        Carry(a, false);
        ASSERT_NE(a.link.Due(), PeerLink::NEVER);
        now = a.link.Due();
        a.link.OnTime(now);
    }
    CarryAll();
    EXPECT_TRUE(a.link.IsUp());
    EXPECT_TRUE(b.link.IsUp());
}

TEST_F(PeerLinkTest, LostAnswerToAGreetingIsGivenAgain) {
    a.link.Begin(now);
    Carry(a);
    Carry(b);
    Carry(a, false); // that it is heard
    EXPECT_TRUE(a.link.IsUp());
    EXPECT_FALSE(b.link.IsUp());
    Pass(50);
    CarryAll();
    EXPECT_TRUE(b.link.IsUp());
    EXPECT_EQ(a.ups, 1);
}

TEST_F(PeerLinkTest, FirstItemsBringTheLinkUpWhereTheLastGreetingWasLost) {
    a.link.Begin(now);
    Carry(a);
    Carry(b);
    Carry(a, false);
    SendItem(a, 1);
    Carry(a);
    EXPECT_TRUE(b.link.IsUp());
    EXPECT_EQ(b.items, Numbers({1}));
}

TEST_F(PeerLinkTest, ItemsArriveInOrderAndOnceHoweverOftenTheyCome) {
    ComeUp();
    for (uint32_t number = 1; number <= 600; ++number) {
        a.link.Send(Numbered(number));
    }
    a.link.Flush(now);
    EXPECT_GE(a.sent.size(), 3U) << "a bundle has 256 items at most";
    Numbers expected;
    for (uint32_t number = 1; number <= 600; ++number) {
        expected.push_back(number);
    }
    while (!a.sent.empty()) {
        const Bundle again = a.sent.front();
        EXPECT_LE(again.items.size(), MAX_ITEMS);
        Carry(a);
        Bundle copy = again;
        b.link.OnBundle(copy, now);
    }
    EXPECT_EQ(b.items, expected);
    EXPECT_EQ(b.downs, 0);
}

TEST_F(PeerLinkTest, MissingItemsEndTheLinkOnBothSidesAndItComesUpAnew) {
    ComeUp();
    SendItem(a, 1);
    SendItem(a, 2);
    SendItem(a, 3);
    Carry(a);
    Carry(a, false);
    CarryAll();
    EXPECT_EQ(a.downs, 1);
    EXPECT_EQ(b.downs, 1);
    EXPECT_EQ(a.ups, 2);
    EXPECT_EQ(b.ups, 2);
    SendItem(a, 4);
    SendItem(b, 5);
    CarryAll();
    EXPECT_EQ(b.items, Numbers({4}));
    EXPECT_EQ(a.items, Numbers({5}));
}

TEST_F(PeerLinkTest, MissingLastItemsAreFoundByTheNextGreeting) {
    ComeUp();
    a.link.SetBusy(true, now);
    b.link.SetBusy(true, now);
    SendItem(a, 1);
    Carry(a, false);
    Pass(LEASE_MS / 3 + 1);
    CarryAll();
    EXPECT_EQ(b.downs, 1);
    EXPECT_EQ(a.downs, 1);
}

TEST_F(PeerLinkTest, NothingOfAnEarlierLinkReachesTheNext) {
    ComeUp();
    SendItem(a, 1);
    const Bundle old = a.sent.front();
    Carry(a, false);
    a.link.OnLost();
    a.link.OnAnnounced(now);
    CarryAll();
    ASSERT_TRUE(b.link.IsUp());
    EXPECT_EQ(b.downs, 1);
    Bundle late = old;
    b.link.OnBundle(late, now);
    EXPECT_EQ(b.items, Numbers());
    EXPECT_TRUE(b.link.IsUp());
    EXPECT_EQ(b.downs, 1);
}

TEST_F(PeerLinkTest, PeerThatOnlyOneSideHasLostBeginsAnew) {
    ComeUp();
    b.link.OnLost();
    EXPECT_TRUE(a.link.IsUp()) << "it knows nothing of it";
    b.link.OnAnnounced(now);
    CarryAll();
    EXPECT_EQ(a.downs, 1);
    EXPECT_TRUE(a.link.IsUp());
    EXPECT_TRUE(b.link.IsUp());
}

TEST_F(PeerLinkTest, ItemsForALinkThatIsOverAreAnsweredByANewBeginning) {
    ComeUp();
    b.link.OnLost();
    SendItem(a, 1);
    CarryAll();
    EXPECT_EQ(a.downs, 1);
    EXPECT_EQ(b.items, Numbers());
    EXPECT_TRUE(a.link.IsUp());
    EXPECT_TRUE(b.link.IsUp());
}

TEST_F(PeerLinkTest, BothMayBeginAnewAtOnce) {
    for (int round = 0; round < 20; ++round) {
        a.link.Begin(now);
        b.link.Begin(now);
        SendItem(a, 1);
        CarryAll();
        ASSERT_TRUE(a.link.IsUp());
        ASSERT_TRUE(b.link.IsUp());
        a.link.OnLost();
        b.link.OnLost();
    }
}

TEST_F(PeerLinkTest, SilentPeerOfABusyLinkIsGoneAfterTheLease) {
    ComeUp();
    a.link.SetBusy(true, now);
    b.link.SetBusy(true, now);
    for (int thirds = 0; thirds < 10; ++thirds) {
        Pass(LEASE_MS / 3 + 1);
        CarryAll();
    }
    EXPECT_EQ(a.downs, 0) << "both still speak";
    for (int thirds = 0; thirds < 3; ++thirds) {
        now += LEASE_MS / 3 + 1;
        a.link.OnTime(now);
        a.sent.clear();
    }
    EXPECT_EQ(a.downs, 1);
}

TEST_F(PeerLinkTest, WhatFindsNoRoomIsSentLaterInItsPlace) {
    ComeUp();
    a.hasRoom = false;
    SendItem(a, 1);
    SendItem(a, 2);
    EXPECT_TRUE(a.sent.empty());
    EXPECT_LE(a.link.Due(), now + 10);
    a.hasRoom = true;
    Pass(10);
    CarryAll();
    EXPECT_EQ(b.items, Numbers({1, 2}));
}

TEST_F(PeerLinkTest, WhatFindsNoRoomIsBounded) {
    ComeUp();
    a.hasRoom = false;
    Item item = Numbered(1);
    item.payload.assign(4000, 'x');
    int taken = 0;
    while (!a.link.IsFull() && taken < 100000) {
        a.link.Send(Item(item));
        ++taken;
    }
    EXPECT_LT(taken, 3000);
    EXPECT_EQ(a.rooms, 0);
    a.hasRoom = true;
    a.link.Flush(now);
    EXPECT_EQ(a.rooms, 1) << "who waits for room is told";
    EXPECT_FALSE(a.link.IsFull());
    CarryAll();
    EXPECT_EQ(b.items.size(), static_cast<std::size_t>(taken));
}

// What is sent all the same, for another bridge that makes this one speak and does not listen, ends the link.
TEST_F(PeerLinkTest, LinkThatTakesNothingEnds) {
    ComeUp();
    a.hasRoom = false;
    for (int turn = 0; turn < 1000 && a.downs == 0; ++turn) {
        for (int i = 0; i < 1000; ++i) {
            a.link.Send(Numbered(1));
        }
        a.link.Flush(now);
        Pass(1);
    }
    EXPECT_EQ(a.downs, 1);
    EXPECT_FALSE(a.link.HasUnsent());
    a.hasRoom = true;
    Pass(50);
    CarryAll();
    EXPECT_TRUE(a.link.IsUp());
    EXPECT_TRUE(b.link.IsUp());
}

TEST_F(PeerLinkTest, LostPeerCostsNoConnection) {
    ComeUp();
    a.link.OnLost();
    EXPECT_EQ(a.disconnects, 1);
    EXPECT_EQ(a.link.Due(), PeerLink::NEVER);
}

TEST_F(PeerLinkTest, BundlesForOthersAreNotHeard) {
    ComeUp();
    Bundle stray;
    stray.from = A;
    stray.to = 33;
    stray.mine = 1000;
    b.link.OnBundle(stray, now);
    EXPECT_TRUE(b.link.IsUp());
    EXPECT_EQ(b.downs, 0);
}

TEST_F(PeerLinkTest, SomebodyWhoSpeaksForThePeerShutsItOutOnlyForAWhile) {
    ComeUp();
    Bundle forged;
    forged.from = A;
    forged.to = B;
    forged.mine = 1000;
    b.link.OnBundle(forged, now);
    EXPECT_FALSE(b.link.IsUp());
    SendItem(a, 1);
    CarryAll();
    EXPECT_TRUE(a.link.IsUp());
    EXPECT_TRUE(b.link.IsUp());
    SendItem(a, 2);
    CarryAll();
    EXPECT_EQ(b.items, Numbers({2}));
}

// Each takes the other's true counts for those of a link that is over, and says so.
TEST_F(PeerLinkTest, SomebodyWhoSpeaksForBothKeepsThemFromEachOtherNoLonger) {
    ComeUp();
    for (LinkSide *const side : {&a, &b}) {
        Bundle forged;
        forged.from = side == &a ? B : A;
        forged.to = side == &a ? A : B;
        forged.mine = 1000;
        side->link.OnBundle(forged, now);
        side->sent.clear();
    }
    Pass(LEASE_MS);
    CarryAll();
    EXPECT_TRUE(a.link.IsUp());
    EXPECT_TRUE(b.link.IsUp());
    SendItem(a, 7);
    CarryAll();
    EXPECT_EQ(b.items, Numbers{7});
}

// No count of the peer's own can exceed these.
TEST_F(PeerLinkTest, HighestCountsInThePeersNameShutItOutOnlyForAWhile) {
    for (const uint32_t count : {0x7FFFFFFEU, 0x7FFFFFFFU}) {
        for (const bool inPeersCount : {false, true}) {
            ComeUp();
            Bundle forged;
            forged.from = A;
            forged.to = B;
            forged.mine = inPeersCount ? count : 1;
            forged.theirs = inPeersCount ? 0 : count;
            b.link.OnBundle(forged, now);
            CarryAll();
            for (int greeting = 0; greeting < 3; ++greeting) {
                Pass(LEASE_MS);
                CarryAll();
            }
            a.items.clear();
            b.items.clear();
            SendItem(a, 1);
            SendItem(b, 2);
            CarryAll();
            EXPECT_TRUE(a.link.IsUp() && b.link.IsUp()) << count << (inPeersCount ? " of it" : " of this one");
            EXPECT_EQ(b.items, Numbers{1});
            EXPECT_EQ(a.items, Numbers{2});
        }
    }
}

// Whatever a network does: what arrives of one link is a beginning of what was sent through it, and when the network
// behaves again both sides come up.
TEST_F(PeerLinkTest, AnyNetworkYieldsABeginningOfWhatWasSent) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        std::mt19937 random(seed);
        LinkSide left(A, B);
        LinkSide right(B, A);
        std::deque<Bundle> late;
        int64_t time = 100;
        uint32_t number = 0;
        int ups = 0;
        left.link.Begin(time);
        for (int step = 0; step < 400; ++step) {
            LinkSide &from = random() % 2 == 0 ? left : right;
            LinkSide &to = &from == &left ? right : left;
            switch (random() % 8) {
            case 0:
                if (!from.sent.empty()) {
                    from.sent.pop_front(); // lost
                }
                break;
            case 1:
                if (!from.sent.empty()) {
                    late.push_back(from.sent.front()); // comes again
                }
                break;
            case 2:
                if (!late.empty()) {
                    Bundle bundle = late.front();
                    late.pop_front();
                    (bundle.to == A ? left : right).link.OnBundle(bundle, time);
                }
                break;
            case 3:
                if (random() % 10 == 0) {
                    from.link.OnLost();
                    from.link.OnAnnounced(time);
                }
                break;
            case 4:
                if (left.link.IsUp()) {
                    number = left.ups == ups ? number + 1 : 1;
                    ups = left.ups;
                    left.link.Send(Numbered(number));
                    left.link.Flush(time);
                }
                break;
            case 5:
                time += 20;
                left.link.OnTime(time);
                right.link.OnTime(time);
                break;
            default:
                if (!from.sent.empty()) {
                    Bundle bundle = from.sent.front();
                    from.sent.pop_front();
                    to.link.OnBundle(bundle, time);
                }
            }
            for (std::size_t i = 0; i < right.items.size(); ++i) {
                ASSERT_EQ(right.items[i], i + 1) << "seed " << seed << " step " << step;
            }
        }
        left.link.OnAnnounced(time);
        right.link.OnAnnounced(time);
        left.link.Begin(time);
        left.link.SetBusy(true, time);
        right.link.SetBusy(true, time);
        for (int step = 0; step < 2000 && !(left.link.IsUp() && right.link.IsUp() && left.sent.empty()); ++step) {
            LinkSide &from = left.sent.empty() ? right : left;
            if (from.sent.empty()) {
                time += 50;
                left.link.OnTime(time);
                right.link.OnTime(time);
                continue;
            }
            Bundle bundle = from.sent.front();
            from.sent.pop_front();
            (&from == &left ? right : left).link.OnBundle(bundle, time);
        }
        ASSERT_TRUE(left.link.IsUp() && right.link.IsUp()) << "seed " << seed;
    }
}

} // namespace
