// Opens that would share a pipe, or that no server could answer: told at once, and never silent.
#include <array>
#include <atomic>
#include <future>
#include <vector>

#include "HandleFixture.h"
#include "support/Eventually.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

const std::error_code EXISTS = std::make_error_code(std::errc::file_exists);
const std::error_code INVALID = std::make_error_code(std::errc::invalid_argument);

TEST_F(HandleTest, SecondPipeToOneServerIsRefusedAndTheFirstGoesOn) {
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(ReplyEcho));
    const auto options = tarvo::Options().As(self).Timeout(PATIENCE);
    const tarvo::Pipe first = tarvo::Pipe::Connect(remote, options);
    {
        std::error_code error;
        const tarvo::Pipe second = tarvo::Pipe::Connect(remote, options, error);
        EXPECT_EQ(error, EXISTS);
        EXPECT_FALSE(second);
        const tarvo::Pipe third = tarvo::Pipe::Connect(remote, tarvo::Options(options).OnRequest(Ignore), error);
        EXPECT_EQ(error, EXISTS);
    }
    const tarvo::Response answer = first.Call("still open", PATIENCE);
    EXPECT_EQ(answer.Bytes(), "still open");
}

TEST_F(HandleTest, OpenWithACallbackDoesNotShareAPipeOfTheFunctions) {
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, Echo);
    const int handle = TarvoOpen(&attr);
    std::error_code error;
    const auto options = tarvo::Options().As(self).Mode(TARVO_MODE_SERVER).OnRequest(Ignore);
    EXPECT_FALSE(tarvo::Pipe::Open(remote, options, error));
    EXPECT_EQ(error, EXISTS);
    EXPECT_EQ(TarvoClosePipe(handle), 0);
    EXPECT_TRUE(tarvo::Pipe::Open(remote, options, error));
}

// The library keeps a pipe whose open has failed, with its callback, for the next attempt.
TEST_F(HandleTest, OpenAfterOneThatFailedRunsItsOwnCallback) {
    std::atomic<int> wrong{0};
    std::error_code error;
    EXPECT_FALSE(tarvo::Pipe::Open(
        remote, tarvo::Options().As(self).Timeout(20ms).OnRequest([&](const tarvo::Request &) { ++wrong; }), error));
    EXPECT_EQ(error, std::errc::timed_out);
    const tarvo::Pipe other = tarvo::Pipe::Open(self, tarvo::Options().As(remote).Mode(TARVO_MODE_SERVER));
    const tarvo::Pipe mine =
        tarvo::Pipe::Open(remote, tarvo::Options().As(self).Timeout(PATIENCE).OnRequest(ReplyEcho));
    const tarvo::Response answer = other.Call("who", 5s, error);
    EXPECT_EQ(answer.Bytes(), "who");
    EXPECT_EQ(wrong, 0);
}

TEST_F(HandleTest, CallbackThatWouldBeIgnoredAfterAFailedOpenIsRefused) {
    std::error_code error;
    const auto options = tarvo::Options().As(self).Timeout(20ms);
    EXPECT_FALSE(tarvo::Pipe::Open(remote, options, error));
    EXPECT_EQ(error, std::errc::timed_out);
    EXPECT_FALSE(tarvo::Pipe::Open(remote, tarvo::Options(options).OnRequest(Ignore), error));
    EXPECT_EQ(error, EXISTS);
    EXPECT_FALSE(tarvo::Pipe::Open(remote, options, error));
    EXPECT_EQ(error, std::errc::timed_out);
}

TEST_F(HandleTest, ReleasedPipeIsSharedByNobody) {
    const auto options = tarvo::Options().As(self).Mode(TARVO_MODE_SERVER).OnRequest(Ignore);
    tarvo::Pipe first = tarvo::Pipe::Open(remote, options);
    tarvo::Pipe again(first.Release());
    EXPECT_EQ(Thrown([&] { (void)tarvo::Pipe::Open(remote, options); }), EXISTS);
    again = {};
    EXPECT_TRUE(tarvo::Pipe::Open(remote, options));
}

