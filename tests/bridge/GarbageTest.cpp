// Bridges that are told nonsense, by somebody who may write to their topics.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "bridge/BridgeKit.h"
#include "support/Rounds.h"

using namespace tarvo_test;
using tarvo_bridge::Announcement;
using tarvo_bridge::Bundle;
using tarvo_bridge::Item;
using tarvo_bridge::ItemKind;

namespace tarvo_test {

class GarbageTest : public BridgeTest {
protected:
    // Small numbers, which mean something, more often than others.
    uint32_t Number() {
        return random() % 3 == 0 ? static_cast<uint32_t>(random()) : static_cast<uint32_t>(random() % 6);
    }
    template <typename Value>
    Value OneOf(const std::vector<Value> &values) {
        return values[random() % values.size()];
    }

    Item AnyItem() {
        Item item;
        item.kind = static_cast<ItemKind>(random() % 5);
        item.session = Number();
        item.opener = random() % 2 == 0;
        item.count = Number();
        item.service = OneOf<std::string>({real, there, "nobody", std::string(100, 'n')});
        item.client = OneOf<std::string>({"c", "viewer_1", std::string(110, 'v')});
        item.id = Number();
        item.type = static_cast<uint32_t>(random() % 2);
        item.timeout = static_cast<int32_t>(Number());
        item.payload.assign(1 + random() % 4000, 'g');
        return item;
    }
    Bundle AnyBundle(const std::vector<uint64_t> &runs) {
        Bundle bundle;
        bundle.from = OneOf(runs);
        bundle.to = OneOf(runs);
        bundle.mine = Number();
        bundle.theirs = Number();
        bundle.confirmed = random() % 2 == 0;
        bundle.sequence = Number();
        bundle.items.resize(random() % 4);
        for (Item &item : bundle.items) {
            item = AnyItem();
        }
        return bundle;
    }

    std::mt19937 random{11};
};

// One that speaks for itself: it has a link of its own, and may do with that what it likes.
TEST_F(GarbageTest, NonsenseOfOneBridgeReachesNoOthersSessions) {
    Server server(loop, real);
    server.links.onRequest = [](TarvoLink *link, uint32_t number, TarvoBytes payload) {
        TarvoLinkReply(link, number, payload); // garbage that was let in may go before its answer
    };
    StartBoth();
    ASSERT_TRUE(IsOffered());
    constexpr uint64_t STRANGER = 99;
    const auto intruder = [&](const std::function<void(FakeNetwork &)> &work) {
        bridges.Do([&] {
            FakeNetwork network(bridges.cables, STRANGER);
            struct Deaf final : tarvo_bridge::Network::Listener {
                void OnAnnounced(const Announcement &) override {}
                void OnRunLost(uint64_t) override {}
                void OnBundle(Bundle &) override {}
            } deaf;
            network.SetListener(&deaf);
            work(network);
            while (bridges.cables.Deliver()) {
            }
        });
    };
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
    ASSERT_TRUE(Wait([&] { return client.opened; }));
    ASSERT_EQ(client.result, 0);
    const int rounds = StressRounds(300);
    for (int round = 0; round < rounds; ++round) {
        intruder([&](FakeNetwork &network) {
            Announcement told;
            told.run = STRANGER;
            told.machine = "stranger";
            told.services = {"nobody"};
            network.Announce(told);
            for (const auto run : {exporter, importer}) {
                network.Connect(run);
            }
            for (int i = 0; i < 20; ++i) {
                Bundle bundle = AnyBundle({STRANGER, exporter, importer});
                bundle.from = STRANGER;
                network.Send(bundle);
            }
        });
        ASSERT_GT(TarvoLinkCall(link, Bytes("honest"), PATIENCE_MS, Recorder::Done, &client), 0);
        ASSERT_TRUE(Wait([&] { return client.done == round + 1; }));
        ASSERT_EQ(client.events.back(), "done 0 honest");
    }
    EXPECT_EQ(client.closed, 0);
}

// One that forges senders can end what it speaks for, but nothing breaks for good.
TEST_F(GarbageTest, ForgedSendersBreakNothingForGood) {
    Server server(loop, real);
    server.links.onRequest = [](TarvoLink *link, uint32_t number, TarvoBytes payload) {
        TarvoLinkReply(link, number, payload);
    };
    StartBoth();
    ASSERT_TRUE(IsOffered());
    const int rounds = StressRounds(60);
    for (int round = 0; round < rounds; ++round) {
        bridges.Do([&] {
            for (int i = 0; i < 30; ++i) {
                Bundle bundle = AnyBundle({exporter, importer});
                // A count that no honest one can exceed shuts its own link out for good.
                bundle.mine %= 1000000;
                bridges.cables.Inject(bundle);
            }
        });
        ASSERT_TRUE(Eventually([&] {
            Recorder client;
            TarvoLink *const link = OpenLink(loop, client, there, TARVO_LINK_TO_SERVER, 2000, UniqueName("cli"));
            if (!Wait([&] { return client.opened; }) || client.result != 0 ||
                TarvoLinkCall(link, Bytes("honest"), 2000, Recorder::Done, &client) <= 0) {
                TarvoLinkClose(link);
                return false;
            }
            const bool ended = Wait([&] { return client.done == 1; });
            const bool good =
                ended && std::find(client.events.begin(), client.events.end(), "done 0 honest") != client.events.end();
            TarvoLinkClose(link);
            return good;
        })) << "round "
            << round;
    }
}

} // namespace tarvo_test
