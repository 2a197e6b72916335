// Both sides of one client's pipe, with pipes that do as the test says.
#include "core/Session.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

using namespace tarvo_bridge;

namespace {

constexpr uint32_t WINDOW = 8;

struct FakePipe final : LocalPipe {
    bool Write(const FrameBytes &frame) override {
        if (room == 0) {
            return false;
        }
        --room;
        written.emplace_back(frame.payload);
        last = {frame.id, frame.type, frame.timeout, {}};
        return true;
    }
    bool Flush() override { return flushed; }
    void Pause() override { paused = true; }
    void Resume() override { paused = false; }
    void Close() override { ++closed; }

    int room = 1000;
    bool flushed = true;
    bool paused = false;
    int closed = 0;
    FrameBytes last{};
    std::vector<std::string> written;
};

// A session and what it has sent.
struct Side final : Session::Owner {
    explicit Side(bool opener) : session(1, opener, WINDOW, *this) {}
    bool SendItem(Session &, Item &&item) override {
        sent.push_back(std::move(item));
        return !full;
    }
    LocalPipe *MakeClientPipe(Session &) override {
        ++made;
        return refuses ? nullptr : &pipe;
    }
    void OnSessionOver(Session &) override { ++over; }
    // How many items of a kind wait to be carried.
    int Waiting(ItemKind kind) const {
        int count = 0;
        for (const Item &item : sent) {
            count += item.kind == kind ? 1 : 0;
        }
        return count;
    }

    FakePipe pipe;
    bool refuses = false;
    bool full = false;
    int made = 0;
    int over = 0;
    std::deque<Item> sent;
    Session session;
};

class SessionTest : public testing::Test {
protected:
    void Carry(Side &from, Side &to) {
        while (!from.sent.empty()) {
            Item item = std::move(from.sent.front());
            from.sent.pop_front();
            if (item.kind == ItemKind::OPEN) {
                to.session.Take(&to.pipe, item.count);
            } else {
                to.session.OnItem(item);
            }
        }
    }
    void CarryAll() {
        while (!client.sent.empty() || !server.sent.empty()) {
            Carry(client, server);
            Carry(server, client);
        }
    }
    void Open() {
        client.session.Ask("camera", "viewer_1");
        CarryAll();
        server.session.OnPipeOpen();
        CarryAll();
        client.session.OnPipeOpen();
        CarryAll();
    }
    static void Say(Side &side, const std::string &text) { side.session.OnPipeFrame({7, 1, 250, text}); }

    Side client{true};
    Side server{false};
};

using Texts = std::vector<std::string>;

TEST_F(SessionTest, ClientGetsItsPipeOnlyWhenTheServersIsOpen) {
    client.session.Ask("camera", "viewer_1");
    CarryAll();
    EXPECT_EQ(client.made, 0) << "the server has not answered yet";
    server.session.OnPipeOpen();
    CarryAll();
    EXPECT_EQ(client.made, 1);
}

TEST_F(SessionTest, FramesPassUnchanged) {
    Open();
    Say(client, "question");
    CarryAll();
    EXPECT_EQ(server.pipe.written, Texts({"question"}));
    EXPECT_EQ(server.pipe.last.id, 7U);
    EXPECT_EQ(server.pipe.last.type, 1U);
    EXPECT_EQ(server.pipe.last.timeout, 250);
}

TEST_F(SessionTest, FirstFramesOfTheServerWaitForTheClientsPipe) {
    client.session.Ask("camera", "viewer_1");
    CarryAll();
    server.session.OnPipeOpen();
    Say(server, "early");
    CarryAll();
    EXPECT_EQ(client.pipe.written, Texts());
    client.session.OnPipeOpen();
    EXPECT_EQ(client.pipe.written, Texts({"early"}));
}

TEST_F(SessionTest, PipeIsNotReadWithoutCredit) {
    Open();
    server.pipe.room = 0;
    for (uint32_t i = 0; i < WINDOW; ++i) {
        EXPECT_FALSE(client.pipe.paused);
        Say(client, std::to_string(i));
    }
    EXPECT_TRUE(client.pipe.paused);
    CarryAll();
    EXPECT_TRUE(client.pipe.paused) << "nothing has been delivered";
    EXPECT_EQ(server.session.Waiting(), WINDOW);
    server.pipe.room = 1000;
    server.session.OnPipeWritable();
    CarryAll();
    EXPECT_FALSE(client.pipe.paused);
    EXPECT_EQ(server.pipe.written, Texts({"0", "1", "2", "3", "4", "5", "6", "7"}));
}

TEST_F(SessionTest, CreditNeverRunsDryWhereTheReceiverDelivers) {
    Open();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_FALSE(client.pipe.paused) << i;
        Say(client, "x");
        CarryAll();
    }
    EXPECT_EQ(server.pipe.written.size(), 1000U);
}

TEST_F(SessionTest, PipeIsNotReadWhileTheLinkIsFull) {
    Open();
    client.full = true;
    Say(client, "1");
    EXPECT_TRUE(client.pipe.paused);
    client.full = false;
    client.session.OnRoom();
    EXPECT_FALSE(client.pipe.paused);
    server.pipe.room = 0;
    for (uint32_t i = 1; i < WINDOW; ++i) {
        Say(client, "x");
    }
    CarryAll();
    client.session.OnRoom();
    EXPECT_TRUE(client.pipe.paused) << "it has no credit";
}

