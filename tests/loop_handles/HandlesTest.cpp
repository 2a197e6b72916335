// Calls, sends and replies through the handles; both styles of error; time-outs.
#include <future>
#include <limits>
#include <map>
#include <set>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "LoopHandles.h"

namespace tarvo_test {
namespace {

static_assert(!std::is_copy_constructible_v<tarvo::Loop> && std::is_nothrow_move_constructible_v<tarvo::Loop>);
static_assert(!std::is_copy_constructible_v<tarvo::Link> && std::is_nothrow_move_assignable_v<tarvo::Link>);
static_assert(!std::is_copy_constructible_v<tarvo::Service> && std::is_nothrow_move_assignable_v<tarvo::Service>);
static_assert(std::is_trivially_copyable_v<tarvo::LinkView> && sizeof(tarvo::LinkView) == 2 * sizeof(void *));
static_assert(tarvo::detail::LoopTimeout(tarvo::NO_LIMIT) == -1);
static_assert(tarvo::detail::LoopTimeout(0ms) == 0 && tarvo::detail::LoopTimeout(-5ms) == 0);
static_assert(tarvo::detail::LoopTimeout(1500ms) == 1500);
static_assert(tarvo::detail::LoopTimeout(1000h * 24 * 365) == std::numeric_limits<int>::max());

class HandlesTest : public LoopHandlesTest {};

TEST_F(HandlesTest, CallBringsWhatTheRequestCallbackReturns) {
    service = tarvo::Service::Open(
        loop, name, {},
        tarvo::ServiceHandlers().OnRequest(
            [suffix = std::string("!")](const tarvo::LinkRequest &asked) { return asked.Text() + suffix; }));
    const tarvo::Link link = Connected();
    std::string answer;
    ASSERT_FALSE(link.Call("hello", PATIENCE, [&](std::error_code error, std::string_view bytes) {
        EXPECT_FALSE(error);
        answer = bytes;
    }));
    EXPECT_EQ(answer, "") << "never inside the call";
    Until([&] { return !answer.empty(); });
    EXPECT_EQ(answer, "hello!");
}

TEST_F(HandlesTest, ServiceKnowsItsClientsAndTheirEnds) {
    std::unordered_map<tarvo::LinkView, std::string> clients;
    service = tarvo::Service::Open(
        loop, name, {},
        tarvo::ServiceHandlers()
            .OnClient([&](tarvo::LinkView link, std::string_view who) {
                EXPECT_EQ(link.Peer(), who);
                clients.emplace(link, who);
            })
            .OnRequest([&](const tarvo::LinkRequest &request) { return clients.at(request.From()); })
            .OnClosed([&](tarvo::LinkView link) { clients.erase(link); }));
    tarvo::Link link = Connected("client");
    std::string answer;
    ASSERT_FALSE(link.Call("who am I", PATIENCE, [&](std::error_code, std::string_view bytes) { answer = bytes; }));
    Until([&] { return !answer.empty(); });
    EXPECT_EQ(answer, NameTag() + "client_" + std::to_string(getpid()));
    EXPECT_EQ(link.Peer(), name);
    EXPECT_FALSE(link.Close());
    EXPECT_FALSE(link);
    EXPECT_FALSE(link.Close()) << "there is nothing to close any more";
    Until([&] { return clients.empty(); });
}

TEST_F(HandlesTest, RequestCanBeAnsweredLaterAndOnce) {
    std::optional<tarvo::LinkTicket> ticket;
    service = tarvo::Service::Open(
        loop, name, {}, tarvo::ServiceHandlers().OnRequest([&](const auto &request) { ticket = request.Keep(); }));
    const tarvo::Link link = Connected();
    std::string answer;
    ASSERT_FALSE(link.Call("later", PATIENCE, [&](std::error_code, std::string_view bytes) { answer = bytes; }));
    Until([&] { return ticket.has_value(); });
    EXPECT_FALSE(ticket->Reply("now"));
    EXPECT_EQ(ticket->Reply("again"), std::errc::no_such_file_or_directory);
    Until([&] { return !answer.empty(); });
    EXPECT_EQ(answer, "now");
}

TEST_F(HandlesTest, BothEndsOfAnArrangedLinkSendAndHear) {
    std::vector<std::string> heard;
    const auto hear = [&](const tarvo::LinkRequest &request) { heard.push_back(request.Text()); };
    int open = 0;
    const auto opened = [&](tarvo::LinkView, std::error_code error) { open += error ? 0 : 1; };
    const std::string near = NameTag() + "near";
    const std::string far = NameTag() + "far";
    const tarvo::Link one = tarvo::Link::Open(loop, far, As("near").Mode(TARVO_MODE_SERVER),
                                              tarvo::LinkHandlers().OnOpened(opened).OnRequest(hear));
    const tarvo::Link other =
        tarvo::Link::Open(loop, near, As("far"), tarvo::LinkHandlers().OnRequest(hear).OnOpened(opened));
    Until([&] { return open == 2; });
    EXPECT_FALSE(one.Send("from the one"));
    EXPECT_FALSE(other.Send("from the other"));
    Until([&] { return heard.size() == 2; });
    EXPECT_EQ(std::set<std::string>(heard.begin(), heard.end()),
              (std::set<std::string>{"from the one", "from the other"}));
}

TEST_F(HandlesTest, CallThatNobodyAnswersTimesOut) {
    service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers());
    const tarvo::Link link = Connected();
    std::vector<std::error_code> ends;
    const auto done = [&](std::error_code error, std::string_view bytes) {
        EXPECT_EQ(bytes, "");
        ends.push_back(error);
    };
    for (const auto timeout : {5ms, 0ms, -1ms, std::chrono::milliseconds::min()}) {
        ASSERT_FALSE(link.Call("anyone", timeout, done));
    }
    Until([&] { return ends.size() == 4; });
    for (const std::error_code &end : ends) {
        EXPECT_EQ(end, std::errc::timed_out);
    }
}

TEST_F(HandlesTest, CallCanBeCanceledOnce) {
    service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers());
    const tarvo::Link link = Connected();
    std::error_code end;
    int64_t call = 0;
    ASSERT_FALSE(link.Call(
        "x", tarvo::NO_LIMIT, [&](std::error_code error, std::string_view) { end = error; }, call));
    EXPECT_GT(call, 0);
    EXPECT_FALSE(link.Cancel(call));
    EXPECT_FALSE(end) << "never inside the cancel";
    EXPECT_EQ(link.Cancel(call), std::errc::no_such_file_or_directory);
    Until([&] { return static_cast<bool>(end); });
    EXPECT_EQ(end, std::errc::operation_canceled);
}

