// Stopping a server whose FIFO holds anything at all.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "PipeServerFixture.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/FifoEnds.h"
#include "support/RawFrame.h"
#include "support/Sanitized.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

class PipeServerStopTest : public PipeServerTest {
protected:
    ~PipeServerStopTest() override { StopTheFlood(); }

    // Every part of a connect packet that lacks its end.
    static std::vector<std::string> CutOffPackets() {
        const std::string packet = Connect("client");
        std::vector<std::string> parts;
        for (std::size_t size = 1; size < packet.size(); ++size) {
            parts.push_back(packet.substr(0, size));
        }
        return parts;
    }

    int UnreadBytes() const {
        int count = -1;
        EXPECT_EQ(ioctl(WriteEnd(path).Get(), FIONREAD, &count), 0);
        return count;
    }

    bool UnreadBytesBecome(std::size_t count) const {
        return Eventually([&] { return UnreadBytes() == static_cast<int>(count); });
    }

    // Clients announce themselves without a pause, so that the server never finds its FIFO empty.
    void Flood() {
        for (int i = 0; i < 2; ++i) {
            flood.Start([this, packet = Connect("flood")] {
                const UniqueFd end(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
                while (!over) {
                    static_cast<void>(write(end.Get(), packet.data(), packet.size()));
                }
            });
        }
        opens.WaitForTarget("flood");
    }

    void StopTheFlood() {
        over = true;
        flood.Join();
    }

    bool OnlyTheFloodWasServed() {
        const std::vector<std::string> names = opens.TargetNames(1);
        return std::all_of(names.begin(), names.end(), [](const std::string &client) { return client == "flood"; });
    }

    std::atomic<bool> over{false};
    Threads flood;
};

TEST_F(PipeServerStopTest, CloseEndsAThreadThatWaitsForTheRestOfAPacket) {
    for (const std::string &part : CutOffPackets()) {
        SCOPED_TRACE(part.size());
        ASSERT_EQ(Start(), 0);
        Write(part);
        ASSERT_TRUE(UnreadBytesBecome(0));
        server->Close();
        EXPECT_TRUE(NoServerThreads());
        EXPECT_EQ(opens.Count(), 0U);
    }
}

TEST_F(PipeServerStopTest, CloseIsNotTakenForTheRestOfAPacket) {
    const std::string last = RawTerminatePacket();
    for (const std::string &part : CutOffPackets()) {
        SCOPED_TRACE(part.size());
        opens.Forget();
        opens.SetAction([&](const OpenedPipe &pipe) {
            // The thread comes to the rest of the FIFO when everything is in it.
            EXPECT_TRUE(pipe.targetName != "first" || UnreadBytesBecome(part.size() + last.size()));
            return 0;
        });
        ASSERT_EQ(Start(), 0);
        Write(Connect("first") + part);
        opens.WaitForTarget("first");
        server->Close();
        EXPECT_EQ(opens.TargetNames(1), std::vector<std::string>{"first"});
    }
}

TEST_F(PipeServerStopTest, CloseServesWhatArrivedWholeBeforeACutOffPacket) {
    opens.SetAction([&](const OpenedPipe &pipe) {
        EXPECT_TRUE(pipe.targetName != "first" || UnreadBytesBecome(2 * Connect("second").size() + 3 + 16));
        return 0;
    });
    ASSERT_EQ(Start(), 0);
    Write(Connect("first") + Connect("second") + Connect("third_") + "\xD9\xC8\xB7");
    opens.WaitForTarget("first");
    server->Close();
    EXPECT_EQ(opens.TargetNames(3), (std::vector<std::string>{"first", "second", "third_"}));
}

TEST_F(PipeServerStopTest, CloseServesAFullFifoAndSaysNothing) {
    const std::string packet = Connect("twelve_bytes");
    ASSERT_EQ(packet.size(), 32U);
    std::size_t written = 0;
    const CallCounter writes(Call::Write, Where().If([](const CallInfo &call) { return call.size == 16; }));
    opens.SetAction([&](const OpenedPipe &pipe) {
        EXPECT_TRUE(pipe.targetName != "first" || writes.WaitFor(1));
        return 0;
    });
    ASSERT_EQ(Start(), 0);
    ServeClient("first");
    UniqueFd end = WriteEnd(path);
    while (write(end.Get(), packet.data(), packet.size()) > 0) {
        ++written;
    }
    end.Reset();
    server->Close();
    EXPECT_EQ(written, 65536U / 32);
    EXPECT_EQ(opens.Count(), written + 1);
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerStopTest, CloseEndsAlthoughItsPacketNeverArrives) {
    ASSERT_EQ(Start(), 0);
    Write(Connect("client"));
    const ScopedHook hook(
        Call::Write,
        [](const CallInfo &call) {
            return Outcome{static_cast<long>(call.size), 0};
        },
        Where().Times(1));
    server->Close();
    EXPECT_EQ(opens.TargetNames(1), std::vector<std::string>{"client"});
}

TEST_F(PipeServerStopTest, CloseEndsAlthoughClientsNeverStopComing) {
    for (int i = 0; i < Rounds(10, 2); ++i) {
        ASSERT_EQ(Start(), 0);
        over = false;
        Flood();
        server->Close();
        StopTheFlood();
        EXPECT_TRUE(OnlyTheFloodWasServed());
    }
}

TEST_F(PipeServerStopTest, CloseEndsAlthoughItsPacketIsLostAndClientsNeverStopComing) {
    ASSERT_EQ(Start(), 0);
    Flood();
    const ScopedHook hook(
        Call::Write,
        [](const CallInfo &call) {
            return Outcome{static_cast<long>(call.size), 0};
        },
        Where().ThisThread().Times(1));
    server->Close();
    EXPECT_EQ(hook.Hits(), 1U);
}

TEST_F(PipeServerStopTest, CloseEndsAlthoughItsPacketLiesWithinALongNameAndClientsNeverStopComing) {
    const std::string head = Connect(std::string(110, 'n')).substr(0, 20);
    for (int i = 0; i < Rounds(10, 2); ++i) {
        ASSERT_EQ(Start(), 0);
        over = false;
        Flood();
        {
            // One write, so that no client comes in between.
            const ScopedHook hook(
                Call::Write,
                [&](const CallInfo &call) {
                    const std::string both = head + std::string(static_cast<const char *>(call.data), call.size);
                    while (write(call.fd, both.data(), both.size()) < 0) {
                    }
                    return Outcome{static_cast<long>(call.size), 0};
                },
                Where().ThisThread().Times(1));
            server->Close();
        }
        StopTheFlood();
        EXPECT_TRUE(OnlyTheFloodWasServed());
    }
}

TEST_F(PipeServerStopTest, ServerStoppedInTheMiddleOfAPacketStartsAgain) {
    ASSERT_EQ(Start(), 0);
    Write("\xD9\xC8\xB7");
    server->Close();
    log.Clear();
    ASSERT_EQ(Start(), 0);
    ServeClient("client");
    server->Close();
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(PipeServerStopTest, WhatLooksLikeItsPacketIsPartOfANameAsLongAsNobodyClosesTheServer) {
    ASSERT_EQ(Start(), 0);
    Write(Connect("name" + RawTerminatePacket()) + Connect("good"));
    EXPECT_EQ(opens.TargetNames(2)[1], "good");
}

TEST_F(PipeServerStopTest, NoDescriptorOfAServerIsInherited) {
    const auto before = OpenDescriptors();
    ASSERT_EQ(Start(), 0);
    unsigned ours = 0;
    for (const auto &entry : OpenDescriptors()) {
        if (std::find(before.begin(), before.end(), entry) == before.end()) {
            ++ours;
            EXPECT_NE(fcntl(entry.first, F_GETFD) & FD_CLOEXEC, 0) << entry.second;
        }
    }
    EXPECT_EQ(ours, 3U);
}

} // namespace
} // namespace tarvo_test
