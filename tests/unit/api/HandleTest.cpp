// The C++ handles: ownership, both styles of error, views of bytes, time-outs, callbacks with captures.
#include <array>
#include <cstddef>
#include <future>
#include <limits>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "HandleFixture.h"
#include "support/AllocFaults.h"
#include "support/Eventually.h"
#include "support/FifoWatch.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

static_assert(!std::is_copy_constructible_v<tarvo::Pipe> && std::is_nothrow_move_constructible_v<tarvo::Pipe>);
static_assert(!std::is_copy_constructible_v<tarvo::Response> && std::is_nothrow_move_assignable_v<tarvo::Response>);
static_assert(sizeof(tarvo::Pipe) == sizeof(int) && sizeof(tarvo::Response) == sizeof(TarvoResponse));

TEST_F(HandleTest, CallBringsTheAnswerThatTheCallbackGives) {
    OpenBoth(tarvo::Options().OnRequest([suffix = std::string("!")](const tarvo::Request &request) {
        request.Reply(std::string(request.Bytes()) + suffix);
    }));
    const tarvo::Response response = far.Call("hello", PATIENCE);
    EXPECT_EQ(response.Bytes(), "hello!");
    EXPECT_EQ(far.CallWithoutLimit("again").Text(), "again!");
}

TEST_F(HandleTest, OneWayRequestCarriesIdAndBytes) {
    std::promise<std::string> arrived;
    const CallbacksEnd end;
    OpenBoth(tarvo::Options().OnRequest([&](const tarvo::Request &request) {
        EXPECT_EQ(request.From(), near);
        arrived.set_value(std::to_string(request.Id()) + " " + std::string(request.Bytes()));
    }));
    far.Send("event", 77);
    EXPECT_EQ(arrived.get_future().get(), "77 event");
}

TEST_F(HandleTest, AllKindsOfBytesCanBeSent) {
    OpenBoth(tarvo::Options().OnRequest(ReplyEcho));
    const std::array<std::byte, 3> bytes{std::byte{1}, std::byte{0}, std::byte{0xFF}};
    EXPECT_EQ(far.Call(bytes, PATIENCE).Text(), std::string_view("\1\0\xFF", 3));
    EXPECT_EQ(far.Call(std::vector<uint8_t>{'v', 'e', 'c'}, PATIENCE).Text(), "vec");
    EXPECT_EQ(far.Call(std::string("string"), PATIENCE).Text(), "string");
    EXPECT_EQ(far.Call(std::string_view("view"), PATIENCE).Text(), "view");
    EXPECT_EQ(far.Call({bytes.data(), 1}, PATIENCE).Text(), "\1");
    const std::string most(tarvo::MAX_PAYLOAD, 'x');
    EXPECT_EQ(far.Call(most, PATIENCE).Text(), most);
}

TEST_F(HandleTest, EmptyAndTooLongPayloadsAreInvalidInBothStyles) {
    OpenBoth(tarvo::Options().OnRequest(ReplyEcho));
    const std::error_code invalid = std::make_error_code(std::errc::invalid_argument);
    const std::string tooLong(tarvo::MAX_PAYLOAD + 1, 'x');
    // Not what is left of it in 32 bits.
    const tarvo::Payload huge(tooLong.data(), std::numeric_limits<uint32_t>::max() + std::size_t{2});
    for (const tarvo::Payload payload : {tarvo::Payload(""), tarvo::Payload(tooLong), huge}) {
        std::error_code error;
        far.Send(payload, error);
        EXPECT_EQ(error, invalid);
        EXPECT_EQ(far.Call(payload, PATIENCE, error).Text(), "");
        EXPECT_EQ(error, invalid);
        EXPECT_EQ(Thrown([&] { far.Send(payload); }), invalid);
        EXPECT_EQ(Thrown([&] { (void)far.Call(payload, PATIENCE); }), invalid);
        EXPECT_EQ(Thrown([&] { near.ReplyOrThrow(1, payload); }), invalid);
        EXPECT_EQ(near.Reply(1, payload), invalid);
    }
    std::error_code error = invalid;
    far.Send("fine", error);
    EXPECT_FALSE(error);
}

TEST_F(HandleTest, CallThatNobodyAnswersTimesOut) {
    OpenBoth(tarvo::Options().OnRequest(Ignore));
    for (const auto timeout : {20ms, 0ms, -1ms, std::chrono::milliseconds::min()}) {
        std::error_code error;
        EXPECT_EQ(far.Call("anyone", timeout, error).Text(), "");
        EXPECT_EQ(error, std::errc::timed_out) << "a deadline that has passed is no endless wait";
        EXPECT_EQ(Thrown([&] { (void)far.Call("anyone", timeout); }), std::make_error_code(std::errc::timed_out));
    }
}

