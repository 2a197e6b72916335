// The blocking call, between a loop on the test's thread and a server on another.
#include <atomic>
#include <cerrno>
#include <thread>

#include "LoopKit.h"

namespace tarvo_test {
namespace {

// A server on a thread of its own, which answers by what `serve` does.
class FarServer {
public:
    explicit FarServer(std::function<void(TarvoLink *, uint32_t, TarvoBytes)> serve) : name(UniqueName("srv")) {
        thread = std::thread([this, serve] {
            TarvoLoop *mine = nullptr;
            ASSERT_EQ(TarvoLoopCreate(&mine), 0);
            {
                Server server(mine, name);
                ASSERT_EQ(server.result, 0);
                server.links.onRequest = serve;
                loop = mine;
                EXPECT_EQ(TarvoLoopRun(mine, PATIENCE_MS), 0);
                TarvoLoopDestroy(mine);
            }
        });
        while (loop == nullptr) {
            std::this_thread::yield();
        }
    }
    ~FarServer() {
        TarvoLoopStop(loop);
        thread.join();
    }

    const std::string name;

private:
    std::atomic<TarvoLoop *> loop{nullptr};
    std::thread thread;
};

void Echo(TarvoLink *link, uint32_t number, TarvoBytes payload) { TarvoLinkReply(link, number, payload); }

TEST_F(LoopTest, CallSyncOpensTheLinkAndBringsTheAnswer) {
    FarServer server(Echo);
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, server.name);
    char answer[100];
    uint32_t size = sizeof(answer);
    ASSERT_EQ(TarvoLinkCallSync(link, Bytes("hello"), PATIENCE_MS, answer, &size), 0);
    EXPECT_EQ(std::string(answer, size), "hello");
    EXPECT_FALSE(client.opened);
    EXPECT_TRUE(Wait([&] { return client.opened; }));
    EXPECT_EQ(client.result, 0);
}

TEST_F(LoopTest, CallSyncKeepsTheRestInOrder) {
    FarServer server([](TarvoLink *link, uint32_t number, TarvoBytes payload) {
        TarvoLinkSend(link, Bytes("before"));
        TarvoLinkReply(link, number, payload);
        TarvoLinkSend(link, Bytes("after"));
    });
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, server.name);
    ASSERT_TRUE(Wait([&] { return client.opened; }));
    TarvoLinkCall(link, Bytes("first"), PATIENCE_MS, Recorder::Done, &client);
    char answer[100];
    uint32_t size = sizeof(answer);
    ASSERT_EQ(TarvoLinkCallSync(link, Bytes("second"), PATIENCE_MS, answer, &size), 0);
    EXPECT_EQ(std::string(answer, size), "second");
    EXPECT_EQ(client.done, 0);
    EXPECT_TRUE(client.requests.empty());
    ASSERT_TRUE(Wait([&] { return client.requests.size() == 4; }));
    const std::vector<std::string> expected = {"opened 0",      "request before", "done 0 first",
                                               "request after", "request before", "request after"};
    EXPECT_EQ(client.events, expected);
}

TEST_F(LoopTest, CallSyncEndsWithItsTime) {
    FarServer server([](TarvoLink *, uint32_t, TarvoBytes) {});
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, server.name);
    char answer[1];
    uint32_t size = sizeof(answer);
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("x"), 30, answer, &size), -ETIMEDOUT);
    EXPECT_EQ(size, 1U);
}

TEST_F(LoopTest, CallSyncOnALinkThatNobodyServesEndsWithItsTime) {
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, UniqueName("far"), TARVO_LINK_ARRANGED_SERVER);
    char answer[1];
    uint32_t size = sizeof(answer);
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("x"), 30, answer, &size), -ETIMEDOUT);
    EXPECT_EQ(TarvoLinkClose(link), 0);
}

TEST_F(LoopTest, CallSyncTellsOfAServerThatIsMissing) {
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, UniqueName("none"));
    char answer[1];
    uint32_t size = sizeof(answer);
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("x"), 1000, answer, &size), -ENOTCONN);
}

TEST_F(LoopTest, AnAnswerWithoutRoomIsLost) {
    FarServer server(Echo);
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, server.name);
    char answer[4] = "abc";
    uint32_t size = 3;
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("long"), PATIENCE_MS, answer, &size), -EMSGSIZE);
    EXPECT_EQ(size, 3U);
    EXPECT_EQ(std::string(answer), "abc");
    size = 4;
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("fits"), PATIENCE_MS, answer, &size), 0);
    EXPECT_EQ(size, 4U);
}

TEST_F(LoopTest, CallSyncNoticesTheEndOfTheRemote) {
    FarServer server([](TarvoLink *link, uint32_t, TarvoBytes) { TarvoLinkClose(link); });
    Recorder client;
    TarvoLink *const link = OpenLink(loop, client, server.name);
    char answer[4];
    uint32_t size = sizeof(answer);
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("x"), PATIENCE_MS, answer, &size), -EPIPE);
    EXPECT_TRUE(Wait([&] { return client.closed == 1; }));
    const std::vector<std::string> expected = {"opened 0", "closed"};
    EXPECT_EQ(client.events, expected);
}

TEST_F(LinkTest, CallSyncIsRefusedInsideACallback) {
    int ret = 0;
    server.links.onRequest = [&](TarvoLink *on, uint32_t, TarvoBytes) {
        char answer[1];
        uint32_t size = 1;
        ret = TarvoLinkCallSync(on, Bytes("x"), 10, answer, &size);
    };
    TarvoLinkSend(link, Bytes("x"));
    ASSERT_TRUE(Wait([this] { return server.links.requests.size() == 1; }));
    EXPECT_EQ(ret, -EDEADLK);
    uint32_t size = 1;
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("x"), 10, nullptr, &size), -EINVAL);
    EXPECT_EQ(TarvoLinkCallSync(link, Bytes("x"), 10, nullptr, nullptr), -EINVAL);
}

} // namespace
} // namespace tarvo_test