TEST_F(HandlesTest, CallThatWaitsHasTheAnswerInEitherForm) {
    // The service answers from a loop of another thread: this one only waits.
    std::promise<void> serves;
    std::thread server([&] {
        tarvo::Loop other = tarvo::Loop::Create();
        const tarvo::Service echo =
            tarvo::Service::Open(other, name, {},
                                 tarvo::ServiceHandlers()
                                     .OnRequest([](const tarvo::LinkRequest &request) { return request.Bytes(); })
                                     .OnClosed([&other](tarvo::LinkView) { other.Stop(); }));
        serves.set_value();
        EXPECT_FALSE(other.Run(PATIENCE));
    });
    serves.get_future().wait();
    tarvo::Link link = tarvo::Link::Connect(loop, name, As("client"), tarvo::LinkHandlers());
    std::string answer;
    const std::error_code error = link.CallSync("first", PATIENCE, answer);
    EXPECT_FALSE(error);
    EXPECT_EQ(answer, "first");
    char room[6];
    uint32_t size = sizeof(room);
    EXPECT_FALSE(link.CallSync("second", PATIENCE, room, size));
    EXPECT_EQ(std::string(room, size), "second");
    size = 5;
    EXPECT_EQ(link.CallSync("second", PATIENCE, room, size), std::errc::message_size);
    link.Close();
    server.join();
}

