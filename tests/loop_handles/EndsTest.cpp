// Handles that end, in any order and anywhere, their own callbacks included.
#include <array>

#include "LoopHandles.h"

namespace tarvo_test {
namespace {

class EndsTest : public LoopHandlesTest {};

TEST_F(EndsTest, LinkMayEndInsideItsOwnOpened) {
    ServeEcho();
    int alive = 0;
    bool ended = false;
    tarvo::Link link = tarvo::Link::Connect(
        loop, name, As("client"),
        tarvo::LinkHandlers().OnOpened([&, counted = Counted(alive)](tarvo::LinkView, std::error_code error) {
            EXPECT_FALSE(error);
            link = tarvo::Link();
            EXPECT_EQ(alive, 1) << "the callable lives until it has returned";
            ended = true;
        }));
    Until([&] { return ended; });
    EXPECT_EQ(alive, 0);
    Drain();
}

TEST_F(EndsTest, LinkMayBeClosedByItsView) {
    ServeEcho();
    int alive = 0;
    bool ended = false;
    tarvo::Link link = tarvo::Link::Connect(
        loop, name, As("client"),
        tarvo::LinkHandlers().OnOpened([&, counted = Counted(alive)](tarvo::LinkView view, std::error_code) {
            EXPECT_FALSE(view.Close());
            EXPECT_FALSE(view);
            ended = true;
        }));
    Until([&] { return ended; });
    EXPECT_FALSE(link);
    link = tarvo::Link();
    EXPECT_EQ(alive, 0);
}

TEST_F(EndsTest, LinkMayEndInsideItsOwnClosed) {
    service =
        tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers().OnRequest([](const tarvo::LinkRequest &request) {
            tarvo::LinkView link = request.From();
            EXPECT_FALSE(link.Close());
        }));
    int alive = 0;
    bool ended = false;
    tarvo::Link link = tarvo::Link::Connect(
        loop, name, As("client"),
        tarvo::LinkHandlers()
            .OnOpened([](tarvo::LinkView opened, std::error_code) { EXPECT_FALSE(opened.Send("close")); })
            .OnClosed([&, counted = Counted(alive)](tarvo::LinkView) {
                link = tarvo::Link();
                EXPECT_EQ(alive, 1);
                ended = true;
            }));
    Until([&] { return ended; });
    EXPECT_EQ(alive, 0);
}

TEST_F(EndsTest, CallsOfALinkThatEndsAreCanceledLater) {
    service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers());
    tarvo::Link link = Connected();
    int alive = 0;
    int canceled = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_FALSE(link.Call("x", PATIENCE, [&, counted = Counted(alive)](std::error_code error, std::string_view) {
            EXPECT_EQ(error, std::errc::operation_canceled);
            ++canceled;
        }));
    }
    link = tarvo::Link();
    EXPECT_EQ(canceled, 0);
    Until([&] { return canceled == 3; });
    EXPECT_EQ(alive, 0);
}

TEST_F(EndsTest, HandlesMayOutliveTheirLoop) {
    int alive = 0;
    {
        ServeEcho();
        tarvo::Link link = Connected();
        tarvo::Link waiting = tarvo::Link::Open(
            loop, name + "_nobody", As("self"),
            tarvo::LinkHandlers().OnOpened([counted = Counted(alive)](tarvo::LinkView, std::error_code) {}));
        ASSERT_FALSE(link.Call("x", PATIENCE, [counted = Counted(alive)](std::error_code, std::string_view) {
            ADD_FAILURE() << "nothing runs any more";
        }));
        ASSERT_FALSE(loop.Post([counted = Counted(alive)] { ADD_FAILURE() << "nothing runs any more"; }));
        loop = tarvo::Loop();
        EXPECT_FALSE(link);
        EXPECT_FALSE(waiting);
        EXPECT_FALSE(service);
        EXPECT_FALSE(service.Close());
        EXPECT_EQ(alive, 1) << "what the handle owns";
    }
    EXPECT_EQ(alive, 0);
}

TEST_F(EndsTest, LoopMayEndInsideACallback) {
    ServeEcho();
    int alive = 0;
    tarvo::Link link = Connected();
    ASSERT_FALSE(link.Call(
        "x", PATIENCE,
        [&, counted = Counted(alive), room = std::array<char, 40>()](std::error_code error, std::string_view) {
            (void)room;
            EXPECT_FALSE(error);
            loop = tarvo::Loop();
        }));
    ASSERT_FALSE(link.Call("y", PATIENCE, [counted = Counted(alive)](std::error_code, std::string_view) {
        ADD_FAILURE() << "nothing runs any more";
    }));
    std::error_code error;
    while (!error) {
        pollfd ready{loop.Fd(), POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, static_cast<int>(PATIENCE.count())), 1);
        loop.Dispatch(1, error);
    }
    EXPECT_EQ(error, std::errc::operation_canceled);
    EXPECT_FALSE(loop);
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(link);
}

TEST_F(EndsTest, LoopMayEndInsideAFunctionThatWasPosted) {
    int alive = 0;
    ASSERT_FALSE(loop.Post([&, counted = Counted(alive)] { loop = tarvo::Loop(); }));
    ASSERT_FALSE(loop.Post([counted = Counted(alive)] { ADD_FAILURE() << "nothing runs any more"; }));
    EXPECT_EQ(loop.Run(PATIENCE), std::errc::operation_canceled);
    EXPECT_EQ(alive, 0);
}

TEST_F(EndsTest, LoopMayEndInsideTheCallableOfALink) {
    ServeEcho();
    int alive = 0;
    tarvo::Link link = tarvo::Link::Connect(
        loop, name, As("client"),
        tarvo::LinkHandlers().OnOpened([&, counted = Counted(alive)](tarvo::LinkView, std::error_code) {
            link = tarvo::Link();
            loop = tarvo::Loop();
            EXPECT_EQ(alive, 1);
        }));
    EXPECT_EQ(loop.Run(PATIENCE), std::errc::operation_canceled);
    EXPECT_EQ(alive, 0);
}

} // namespace
} // namespace tarvo_test
