// What the server makes of the bytes on its monitor FIFO.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "PipeServerFixture.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/RawFrame.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

using namespace std::string_literals;

std::string Field(uint32_t value) { return {reinterpret_cast<const char *>(&value), sizeof(value)}; }

std::string Packet(uint32_t type, uint32_t size, const std::string &name) {
    return Field(RAW_MAGIC) + Field(type) + Field(getgid()) + Field(static_cast<uint32_t>(getpid())) + Field(size) +
           name;
}

class PipeServerPacketTest : public PipeServerTest {
protected:
    // The server skips `bytes` with an error line and serves the client after them.
    void ExpectSkipped(const std::string &bytes, const std::string &line) {
        ASSERT_EQ(Start(), 0);
        Write(bytes);
        EXPECT_TRUE(log.WaitFor(LOG_ERR, line)) << line;
        EXPECT_EQ(ServeClient("good").targetName, "good");
        EXPECT_EQ(opens.Count(), 1U);
        EXPECT_EQ(log.Count(LOG_ERR, "In callback Open pipe"), 0U);
    }

    // The server skips a client whose name it has no memory for when it allocates for it the nth time.
    void ExpectSkippedWithoutMemory(unsigned nth, const std::string &line) {
        ASSERT_EQ(Start(), 0);
        std::unique_ptr<AllocFault> fault;
        {
            // Armed on the server's thread, with its first read.
            const ScopedHook hook(
                Call::Read, [&](const CallInfo &) { fault = std::make_unique<AllocFault>(nth, 78); }, Where().Times(1));
            Write(Connect(std::string(77, 'n')));
            EXPECT_TRUE(log.WaitFor(LOG_ERR, line));
        }
        ServeClient("good");
        EXPECT_EQ(opens.Count(), 1U);
    }
};

void HandleRequest(int, TarvoRequest *) {}

TEST_F(PipeServerPacketTest, ConnectPacketOpensAPassivePipeToItsClient) {
    attr.callback = HandleRequest;
    attr.priority = TARVO_PRIORITY_NORMAL;
    ASSERT_EQ(Start(), 0);
    Write(RawConnectPacket("client", 4711, 815));
    const OpenedPipe pipe = opens.WaitForTarget("client");
    EXPECT_EQ(pipe.type, TARVO_SERVER_PIPE);
    EXPECT_EQ(pipe.selfName, name);
    EXPECT_TRUE(pipe.attr.callback);
    EXPECT_EQ(pipe.attr.timeout, 2000);
    EXPECT_EQ(pipe.attr.mode, TARVO_MODE_SERVER);
    EXPECT_EQ(pipe.attr.gid, 4711U);
    EXPECT_EQ(pipe.attr.priority, TARVO_PRIORITY_NORMAL);
    EXPECT_EQ(pipe.attr.targetPid, 815);
    EXPECT_FALSE(pipe.attr.isConcur);
    EXPECT_EQ(pipe.attr.domain, TARVO_DOMAIN_LOCAL);
    EXPECT_EQ(pipe.attr.targetCon, nullptr);
}

TEST_F(PipeServerPacketTest, PipesOfAServerWithoutACallbackHaveNoneEither) {
    attr.callback = nullptr;
    ASSERT_EQ(Start(), 0);
    EXPECT_FALSE(ServeClient("client").attr.callback);
}

TEST_F(PipeServerPacketTest, PipesOfAServerWithoutANameHaveNoneEither) {
    setenv("PROC_NAME", name.c_str(), 1);
    attr.selfName = nullptr;
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(ServeClient("client").selfName, "(null)");
}

TEST_F(PipeServerPacketTest, PipesHaveThePriorityOfTheServer) {
    attr.priority = TARVO_PRIORITY_URGENT;
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(ServeClient("client").attr.priority, TARVO_PRIORITY_URGENT);
}

TEST_F(PipeServerPacketTest, InRunModeOneAPipeMayTakeFiveHoursToOpen) {
    setenv("KELDOR_RUN_MODE", "1", 1);
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(ServeClient("client").attr.timeout, 18000000);
}

TEST_F(PipeServerPacketTest, InAnyOtherRunModeAPipeMayTakeTwoSecondsToOpen) {
    setenv("KELDOR_RUN_MODE", "11", 1);
    ASSERT_EQ(Start(), 0);
    EXPECT_EQ(ServeClient("client").attr.timeout, 2000);
}