TEST_F(HandleTest, TicketAnswersAfterTheCallback) {
    std::promise<tarvo::Ticket> kept;
    const CallbacksEnd end;
    OpenBoth(tarvo::Options().OnRequest([&](const tarvo::Request &request) { kept.set_value(request.Keep()); }));
    auto call = InBackground([&] { return far.Call("question", PATIENCE); });
    EXPECT_FALSE(kept.get_future().get().Reply("late answer"));
    EXPECT_EQ(call.get().Text(), "late answer");
}

TEST_F(HandleTest, ClosedCallbackComesAfterTheRequestsAndThePipeIsGoneAfterwards) {
    std::promise<std::string> closed;
    std::string seen;
    std::atomic<bool> arrived{false};
    const CallbacksEnd end;
    OpenBoth(tarvo::Options().OnRequest(
        [&](const tarvo::Request &request) {
            seen += request.Bytes();
            arrived = true;
        },
        [&](tarvo::PipeView pipe) {
            EXPECT_EQ(pipe, near);
            closed.set_value(seen);
        }));
    far.Send("one");
    ASSERT_TRUE(Eventually([&] { return arrived.load(); }));
    far = tarvo::Pipe();
    EXPECT_EQ(closed.get_future().get(), "one");
    std::error_code error;
    EXPECT_TRUE(Eventually([&] {
        near.Send("x", error);
        return error == std::errc::no_such_file_or_directory;
    }));
    near.Close(error);
    EXPECT_FALSE(error) << "closing what is closed is no error";
}

TEST_F(HandleTest, PipeClosesOnceWithItsLastOwner) {
    OpenBoth(tarvo::Options().OnRequest(ReplyEcho));
    tarvo::Pipe moved(std::move(far));
    EXPECT_FALSE(far);
    EXPECT_EQ(moved.Call("moved", PATIENCE).Text(), "moved");
    far = std::move(moved);
    EXPECT_TRUE(far && !moved);
    const tarvo::PipeView view = far;
    const int handle = far.Release();
    EXPECT_FALSE(far);
    EXPECT_EQ(view.Call("still open", PATIENCE).Text(), "still open");
    { const tarvo::Pipe again(handle); }
    EXPECT_EQ(Thrown([&] { view.Send("x"); }), std::make_error_code(std::errc::no_such_file_or_directory));
}

