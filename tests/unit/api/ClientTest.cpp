// The client that comes back: what it does while its server is there, has gone and has come again. The storm of
// tests/storm/client_kills.cpp does the same a thousand times.
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include "HandleFixture.h"
#include "support/Eventually.h"
#include "support/Process.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

// Serves when it is told to, until it is killed, or closes each pipe over which "close" comes.
class ServerProcess {
public:
    explicit ServerProcess(const std::string &name)
        : process_([name](Channel &parent) {
              if (!parent.Await()) {
                  return 1;
              }
              tarvo::Server::Start(tarvo::ServerOptions().As(name).OnRequest([](const tarvo::Request &request) {
                  if (request.Bytes() == "close") {
                      request.From().Close();
                  }
                  return request.Bytes() == "silence" ? "" : request.Text() + " from " + std::to_string(getpid());
              }));
              parent.Signal();
              return parent.Await() ? 0 : 1; // for ever
          }) {}

    void Serve() { EXPECT_TRUE(process_.Signal() && process_.Await()); }
    void Kill() {
        process_.Kill();
        process_.Wait();
    }
    std::string Answer(const std::string &question) const {
        return question + " from " + std::to_string(process_.Pid());
    }

private:
    ChildProcess process_;
};

class ClientTest : public HandleTest {
protected:
    tarvo::ClientOptions Events() {
        return tarvo::ClientOptions()
            .OnUp([this](tarvo::PipeView) { ++ups; })
            .OnDown([this] { ++downs; })
            .Waits(1ms, 10ms);
    }

    // A server that is left alone would still make files for clients that it has heard of.
    void TearDown() override {
        for (ServerProcess &server : servers) {
            server.Kill();
        }
        HandleTest::TearDown();
    }

    // Processes are made before the client's thread.
    std::array<ServerProcess, 2> servers{ServerProcess(remote), ServerProcess(remote)};
    std::atomic<int> ups{0};
    std::atomic<int> downs{0};
};

TEST_F(ClientTest, ComesBackToItsServer) {
    tarvo::Client client(remote, tarvo::Options().As(self), Events());
    std::error_code error;
    for (ServerProcess &server : servers) {
        EXPECT_EQ(client.Call("anyone?", PATIENCE, error).Text(), "");
        EXPECT_EQ(error, std::errc::not_connected);
        client.Send("anyone?", error);
        EXPECT_EQ(error, std::errc::not_connected);
        EXPECT_FALSE(client.IsUp());
        server.Serve();
        ASSERT_TRUE(client.WaitUntilUp(PATIENCE));
        EXPECT_EQ(client.Call("hello", PATIENCE).Text(), server.Answer("hello"));
        EXPECT_EQ(ups, downs + 1);
        EXPECT_EQ(client.Connections(), ups);
        const int before = downs;
        server.Kill();
        // A process that is being killed may be connected to once more before its last file is closed.
        EXPECT_TRUE(Eventually([&] { return downs > before && downs == ups && !client.IsUp(); }));
    }
}

TEST_F(ClientTest, WaitingWritesNoLogLine) {
    ASSERT_EQ(mkfifo((FifoDirectory() + remote).c_str(), 0660), 0); // as a killed server leaves it
    const tarvo::Client toNobody(remote, tarvo::Options().As(self), tarvo::ClientOptions().Waits(1ms, 1ms));
    const tarvo::Client toNoFile(remote + "2", tarvo::Options().As(self), tarvo::ClientOptions().Waits(1ms, 1ms));
    EXPECT_FALSE(toNobody.WaitUntilUp(100ms));
    EXPECT_FALSE(toNoFile.IsUp());
    EXPECT_THAT(log.Messages(), testing::IsEmpty());
}

TEST_F(ClientTest, CallThatTheServerDiesInIsABrokenPipe) {
    tarvo::Client client(remote, tarvo::Options().As(self), Events());
    servers[0].Serve();
    ASSERT_TRUE(client.WaitUntilUp(PATIENCE));
    EXPECT_EQ(client.Call("warm", PATIENCE).Text(), servers[0].Answer("warm"));
    auto call = InBackground([&] {
        std::error_code error;
        (void)client.Call("silence", PATIENCE, error);
        return error;
    });
    // The call is on its way when the answer of another that was sent after it has come.
    EXPECT_EQ(client.Call("second", PATIENCE).Text(), servers[0].Answer("second"));
    servers[0].Kill();
    const std::error_code error = call.get();
    EXPECT_TRUE(error == std::errc::broken_pipe || error == std::errc::not_connected) << error.message();
}