TEST_F(HandleTest, OnlyOneOfManyOpensAtTheSameTimeGetsThePipe) {
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> waiting{0};
        std::atomic<int> opened{0};
        std::array<tarvo::Pipe, 4> pipes;
        OnThreads(4, [&](int number) {
            auto options = tarvo::Options().As(self).Mode(TARVO_MODE_SERVER);
            if (number == 0) {
                options.OnRequest(Ignore);
            }
            for (++waiting; waiting < 4;) {
            }
            std::error_code error;
            tarvo::Pipe &pipe = pipes.at(static_cast<std::size_t>(number));
            pipe = tarvo::Pipe::Open(remote, options, error);
            EXPECT_TRUE(pipe ? !error : error == EXISTS) << error.message();
            opened += pipe ? 1 : 0;
        });
        ASSERT_EQ(opened, 1);
    }
}

TEST_F(HandleTest, AfterTheRemoteHasClosedAPipeCanBeOpenedAnew) {
    for (int round = 0; round < 20; ++round) {
        OpenBoth(tarvo::Options(), tarvo::Options().OnRequest(ReplyEcho));
        EXPECT_EQ(near.Call("here", PATIENCE).Text(), "here");
        far = {};
        near = {};
    }
}

// A refused open must not look like one more client to the server.
TEST_F(HandleTest, RefusedConnectSaysNothingToTheServer) {
    std::atomic<int> opened{0};
    const CallbacksEnd end;
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(ReplyEcho).OnClient(
        [&](tarvo::PipeView, std::string_view) { ++opened; }));
    const auto options = tarvo::Options().As(self).Timeout(PATIENCE);
    {
        const tarvo::Pipe pipe = tarvo::Pipe::Connect(remote, options);
        EXPECT_EQ(pipe.Call("first", PATIENCE).Text(), "first");
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(Thrown([&] { (void)tarvo::Pipe::Connect(remote, options); }), EXISTS);
        }
    }
    // Served after whatever the refused ones would have announced.
    const tarvo::Pipe last = tarvo::Pipe::Connect(remote, tarvo::Options().As(self + "2").Timeout(PATIENCE));
    EXPECT_EQ(last.Call("last", PATIENCE).Text(), "last");
    EXPECT_EQ(opened, 2);
}

// No user code under a lock of the header: this one's destructor owns a pipe, whose end takes the same lock.
TEST_F(HandleTest, CallbackThatIsReplacedMayOwnAPipe) {
    const auto owned = std::make_shared<tarvo::Pipe>(
        tarvo::Pipe::Open(remote + "2", tarvo::Options().As(self).Mode(TARVO_MODE_SERVER)));
    auto options = tarvo::Options().As(self).Timeout(1ms);
    std::error_code error;
    EXPECT_FALSE(tarvo::Pipe::Open(
        remote, tarvo::Options(options).OnRequest([pipe = std::move(owned)](const tarvo::Request &) {}), error));
    EXPECT_FALSE(tarvo::Pipe::Open(remote, options.OnRequest(Ignore), error));
    EXPECT_EQ(error, std::errc::timed_out);
}

TEST_F(HandleTest, OpensAfterTheEndAreRefused) {
    tarvo::Finish();
    std::error_code error;
    EXPECT_FALSE(tarvo::Pipe::Open(remote, tarvo::Options().As(self).Mode(TARVO_MODE_SERVER), error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST_F(HandleTest, ConnectInServerModeIsRefusedAtOnce) {
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(ReplyEcho));
    std::error_code error;
    const tarvo::Pipe pipe =
        tarvo::Pipe::Connect(remote, tarvo::Options().As(self).Mode(TARVO_MODE_SERVER).Timeout(1s), error);
    EXPECT_EQ(error, INVALID);
    EXPECT_TRUE(OwnFifoFiles() == std::vector<std::string>{remote}) << "no file but the server's";
}

TEST_F(HandleTest, OwnNameThatIsTooLongWithTheProcessIdIsRefusedAtOnce) {
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(ReplyEcho));
    const std::size_t most = 100 - 1 - std::to_string(getpid()).size();
    std::error_code error;
    const std::string longest = self + std::string(most - self.size(), 'x');
    const tarvo::Pipe tooLong = tarvo::Pipe::Connect(remote, tarvo::Options().As(longest + "x").Timeout(100ms), error);
    EXPECT_EQ(error, INVALID);
    const tarvo::Pipe pipe = tarvo::Pipe::Connect(remote, tarvo::Options().As(longest).Timeout(PATIENCE), error);
    EXPECT_FALSE(error) << error.message();
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "failed")) << "a server that cannot open its end says so far away";
}

} // namespace
} // namespace tarvo_test