TEST_F(PipeServerPacketTest, OpenCallbackLearnsHandleAndName) {
    std::promise<std::pair<int, std::string>> told;
    OnOpen([&](int fd, const std::string &client) { told.set_value({fd, client}); });
    ASSERT_EQ(Start(), 0);
    Write(Connect("client"));
    EXPECT_EQ(told.get_future().get(), std::make_pair(101, "client"s));
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerPacketTest, ServerWithoutAnOpenCallbackOpensPipesAllTheSame) {
    attr.openCallback = nullptr;
    ASSERT_EQ(Start(), 0);
    Write(Connect("first") + Connect("second"));
    opens.WaitForTarget("second");
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerPacketTest, EarlierOpenCallbackIsForgottenWhenTheServerStartsWithoutOne) {
    unsigned calls = 0;
    OnOpen([&](int, const std::string &) { ++calls; });
    ASSERT_EQ(Start(), 0);
    server->Close();
    attr.openCallback = nullptr;
    ASSERT_EQ(Start(), 0);
    Write(Connect("client"));
    server->Close();
    EXPECT_EQ(opens.Count(), 1U);
    EXPECT_EQ(calls, 0U);
}

TEST_F(PipeServerPacketTest, PipeThatCannotBeOpenedIsLoggedAndNotAnnounced) {
    unsigned calls = 0;
    OnOpen([&](int, const std::string &) { ++calls; });
    opens.SetAction([](const OpenedPipe &pipe) { return pipe.targetName == "bad" ? -EINVAL : 0; });
    ASSERT_EQ(Start(), 0);
    Write(Connect("bad") + Connect("good"));
    server->Close();
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "In callback Open pipe bad failed -22."));
    EXPECT_EQ(opens.TargetNames(2), (std::vector<std::string>{"bad", "good"}));
    EXPECT_EQ(calls, 1U);
}

TEST_F(PipeServerPacketTest, ClientsAreServedOneAfterAnotherOnTheServersThread) {
    std::vector<pid_t> threads;
    OnOpen([&](int, const std::string &) { threads.push_back(gettid()); });
    ASSERT_EQ(Start(), 0);
    Write(Connect("first") + Connect("second"));
    server->Close();
    const std::vector<OpenedPipe> pipes = opens.WaitFor(2);
    ASSERT_EQ(threads.size(), 2U);
    for (const pid_t thread : {pipes[1].thread, threads[0], threads[1]}) {
        EXPECT_EQ(thread, pipes[0].thread);
    }
    EXPECT_NE(threads[0], gettid());
}

// ---- Names ----

TEST_F(PipeServerPacketTest, NamesOfOneToOneHundredAndTenBytesAreTaken) {
    ASSERT_EQ(Start(), 0);
    const std::string longest(110, 'n');
    Write(Connect("n") + Connect(longest));
    EXPECT_EQ(opens.TargetNames(2), (std::vector<std::string>{"n", longest}));
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerPacketTest, EmptyNameIsSkipped) {
    ExpectSkipped(Packet(0, 0, ""), "Read connect packet data size failed, ret=4, size=0 bytes, errno=");
}

TEST_F(PipeServerPacketTest, NameOfOneHundredAndElevenBytesIsSkipped) {
    const std::string tooLong(111, 'n');
    ExpectSkipped(Packet(0, 111, tooLong), "Read connect packet data size failed, ret=4, size=111 bytes, errno=");
    // Its bytes are looked through for the next magic.
    EXPECT_EQ(log.Count(LOG_ERR, "Receive magic error, received: 110, expected: 217, ret=1."), 111U);
}

TEST_F(PipeServerPacketTest, HugeNameSizeIsSkipped) {
    ExpectSkipped(Packet(0, 0xFFFFFFFFU, "n"),
                  "Read connect packet data size failed, ret=4, size=4294967295 bytes, errno=");
}

TEST_F(PipeServerPacketTest, NameEndsAtItsFirstZeroByte) {
    std::promise<std::string> told;
    OnOpen([&](int, const std::string &client) { told.set_value(client); });
    ASSERT_EQ(Start(), 0);
    Write(Connect("ab\0cd"s));
    EXPECT_EQ(told.get_future().get(), "ab");
    EXPECT_EQ(opens.TargetNames(1), std::vector<std::string>{"ab"});
}

TEST_F(PipeServerPacketTest, NameThatBeginsWithAZeroByteIsNotAnnounced) {
    unsigned calls = 0;
    OnOpen([&](int, const std::string &) { ++calls; });
    ASSERT_EQ(Start(), 0);
    Write(Connect("\0a"s) + Connect("good"));
    server->Close();
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "In callback Open pipe  failed 101."));
    EXPECT_EQ(calls, 1U);
}

// ---- Malformed packets ----

TEST_F(PipeServerPacketTest, BytesThatAreNoPacketAreSkipped) {
    ExpectSkipped("garbage", "Receive magic error, received: 103, expected: 217, ret=1.");
    EXPECT_EQ(log.Count(LOG_ERR, "Receive magic error"), 7U);
}

TEST_F(PipeServerPacketTest, MagicThatBreaksOffIsSkippedByteByByte) {
    ExpectSkipped("\xD9\xC8\xB7\x00"s, "Receive magic error, received: 0, expected: 166, ret=1.");
    EXPECT_EQ(log.Count(LOG_ERR, "Receive magic error"), 1U);
}