TEST_F(HandlesTest, WhatIsHeldGoesOutAtTheEndOfTheScope) {
    std::vector<std::string> heard;
    service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers().OnRequest([&](const auto &request) {
        heard.push_back(request.Text());
    }));
    const tarvo::Link link = Connected();
    {
        const tarvo::Held held(link);
        EXPECT_FALSE(link.Send("one"));
        EXPECT_FALSE(link.Send("two"));
        Drain();
        EXPECT_TRUE(heard.empty());
    }
    Until([&] { return heard.size() == 2; });
    EXPECT_EQ(heard, (std::vector<std::string>{"one", "two"}));
}

TEST_F(HandlesTest, OpeningFailsInBothStyles) {
    ServeEcho();
    std::error_code error;
    EXPECT_FALSE(tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers(), error));
    EXPECT_EQ(error, std::errc::address_in_use);
    EXPECT_EQ(Thrown([&] { (void)tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers()); }),
              std::make_error_code(std::errc::address_in_use));
    const std::string zero("a\0b", 3);
    const std::error_code invalid = std::make_error_code(std::errc::invalid_argument);
    EXPECT_EQ(Thrown([&] { (void)tarvo::Service::Open(loop, zero, {}, tarvo::ServiceHandlers()); }), invalid);
    EXPECT_EQ(Thrown([&] { (void)tarvo::Link::Connect(loop, zero, {}, tarvo::LinkHandlers()); }), invalid);
    EXPECT_EQ(
        Thrown([&] { (void)tarvo::Link::Connect(loop, name, tarvo::LinkOptions().As(zero), tarvo::LinkHandlers()); }),
        invalid);
    EXPECT_EQ(Thrown([&] { (void)tarvo::Link::Open(loop, "a|b", {}, tarvo::LinkHandlers()); }), invalid);
    tarvo::Loop none;
    EXPECT_EQ(Thrown([&] { (void)tarvo::Link::Open(none, name, {}, tarvo::LinkHandlers()); }), invalid);
    EXPECT_EQ(Thrown([&] { none.Dispatch(); }), invalid);
    EXPECT_EQ(none.Run(), invalid);
    EXPECT_EQ(none.Post([] {}), invalid);
    EXPECT_EQ(tarvo::Link().Send("x"), invalid);
    EXPECT_EQ(tarvo::Link().Call("x", 1s, [text = std::string("large")](std::error_code, std::string_view) {}),
              invalid);
}

TEST_F(HandlesTest, OpenWithoutServerEndsWithItsError) {
    std::error_code end;
    const tarvo::Link link = tarvo::Link::Connect(
        loop, name, As("client"),
        tarvo::LinkHandlers().OnOpened([&](tarvo::LinkView, std::error_code error) { end = error; }));
    Until([&] { return static_cast<bool>(end); });
    EXPECT_EQ(end, std::errc::no_such_device_or_address);
    EXPECT_EQ(link.Send("x"), std::errc::not_connected);
}

TEST_F(HandlesTest, RunEndsByStopAndByItsTimeOut) {
    EXPECT_EQ(loop.Run(1ms), std::errc::timed_out);
    std::thread other([this] { loop.Stop(); });
    EXPECT_FALSE(loop.Run(PATIENCE));
    other.join();
}

TEST_F(HandlesTest, DispatchInsideACallbackIsRefusedInBothStyles) {
    bool ran = false;
    ASSERT_FALSE(loop.Post([&] {
        const std::error_code refused = std::make_error_code(std::errc::resource_deadlock_would_occur);
        EXPECT_EQ(Thrown([&] { loop.Dispatch(); }), refused);
        std::error_code error;
        EXPECT_EQ(loop.Dispatch(1, error), 0);
        EXPECT_EQ(error, refused);
        EXPECT_EQ(loop.Run(), refused);
        ran = true;
    }));
    Until([&] { return ran; });
}

TEST_F(HandlesTest, AnotherThreadsUseIsRefused) {
    ServeEcho();
    const tarvo::Link link = Connected();
    std::thread([&] {
        EXPECT_EQ(link.Send("x"), std::errc::resource_deadlock_would_occur);
        EXPECT_EQ(loop.Run(0ms), std::errc::resource_deadlock_would_occur);
    }).join();
}

} // namespace
} // namespace tarvo_test
