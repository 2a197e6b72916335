// Every allocation of every exported function is made to fail in turn: the call fails softly, a repetition succeeds,
// and nothing is left behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>

#include "ApiFixture.h"
#include "support/AllocFaults.h"
#include "support/Eventually.h"

namespace tarvo_test {
namespace {

// Runs `call` with its first allocation failing, then with its second, and so on until it makes no more. `failed` is
// told the result of each.
void FailEachAllocation(const std::function<int()> &call, const std::function<void(int)> &failed) {
    for (unsigned nth = 1;; ++nth) {
        int result = 0;
        bool hit = false;
        {
            const AllocFault fault(nth);
            result = call();
            hit = fault.Hit();
        }
        if (!hit) {
            EXPECT_GE(result, 0);
            return;
        }
        failed(result);
    }
}

class MemoryTest : public ApiTest {
protected:
    MemoryTest() {
        // What is made once in a process is not what these tests are about.
        TarvoServiceIsExist();
        const PipePair pair(Echo, Echo);
        EXPECT_EQ(Ask(pair.near, "hello"), "hello");
        EXPECT_EQ(Ask(pair.far, "hello"), "hello");
    }
};

TEST_F(MemoryTest, OpenFailsSoftlyAndCanBeRepeated) {
    unsigned failures = 0;
    std::string own = UniqueName("own");
    int fd = 0;
    FailEachAllocation(
        [&] {
            TarvoAttr attr = MakeAttr(own, remote, TARVO_MODE_SERVER, [this](int, TarvoRequest *) { log.Clear(); });
            attr.timeout = PIPE_OPEN_TIMEOUT_MS;
            return fd = TarvoOpen(&attr);
        },
        [&](int result) {
            // The background open may be what failed: the pipe is open then, and opens its other end when it sends.
            EXPECT_TRUE(result == -ENOMEM || result > 1) << result;
            TarvoAttr attr = MakeAttr(own, remote, TARVO_MODE_SERVER, Echo);
            fd = TarvoOpen(&attr);
            EXPECT_GT(fd, 1);
            { const JoinedRawPeer peer(remote, own); }
            TarvoClosePipe(fd);
            own = UniqueName("own");
            ++failures;
        });
    TarvoClosePipe(fd);
    EXPECT_GT(failures, 10U);
}

TEST_F(MemoryTest, ClientFailsSoftlyAndCanBeRepeated) {
    const std::string serverName = UniqueName("server");
    ASSERT_EQ(CreateServer(serverName, Echo), 0);
    unsigned failures = 0;
    std::string own = UniqueName("own");
    int fd = 0;
    FailEachAllocation([&] { return fd = CreateClient(own, serverName); },
                       [&](int result) {
                           EXPECT_TRUE(result == -ENOMEM || result > 1) << result;
                           fd = CreateClient(own, serverName);
                           EXPECT_EQ(Ask(fd, "hello"), "hello");
                           TarvoClosePipe(fd);
                           own = UniqueName("own");
                           ++failures;
                       });
    TarvoClosePipe(fd);
    EXPECT_GT(failures, 10U);
    TarvoExceptionHandler(SIGTERM);
}

TEST_F(MemoryTest, ServerFailsSoftlyAndCanBeRepeated) {
    const std::string serverName = UniqueName("server");
    TarvoServerAttr server;
    server.selfName = serverName.c_str();
    unsigned failures = 0;
    FailEachAllocation([&] { return TarvoCreateServer(&server); },
                       [&](int result) {
                           EXPECT_TRUE(result == -ENOMEM || result == -ENOSPC) << result;
                           ++failures;
                       });
    EXPECT_GT(failures, 3U);
    TarvoExceptionHandler(SIGTERM);
}

TEST_F(MemoryTest, CallFailsSoftlyAndLeavesAnEmptyResponse) {
    const PipePair pair(Echo);
    unsigned failures = 0;
    Blocks blocks;
    TarvoResponse response{};
    FailEachAllocation([&] { return TarvoRPCSync(pair.far, &blocks.request, &response); },
                       [&](int result) {
                           EXPECT_EQ(result, -ENOMEM);
                           EXPECT_EQ(response.data, nullptr);
                           EXPECT_EQ(Ask(pair.far, "hello"), "hello");
                           ++failures;
                       });
    DestroyResponse(&response);
    EXPECT_GT(failures, 1U);
}

TEST_F(MemoryTest, SendsFailSoftly) {
    const PipePair pair;
    Blocks blocks;
    const auto outOfMemory = [](int result) { EXPECT_EQ(result, -ENOMEM); };
    FailEachAllocation([&] { return TarvoSendRequest(pair.far, &blocks.request); }, outOfMemory);
    FailEachAllocation([&] { return TarvoSendResponse(pair.far, &blocks.response); }, outOfMemory);
}

TEST_F(MemoryTest, CloseAndCleanFailSoftlyAndCanBeRepeated) {
    const PipePair pair;
    const auto outOfMemory = [](int result) { EXPECT_EQ(result, -ENOMEM); };
    FailEachAllocation([&] { return TarvoCleanPipe(pair.far); }, outOfMemory);
    FailEachAllocation([&] { return TarvoClosePipe(pair.far); }, outOfMemory);
    Blocks blocks;
    EXPECT_EQ(TarvoSendRequest(pair.far, &blocks.request), -ENOENT);
}

TEST_F(MemoryTest, OrderlyEndFailsSoftlyAndCanBeRepeated) {
    const PipePair pair(Echo, Echo);
    EXPECT_EQ(Ask(pair.near, "hello"), "hello");
    FailEachAllocation(
        [] {
            TarvoCfgFinishServer();
            return TarvoServiceIsExist() == 0 ? 0 : -1;
        },
        [](int) {});
    EXPECT_EQ(TarvoServiceIsExist(), 0);
}

// Copied with the attribute's callback object into every pipe.
struct Uncopyable {
    Uncopyable() = default;
    Uncopyable(const Uncopyable &other) : copies(other.copies) {
        if (++*copies > 1) {
            throw std::runtime_error("no copy");
        }
    }
    void operator()(int, TarvoRequest *) const {}

    std::shared_ptr<int> copies = std::make_shared<int>(0);
};

TEST_F(MemoryTest, CallbackObjectThatCannotBeCopiedFailsTheOpen) {
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    attr.callback = Uncopyable();
    EXPECT_EQ(TarvoOpen(&attr), -EINVAL);
    attr.callback = nullptr;
    EXPECT_GT(TarvoOpen(&attr), 1);
}

} // namespace
} // namespace tarvo_test