TEST_F(HandleTest, AssignmentClosesThePipeThatWasHeld) {
    OpenBoth(tarvo::Options().OnRequest(ReplyEcho));
    const tarvo::PipeView before = far;
    far = tarvo::Pipe::Open(remote + "2", tarvo::Options().As(self + "2").Mode(TARVO_MODE_SERVER));
    std::error_code error;
    before.Send("x", error);
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST_F(HandleTest, ResponseMovesItsBytes) {
    OpenBoth(tarvo::Options().OnRequest(ReplyEcho));
    tarvo::Response first = far.Call("first", PATIENCE);
    const char *bytes = first.Bytes().data();
    tarvo::Response second(std::move(first));
    EXPECT_EQ(second.Bytes().data(), bytes);
    EXPECT_EQ(first.Bytes(), ""); // NOLINT(bugprone-use-after-move): what a moved-from response is, is the question
    second = far.Call("second", PATIENCE);
    EXPECT_EQ(second.Bytes(), "second");
}

TEST_F(HandleTest, OpensThatFailThrowOrTell) {
    std::error_code error;
    EXPECT_FALSE(tarvo::Pipe::Connect(remote, tarvo::Options().As(self).Timeout(1s), error));
    EXPECT_EQ(error, std::errc::no_such_device_or_address);
    EXPECT_FALSE(tarvo::Pipe::Open(remote, tarvo::Options().As(self).Timeout(20ms), error));
    EXPECT_EQ(error, std::errc::timed_out);
    for (const std::string &name : {std::string(), std::string("a|b"), std::string("a\0b", 3), std::string(101, 'a')}) {
        EXPECT_FALSE(tarvo::Pipe::Open(name, tarvo::Options().As(self), error));
        EXPECT_EQ(error, std::errc::invalid_argument);
        EXPECT_EQ(Thrown([&] { (void)tarvo::Pipe::Connect(remote, tarvo::Options().As(name).Timeout(1s)); }),
                  std::make_error_code(std::errc::invalid_argument));
    }
}

// A time-out of 0 would mean "without limit" to the open below it.
TEST_F(HandleTest, OpenTimeoutsThatHavePassedAreNotEndless) {
    for (const auto timeout : {0ms, -5ms}) {
        std::error_code error;
        EXPECT_FALSE(tarvo::Pipe::Open(remote, tarvo::Options().As(self).Timeout(timeout), error));
        EXPECT_EQ(error, std::errc::timed_out);
    }
}

TEST_F(HandleTest, AnEmptyHandleFailsSoftly) {
    const tarvo::Pipe none;
    std::error_code error;
    none.Send("x", error);
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    (void)none.Call("x", 1ms, error);
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST_F(HandleTest, PipeThatIsClosingIsABrokenPipe) {
    EXPECT_EQ(tarvo::ToError(-1), std::errc::broken_pipe);
    EXPECT_EQ(tarvo::ToError(-EAGAIN), std::errc::resource_unavailable_try_again);
    EXPECT_FALSE(tarvo::ToError(0));
    EXPECT_FALSE(tarvo::ToError(3));
}

TEST_F(HandleTest, FilesOfTheClientSideCanBeRemoved) {
    OpenBoth(tarvo::Options().OnRequest(ReplyEcho));
    EXPECT_EQ(far.Call("both ends are open", PATIENCE).Text(), "both ends are open");
    far.RemoveFiles();
    EXPECT_TRUE(OwnFifoFiles().empty());
    EXPECT_EQ(far.Call("still", PATIENCE).Text(), "still");
}

TEST_F(HandleTest, ConcurrentCallbacksRunAtTheSameTime) {
    std::promise<void> second;
    std::shared_future<void> met = second.get_future().share();
    std::atomic<int> entered{0};
    const CallbacksEnd end;
    OpenBoth(tarvo::Options().Concurrent().OnRequest([&](const tarvo::Request &) {
        if (++entered == 2) {
            second.set_value();
        }
        met.wait();
    }));
    far.Send("first");
    far.Send("second");
    EXPECT_EQ(met.wait_for(PATIENCE), std::future_status::ready);
}

// The handle and the function below it do the same work.
TEST_F(HandleTest, CallsAllocateWhatTheFunctionsAllocate) {
    OpenBoth(tarvo::Options().OnRequest(ReplyEcho));
    const auto cost = [](auto call) {
        call(); // the first one may fill caches
        const std::size_t before = ThreadAllocations();
        call();
        return ThreadAllocations() - before;
    };
    Blocks blocks;
    const int fd = far.Handle();
    EXPECT_EQ(cost([&] { far.Send("data"); }), cost([&] { TarvoSendRequest(fd, &blocks.request); }));
    EXPECT_EQ(cost([&] { (void)far.Call("data", PATIENCE); }), cost([&] {
                  TarvoResponse response{};
                  TarvoTimedRPCSync(fd, &blocks.request, &response, PIPE_OPEN_TIMEOUT_MS);
                  DestroyResponse(&response);
              }));
}

TEST_F(HandleTest, ServerTellsOfClientsAnswersThemAndSeesThemGo) {
    std::promise<std::string> client;
    std::promise<void> gone;
    const CallbacksEnd end;
    tarvo::Server::Start(tarvo::ServerOptions()
                             .As(remote)
                             .OnRequest([&](const tarvo::Request &request) { request.Reply(request.Bytes()); })
                             .OnClient([&](tarvo::PipeView pipe, std::string_view name) {
                                 EXPECT_GT(pipe.Handle(), 0);
                                 client.set_value(std::string(name));
                             })
                             .OnClosed([&](tarvo::PipeView) { gone.set_value(); }));
    {
        const tarvo::Pipe pipe = Connect(self);
        EXPECT_EQ(pipe.Call("to the server", PATIENCE).Text(), "to the server");
        EXPECT_EQ(client.get_future().get(), self + "_" + std::to_string(getpid()));
    }
    gone.get_future().get();
    EXPECT_TRUE(tarvo::IsAlive());
    tarvo::Finish();
    EXPECT_FALSE(tarvo::IsAlive());
}

TEST_F(HandleTest, SecondServerIsRefusedAndTheFirstKeepsItsCallbacks) {
    tarvo::Server::Start(
        tarvo::ServerOptions().As(remote).OnRequest([](const tarvo::Request &request) { request.Reply("first"); }));
    std::error_code error;
    tarvo::Server::Start(
        tarvo::ServerOptions().As(remote).OnRequest([](const tarvo::Request &request) { request.Reply("second"); }),
        error);
    EXPECT_EQ(error, std::errc::file_exists);
    const tarvo::Pipe pipe = Connect(self);
    EXPECT_EQ(pipe.Call("who", PATIENCE).Text(), "first");
}

TEST_F(HandleTest, ServerThatCouldNotStartCanBeStartedBetter) {
    const auto invalid = std::make_error_code(std::errc::invalid_argument);
    EXPECT_EQ(Thrown([] { tarvo::Server::Start(tarvo::ServerOptions().As("")); }), invalid);
    EXPECT_EQ(Thrown([] { tarvo::Server::Start(tarvo::ServerOptions().As(std::string("a\0b", 3))); }), invalid);
    EXPECT_EQ(Thrown([] { tarvo::Server::Start(tarvo::ServerOptions().Priority(TARVO_PRIORITY_NONE)); }), invalid);
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(ReplyEcho));
    const tarvo::Pipe pipe = Connect(self);
    EXPECT_EQ(pipe.Call("now", PATIENCE).Text(), "now");
}

} // namespace
} // namespace tarvo_test