TEST_F(PipeServerPacketTest, MagicWithinTheMismatchIsNotSearchedFor) {
    // The second D9 is eaten as the byte that differs, so this packet is lost.
    ExpectSkipped("\xD9"s + Connect("lost"), "Receive magic error, received: 217, expected: 200, ret=1.");
}

TEST_F(PipeServerPacketTest, UnknownTypeIsSkipped) {
    ExpectSkipped(Field(RAW_MAGIC) + Field(2), "Read type failed, ret=4, type=2, errno=");
}

TEST_F(PipeServerPacketTest, NegativeTypeIsAConnectPacket) {
    ASSERT_EQ(Start(), 0);
    Write(Packet(0x80000000U, 6, "client"));
    opens.WaitForTarget("client");
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerPacketTest, PacketWithoutAWholeTypeIsSkipped) {
    ExpectSkipped(Field(RAW_MAGIC) + "\0\0"s, "Read type failed, ret=2, type=0, errno=");
}

TEST_F(PipeServerPacketTest, PacketWithoutAWholeGroupIsSkipped) {
    ExpectSkipped(Field(RAW_MAGIC) + Field(0) + "\1\2\3"s,
                  "Read client gid failed, ret=3, recv gid=4278387201, errno=");
}

TEST_F(PipeServerPacketTest, PacketWithoutAWholeProcessIdIsSkipped) {
    ExpectSkipped(Field(RAW_MAGIC) + Field(0) + Field(getgid()) + "\1"s,
                  "Read client pid failed, ret=1, recv pid=-255, errno=");
}

TEST_F(PipeServerPacketTest, PacketWithoutAWholeNameSizeIsSkipped) {
    ExpectSkipped(Packet(0, 0, "").substr(0, 16) + "\5"s,
                  "Read connect packet data size failed, ret=1, size=5 bytes, errno=");
}

TEST_F(PipeServerPacketTest, PacketWithoutAWholeNameIsSkipped) {
    ExpectSkipped(Packet(0, 6, "cli"),
                  "Read connect packet data failed, ret=3, clientName=cli,required size=6 bytes, errno=");
}

TEST_F(PipeServerPacketTest, EveryFieldThatCannotBeReadIsSkipped) {
    ASSERT_EQ(Start(), 0);
    unsigned served = 0;
    // The reads of one packet: four bytes of magic one by one, four fields, the name.
    for (const char *const line :
         {"Read type failed, ret=-5, type=2, errno=5.", "Read client gid failed, ret=-5, recv gid=4294967295, errno=5.",
          "Read client pid failed, ret=-5, recv pid=-1, errno=5.",
          "Read connect packet data size failed, ret=-5, size=0 bytes, errno=5.",
          "Read connect packet data failed, ret=-5, clientName=,required size=6 bytes, "
          "errno=5."}) {
        const ScopedFault fault(Call::Read, EIO, Where().Nth(5 + served));
        Write(Connect("client"));
        EXPECT_TRUE(log.WaitFor(LOG_ERR, line)) << line;
        const std::string good = "good" + std::to_string(++served);
        ServeClient(good);
    }
    EXPECT_EQ(opens.Count(), served);
}

TEST_F(PipeServerPacketTest, PacketsSentInPiecesAreWaitedForFieldByField) {
    ASSERT_EQ(Start(), 0);
    const std::string packet = Connect("client");
    std::size_t at = 0;
    for (const std::size_t piece : {1U, 2U, 1U, 4U, 4U, 4U, 4U, 6U}) {
        Write(packet.substr(at, piece));
        at += piece;
    }
    EXPECT_EQ(at, packet.size());
    opens.WaitForTarget("client");
}

TEST_F(PipeServerPacketTest, PacketForWhoseNameThereIsNoMemoryIsSkipped) {
    ExpectSkippedWithoutMemory(1, "Memset client name buffer error.");
}

TEST_F(PipeServerPacketTest, ClientForWhichThereIsNoMemoryIsSkipped) {
    // The second allocation of this size is the name that the open callback gets.
    ExpectSkippedWithoutMemory(2, "In callback Open pipe " + std::string(77, 'n') + " failed -12.");
}

TEST_F(PipeServerPacketTest, TwoHundredClientsAtTheSameMomentAreAllServedOnce) {
    ASSERT_EQ(Start(), 0);
    std::promise<void> start;
    const std::shared_future<void> started = start.get_future().share();
    std::vector<std::string> names;
    for (int i = 0; i < 200; ++i) {
        names.push_back("client" + std::to_string(i));
    }
    Threads clients(200, [&, started](int number) {
        started.wait();
        Write(Connect(names[static_cast<std::size_t>(number)]));
    });
    start.set_value();
    clients.Join();
    std::vector<std::string> served = opens.TargetNames(200);
    std::sort(served.begin(), served.end());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(served, names);
    EXPECT_TRUE(log.Lines().empty());
}

} // namespace
} // namespace tarvo_test
