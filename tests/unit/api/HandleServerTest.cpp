// What a server's callbacks know of their client, and that it is announced before its requests.
#include <sys/stat.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "HandleFixture.h"
#include "support/Eventually.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

// Each client sends its first request at once. A third of them came before OnClient had run.
TEST_F(HandleTest, OnClientHasReturnedBeforeTheFirstRequestOfItsPipe) {
    constexpr int threads = 4;
    constexpr int clients = 50;
    constexpr std::size_t all = 200;
    std::mutex mutex;
    std::set<int> announced;
    std::atomic<int> early{0};
    std::atomic<int> twice{0};
    const CallbacksEnd end;
    tarvo::Server::Start(tarvo::ServerOptions()
                             .As(remote)
                             .OnClient([&](tarvo::PipeView pipe, std::string_view) {
                                 std::this_thread::yield();
                                 const std::lock_guard<std::mutex> lock(mutex);
                                 twice += announced.insert(pipe.Handle()).second ? 0 : 1;
                             })
                             .OnRequest([&](const tarvo::Request &request) {
                                 {
                                     const std::lock_guard<std::mutex> lock(mutex);
                                     early += announced.count(request.From().Handle()) == 0 ? 1 : 0;
                                 }
                                 request.Reply(request.Bytes());
                             }));
    OnThreads(threads, [&](int number) {
        const std::string name = self + std::to_string(number) + "_";
        for (int client = 0; client < clients; ++client) {
            const tarvo::Pipe pipe = Connect(name + std::to_string(client));
            const tarvo::Response response = pipe.Call("first", PATIENCE);
            EXPECT_EQ(response.Bytes(), "first");
        }
    });
    EXPECT_EQ(early, 0) << "of " << threads * clients << " first requests";
    EXPECT_EQ(twice, 0);
    // The server's thread may still be at the last one.
    EXPECT_TRUE(Eventually([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return announced.size() == all;
    }));
}

TEST_F(HandleTest, FirstRequestWaitsForASlowOnClient) {
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    std::atomic<bool> early{false};
    const CallbacksEnd end;
    tarvo::Server::Start(tarvo::ServerOptions()
                             .As(remote)
                             .OnClient([&, leaving = leave.get_future().share()](tarvo::PipeView, std::string_view) {
                                 entered.set_value();
                                 leaving.wait();
                                 left = true;
                             })
                             .OnRequest([&](const tarvo::Request &) {
                                 early = !left;
                                 return "ok";
                             }));
    const tarvo::Pipe pipe = Connect(self);
    auto call = InBackground([&] { return pipe.Call("first", PATIENCE); });
    entered.get_future().wait();
    leave.set_value();
    EXPECT_EQ(call.get().Text(), "ok");
    EXPECT_FALSE(early);
}

// OnClient may talk to its client, which answers without asking back.
TEST_F(HandleTest, OnClientMayCallItsClient) {
    std::promise<std::string> introduced;
    const CallbacksEnd end;
    tarvo::Server::Start(
        tarvo::ServerOptions().As(remote).OnRequest(ReplyEcho).OnClient([&](tarvo::PipeView pipe, std::string_view) {
            std::string name;
            EXPECT_TRUE(Eventually([&] { // until the client has opened its end
                std::error_code error;
                name = pipe.Call("who are you?", PATIENCE, error).Text();
                return error != std::errc::no_such_device_or_address;
            }));
            introduced.set_value(name);
        }));
    const tarvo::Pipe pipe = tarvo::Pipe::Connect(remote, tarvo::Options().As(self).Timeout(PATIENCE).OnRequest(
                                                              [](const tarvo::Request &) { return "the client"; }));
    EXPECT_EQ(pipe.Call("first", PATIENCE).Text(), "first");
    EXPECT_EQ(introduced.get_future().get(), "the client");
}

TEST_F(HandleTest, ClientNameIsRightInEveryCallback) {
    tarvo::Server::Start(tarvo::ServerOptions().As(remote).OnRequest(
        [](const tarvo::Request &request) { return request.ClientName(); }));
    const std::string suffix = "_" + std::to_string(getpid());
    for (int i = 0; i < 100; ++i) {
        const std::string name = self + std::to_string(i);
        const tarvo::Pipe pipe = Connect(name);
        EXPECT_EQ(pipe.Call("first", PATIENCE).Text(), name + suffix);
        EXPECT_EQ(pipe.Call("second", PATIENCE).Text(), name + suffix);
    }
    OpenBoth(tarvo::Options().OnRequest([](const tarvo::Request &request) {
        request.From().Close(); // the name is not the pipe's
        EXPECT_EQ(request.From().RemoteName(), "");
        const std::string name(request.ClientName());
        std::fprintf(stderr, "%s\n", name.c_str());
        EXPECT_FALSE(name.empty());
    }));
    far.Send("x");
    EXPECT_TRUE(Eventually([&] { return near.RemoteName().empty(); }));
}

// A client that goes at once, perhaps before its OnClient: that comes first, once, all the same.
TEST_F(HandleTest, OnClosedComesAfterOnClient) {
    constexpr int clients = 100;
    std::mutex mutex;
    std::map<int, std::string> events;
    const CallbacksEnd end;
    tarvo::Server::Start(tarvo::ServerOptions()
                             .As(remote)
                             .OnRequest(Ignore)
                             .OnClient([&](tarvo::PipeView pipe, std::string_view) {
                                 const std::lock_guard<std::mutex> lock(mutex);
                                 events[pipe.Handle()] += "up ";
                             })
                             .OnClosed([&](tarvo::PipeView pipe) {
                                 const std::lock_guard<std::mutex> lock(mutex);
                                 events[pipe.Handle()] += "down ";
                             }));
    for (int i = 0; i < clients; ++i) {
        (void)tarvo::Pipe::Connect(remote, tarvo::Options().As(self + std::to_string(i)).Timeout(PATIENCE));
    }
    const auto complete = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        std::size_t count = 0;
        for (const auto &[handle, event] : events) {
            count += event == "up down " ? 1U : 0U;
        }
        return count == clients;
    };
    EXPECT_TRUE(Eventually(complete));
    for (const auto &[handle, event] : events) {
        EXPECT_EQ(event, "up down ") << "pipe " << handle;
    }
}

} // namespace
} // namespace tarvo_test