TEST_F(ClientTest, ServerThatClosesThePipeIsConnectedAgain) {
    tarvo::Client client(remote, tarvo::Options().As(self), Events());
    servers[0].Serve();
    ASSERT_TRUE(client.WaitUntilUp(PATIENCE));
    std::error_code error;
    (void)client.Call("close", PATIENCE, error);
    EXPECT_TRUE(error == std::errc::broken_pipe) << error.message();
    EXPECT_TRUE(Eventually([&] { return ups >= 2; }));
    EXPECT_TRUE(Eventually([&] { return client.Call("again", 100ms, error).Text() == servers[0].Answer("again"); }));
}

TEST_F(ClientTest, IntroducesItselfBeforeOtherCallsGoOverTheNewPipe) {
    std::promise<std::string> answer;
    tarvo::Client client(remote, tarvo::Options().As(self),
                         tarvo::ClientOptions().Waits(1ms, 1ms).OnUp([&](tarvo::PipeView pipe) {
                             EXPECT_FALSE(client.IsUp());
                             answer.set_value(pipe.Call("I am new", PATIENCE).Text());
                         }));
    servers[0].Serve();
    ASSERT_TRUE(client.WaitUntilUp(PATIENCE));
    EXPECT_EQ(answer.get_future().get(), servers[0].Answer("I am new"));
}

TEST_F(ClientTest, PipeThatSomebodyElseOwnsIsToldByEachCall) {
    servers[0].Serve();
    const tarvo::Pipe pipe = tarvo::Pipe::Connect(remote, tarvo::Options().As(self).Timeout(PATIENCE));
    tarvo::Client client(remote, tarvo::Options().As(self), Events());
    std::error_code error;
    EXPECT_TRUE(Eventually([&] {
        client.Send("x", error);
        return error == std::errc::file_exists;
    }));
    EXPECT_EQ(pipe.Call("mine", PATIENCE).Text(), servers[0].Answer("mine"));
}

TEST_F(ClientTest, WrongNamesAndOptionsAreRefusedAtOnce) {
    for (const std::string &name :
         {std::string(), std::string("a|b"), std::string("a..b"), std::string("a\0b", 3), std::string(101, 'a')}) {
        EXPECT_EQ(Thrown([&] { const tarvo::Client client(name); }), std::make_error_code(std::errc::invalid_argument));
    }
    EXPECT_EQ(Said([&] { const tarvo::Client client(remote, tarvo::Options().Mode(TARVO_MODE_SERVER)); }),
              "tarvo client of " + remote +
                  " (servers create the files: the mode must be TARVO_MODE_CLIENT): Invalid argument");
}

TEST_F(ClientTest, AllConnectionsRunOneCallbackObject) {
    // The servers of this test call their client: one in this process does.
    std::atomic<int> most{0};
    const CallbacksEnd end;
    tarvo::Server::Start(tarvo::ServerOptions().As(self).OnRequest([&](const tarvo::Request &request) {
        std::error_code error;
        most = std::atoi(request.From().Call("count", PATIENCE, error).Text().c_str());
        request.From().Close();
    }));
    tarvo::Client client(self, tarvo::Options().As(remote).OnRequest([count = 0](const tarvo::Request &) mutable {
        return std::to_string(++count);
    }),
                         Events());
    EXPECT_TRUE(Eventually([&] {
        std::error_code error;
        client.Send("call me", error); // and close the pipe
        return most >= 2;
    }));
    EXPECT_GE(ups, 2);
}

TEST_F(ClientTest, EndsWhileNobodyServesAndAfterTheLibrary) {
    { const tarvo::Client client(remote, tarvo::Options().As(self)); }
    tarvo::Client client(remote, tarvo::Options().As(self), Events());
    servers[0].Serve();
    ASSERT_TRUE(client.WaitUntilUp(PATIENCE));
    tarvo::Finish();
    std::error_code error;
    (void)client.Call("x", PATIENCE, error);
    EXPECT_EQ(error, std::errc::not_connected);
}

} // namespace
} // namespace tarvo_test
