// What runs for the requests of a handle: one object with its state, whose result is the reply.
#include <array>
#include <atomic>
#include <future>
#include <vector>

#include "HandleFixture.h"
#include "support/Eventually.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

// Counts how often it is called, and how many of its kind are alive.
class Counter {
public:
    explicit Counter(std::atomic<int> &alive) : alive_(&alive) { ++*alive_; }
    Counter(const Counter &other) : alive_(other.alive_), calls_(other.calls_.load()) { ++*alive_; }
    Counter &operator=(const Counter &) = delete;
    ~Counter() { --*alive_; }

    void operator()(const tarvo::Request &request) { request.Reply(std::to_string(++calls_)); }

private:
    std::atomic<int> *alive_;
    std::atomic<int> calls_{0};
};

TEST_F(HandleTest, CallbackWithStateKeepsItFromRequestToRequest) {
    OpenBoth(tarvo::Options().OnRequest(
        [count = 0](const tarvo::Request &request) mutable { request.Reply(std::to_string(++count)); }));
    std::string answers;
    for (int i = 0; i < 4; ++i) {
        const tarvo::Response answer = far.Call("count", PATIENCE);
        answers += answer.Bytes();
    }
    EXPECT_EQ(answers, "1234");
}

TEST_F(HandleTest, CallbackWithStateIsOneObjectOnAConcurrentPipeToo) {
    constexpr int threads = 8;
    constexpr int calls = 50;
    std::atomic<int> alive{0};
    OpenBoth(tarvo::Options().Concurrent().OnRequest(Counter(alive)));
    std::array<std::atomic<int>, threads * calls + 1> seen{};
    OnThreads(threads, [&](int) {
        for (int call = 0; call < calls; ++call) {
            const tarvo::Response answer = far.Call("count", PATIENCE);
            ++seen.at(static_cast<std::size_t>(std::stoi(std::string(answer.Bytes()))));
        }
    });
    for (std::size_t i = 1; i < seen.size(); ++i) {
        EXPECT_EQ(seen.at(i), 1) << "the count " << i;
    }
    near = tarvo::Pipe();
    EXPECT_TRUE(Eventually([&] { return alive == 0; })) << alive << " objects outlive the pipe";
}

TEST_F(HandleTest, PipesThatAreOpenedWithTheSameOptionsHaveACallbackEach) {
    const auto options =
        tarvo::Options().Mode(TARVO_MODE_SERVER).OnRequest([count = 0](const tarvo::Request &request) mutable {
            request.Reply(std::to_string(++count));
        });
    for (const char *const suffix : {"1", "2"}) {
        const tarvo::Pipe first = tarvo::Pipe::Open(remote + suffix, tarvo::Options(options).As(self));
        const tarvo::Pipe second = tarvo::Pipe::Open(self, tarvo::Options().As(remote + suffix).Timeout(PATIENCE));
        const tarvo::Response answer = second.Call("count", PATIENCE);
        EXPECT_EQ(answer.Bytes(), "1");
    }
}

TEST_F(HandleTest, ServerCallbackWithStateIsOneObjectForAllClients) {
    static std::atomic<int> alive{0}; // as long as a server's callbacks
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(Counter(alive)));
    std::string answers;
    for (int i = 0; i < 3; ++i) {
        const tarvo::Pipe pipe =
            tarvo::Pipe::Connect(remote, tarvo::Options().As(self + std::to_string(i)).Timeout(PATIENCE));
        const tarvo::Response answer = pipe.Call("count", PATIENCE);
        answers += answer.Bytes();
    }
    EXPECT_EQ(answers, "123");
    EXPECT_EQ(alive, 1);
}

// As its declaration says; its callables live on until the last request has ended.
TEST_F(HandleTest, ClosedOfAConcurrentPipeDoesNotWaitForRequests) {
    std::promise<void> entered;
    std::promise<void> closed;
    std::promise<std::string> end;
    const auto leave = closed.get_future().share();
    const CallbacksEnd callbacksEnd;
    OpenBoth(tarvo::Options().Concurrent().OnRequest(
        [&, own = std::string("still there")](const tarvo::Request &) {
            entered.set_value();
            leave.wait();
            end.set_value(own);
        },
        [&](tarvo::PipeView) { closed.set_value(); }));
    far.Send("stay");
    entered.get_future().get();
    far = tarvo::Pipe();
    EXPECT_EQ(end.get_future().get(), "still there");
}

TEST_F(HandleTest, WhatACallbackReturnsIsTheReply) {
    OpenBoth(tarvo::Options().OnRequest([](const tarvo::Request &request) { return request.Text() + "!"; }));
    EXPECT_EQ(far.Call("hello", PATIENCE).Text(), "hello!");
    const auto literal = tarvo::Options().As(self + "2").Mode(TARVO_MODE_SERVER).OnRequest([](const tarvo::Request &) {
        return "literal";
    });
    const tarvo::Pipe first = tarvo::Pipe::Open(remote, literal);
    const tarvo::Pipe second = tarvo::Pipe::Open(self + "2", tarvo::Options().As(remote).Timeout(PATIENCE));
    EXPECT_EQ(second.Call("hello", PATIENCE).Text(), "literal");
}

TEST_F(HandleTest, WhatAServersCallbackReturnsIsTheReply) {
    tarvo::Server::Start(
        tarvo::ServerOptions().As(remote).OnRequest([](const tarvo::Request &request) -> std::vector<char> {
            return {request.Bytes().front(), '!'};
        }));
    EXPECT_EQ(tarvo::Pipe::Connect(remote).Call("abc", PATIENCE).Text(), "a!");
}

// In the short form nothing leaves the callback, whoever has gone and whatever was to be sent.
TEST_F(HandleTest, ReplyReportsWithoutThrowing) {
    std::promise<std::error_code> tooLong;
    std::promise<std::error_code> gone;
    std::promise<void> closed;
    const CallbacksEnd end;
    OpenBoth(tarvo::Options().OnRequest(
        [&](const tarvo::Request &request) {
            if (request.Bytes() == "long") {
                tooLong.set_value(request.Reply(std::string(5000, 'x')));
                request.Reply("short");
                return;
            }
            request.From().Close();
            EXPECT_EQ(Thrown([&] { request.ReplyOrThrow("late"); }),
                      std::make_error_code(std::errc::no_such_file_or_directory));
            gone.set_value(request.Reply("late"));
        },
        [&](tarvo::PipeView) { closed.set_value(); }));
    EXPECT_EQ(far.Call("long", PATIENCE).Text(), "short");
    EXPECT_EQ(tooLong.get_future().get(), std::make_error_code(std::errc::invalid_argument));
    far.Send("go");
    EXPECT_EQ(gone.get_future().get(), std::make_error_code(std::errc::no_such_file_or_directory));
}

TEST_F(HandleTest, IgnoringSigpipeLeavesAHandlerOfTheProgramAlone) {
    const auto handler = [](int) {};
    void (*const own)(int) = handler;
    std::signal(SIGPIPE, own);
    tarvo::IgnoreSigpipe();
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), own);
    tarvo::IgnoreSigpipe();
    EXPECT_EQ(std::signal(SIGPIPE, SIG_IGN), SIG_IGN);
}

} // namespace
} // namespace tarvo_test