TEST_F(SessionTest, CloseOfOneSideClosesTheOther) {
    Open();
    client.session.OnPipeGone();
    EXPECT_EQ(client.over, 1);
    EXPECT_EQ(client.pipe.closed, 1);
    CarryAll();
    EXPECT_EQ(server.over, 1);
    EXPECT_EQ(server.pipe.closed, 1);
    EXPECT_TRUE(server.sent.empty()) << "a close is not answered";
}

TEST_F(SessionTest, WhatWasSentBeforeACloseIsDelivered) {
    Open();
    server.pipe.room = 1;
    server.pipe.flushed = false;
    Say(client, "1");
    Say(client, "2");
    client.session.OnPipeGone();
    CarryAll();
    EXPECT_EQ(server.over, 0) << "a frame is left";
    server.pipe.room = 1;
    server.session.OnPipeWritable();
    EXPECT_EQ(server.pipe.written, Texts({"1", "2"}));
    EXPECT_EQ(server.over, 0) << "it is not with the server yet";
    server.pipe.flushed = true;
    server.session.OnPipeWritable();
    EXPECT_EQ(server.over, 1);
}

TEST_F(SessionTest, LostLinkDeliversWhatHasComeAndCloses) {
    Open();
    server.pipe.room = 0;
    Say(client, "1");
    CarryAll();
    server.session.OnLinkDown();
    EXPECT_EQ(server.over, 0);
    server.pipe.room = 10;
    server.session.OnPipeWritable();
    EXPECT_EQ(server.pipe.written, Texts({"1"}));
    EXPECT_EQ(server.over, 1);
    EXPECT_TRUE(server.sent.empty()) << "there is nobody to tell";
}

TEST_F(SessionTest, ServerThatDiesWhileItsRemoteSideDrainsEndsIt) {
    Open();
    server.pipe.room = 0;
    Say(client, "1");
    client.session.OnPipeGone();
    CarryAll();
    server.session.OnPipeGone();
    EXPECT_EQ(server.over, 1);
}

TEST_F(SessionTest, ServerThatCannotBeReachedEndsTheClientsSide) {
    client.session.Ask("camera", "viewer_1");
    CarryAll();
    server.session.OnPipeFailed(-6);
    CarryAll();
    EXPECT_EQ(server.over, 1);
    EXPECT_EQ(client.over, 1);
    EXPECT_EQ(client.made, 0);
}

TEST_F(SessionTest, ClientThatHasGivenUpEndsTheServersSide) {
    client.session.Ask("camera", "viewer_1");
    CarryAll();
    server.session.OnPipeOpen();
    CarryAll();
    client.session.OnPipeFailed(-110);
    CarryAll();
    EXPECT_EQ(server.over, 1);
    EXPECT_EQ(client.over, 1);
}

TEST_F(SessionTest, ClientWhosePipeCannotBeMadeEndsBothSides) {
    client.refuses = true;
    client.session.Ask("camera", "viewer_1");
    CarryAll();
    server.session.OnPipeOpen();
    CarryAll();
    EXPECT_EQ(server.over, 1);
    EXPECT_EQ(client.over, 1);
}

TEST_F(SessionTest, ServerThatClosesAtOnceLetsTheClientsPipeOpenFirst) {
    client.session.Ask("camera", "viewer_1");
    CarryAll();
    server.session.OnPipeOpen();
    Say(server, "goodbye");
    server.session.OnPipeGone();
    CarryAll();
    EXPECT_EQ(client.over, 0);
    client.session.OnPipeOpen();
    EXPECT_EQ(client.pipe.written, Texts({"goodbye"}));
    EXPECT_EQ(client.over, 1);
}

TEST_F(SessionTest, SenderWithoutCreditIsShutOut) {
    Open();
    server.pipe.room = 0;
    for (uint32_t i = 0; i <= WINDOW; ++i) {
        Item item;
        item.kind = ItemKind::FRAME;
        item.payload = "flood";
        server.session.OnItem(item);
    }
    EXPECT_EQ(server.over, 1);
    EXPECT_EQ(server.Waiting(ItemKind::CLOSE), 1);
}

TEST_F(SessionTest, CreditOfAStrangerIsBounded) {
    Open();
    Item item;
    item.kind = ItemKind::CREDIT;
    item.count = UINT32_MAX;
    for (int i = 0; i < 10; ++i) {
        client.session.OnItem(item);
    }
    EXPECT_LE(client.session.Credit(), Session::LARGEST_WINDOW);
}

TEST_F(SessionTest, ItemsOutOfTheirTimeChangeNothing) {
    Side fresh(false);
    for (const ItemKind kind : {ItemKind::OPENED, ItemKind::CREDIT, ItemKind::OPEN, ItemKind::FRAME}) {
        Item item;
        item.kind = kind;
        item.count = 5;
        item.payload = "x";
        fresh.session.OnItem(item);
    }
    EXPECT_EQ(fresh.over, 0);
    EXPECT_TRUE(fresh.sent.empty());
    EXPECT_EQ(fresh.made, 0);
}

} // namespace
