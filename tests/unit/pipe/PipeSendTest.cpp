// Sending: what goes onto the wire, and what comes back when it cannot.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <tuple>

#include "PipeEnvironment.h"
#include "PipeFixture.h"

namespace tarvo_test {
namespace {

using namespace std::string_literals;

class PipeSendTest : public PipeTest {
protected:
    int SendRequest(const Pipe &pipe, uint32_t id, std::string payload, int timeout = 0) {
        return pipe->Send(TarvoRequest{id, payload.data(), static_cast<uint32_t>(payload.size())}, timeout);
    }

    int SendResponse(const Pipe &pipe, uint32_t id, std::string payload) {
        return pipe->Send(TarvoResponse{id, payload.data(), static_cast<uint32_t>(payload.size())});
    }

    // The descriptor that the pipe writes to.
    int WriteFd() const {
        for (const auto &[fd, file] : OpenDescriptors()) {
            if (file == writeFile && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY) {
                return fd;
            }
        }
        return -1;
    }

    // All that is in the FIFO now, as it is there.
    std::string Bytes() const {
        const int fd = open(writeFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        std::string bytes(65536, '\0');
        const ssize_t count = read(fd, bytes.data(), bytes.size());
        close(fd);
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    std::string WriteErrorLine(int error) const {
        return "write failed, errno = " + std::to_string(error) + " for readFd(" + std::to_string(ReadFd()) +
               ") remote(" + remote + ")";
    }
};

TEST_F(PipeSendTest, FramesArriveOverPipesOfBothModes) {
    for (const TarvoMode mode : {TARVO_MODE_SERVER, TARVO_MODE_CLIENT}) {
        const Pipe pipe = OpenPipe(Attr(mode));
        EXPECT_EQ(SendRequest(pipe, 7, "question", 250), 0);
        EXPECT_EQ(SendResponse(pipe, 8, "answer"), 0);
        const RawFrame request = peer.Receive();
        EXPECT_EQ(request.id, 7U);
        EXPECT_EQ(request.type, 0U);
        EXPECT_EQ(request.timeout, 250);
        EXPECT_EQ(request.payload, "question");
        const RawFrame response = peer.Receive();
        EXPECT_EQ(response.id, 8U);
        EXPECT_EQ(response.type, 1U);
        EXPECT_EQ(response.timeout, -1);
        EXPECT_EQ(response.payload, "answer");
        pipe->CloseFd();
        CloseRemote();
    }
}

TEST_F(PipeSendTest, RequestLiesOnTheWireByteByByte) {
    FakeClock clock(FakeClock::Mode::Frozen);
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    // 0x0001020304050607 microseconds.
    clock.SetMonotonic(std::chrono::microseconds(0x0001020304050607));
    EXPECT_EQ(SendRequest(pipe, 0x11223344, "ab\xff", 0x01020304), 0);
    EXPECT_EQ(Bytes(), "\xD9\xC8\xB7\xA6" // magic
                       "\x44\x33\x22\x11" // id
                       "\x00\x00\x00\x00" // request
                       "\x03\x00\x00\x00" // payload length
                       // 0x11223344 + 0 + 3 + 0x61 + 0x62 + 0xff + 0xA6B7C8D9
                       "\xE2\xFD\xD9\xB7"
                       "\x04\x03\x02\x01"                 // time-out
                       "\x07\x06\x05\x04\x03\x02\x01\x00" // start of the write
                       "ab\xff"s);
}

TEST_F(PipeSendTest, ResponseLiesOnTheWireByteByByte) {
    FakeClock clock(FakeClock::Mode::Frozen);
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    clock.SetMonotonic(std::chrono::nanoseconds(2999));
    EXPECT_EQ(SendResponse(pipe, 0, "\x01"), 0);
    EXPECT_EQ(Bytes(), "\xD9\xC8\xB7\xA6"
                       "\x00\x00\x00\x00"
                       "\x01\x00\x00\x00"
                       "\x01\x00\x00\x00"
                       "\xDC\xC8\xB7\xA6"
                       "\xFF\xFF\xFF\xFF"
                       "\x02\x00\x00\x00\x00\x00\x00\x00"
                       "\x01"s);
}

TEST_F(PipeSendTest, MessageAndFrameOfTheCallersOwnMakingAreSentAsTheyAre) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    std::string text = "made";
    OutMessage request(7, TarvoRequest{7, text.data(), 4}, 250);
    EXPECT_EQ(pipe->Send(request), 0);
    OutMessage response(8, TarvoResponse{8, text.data(), 4});
    EXPECT_EQ(pipe->Write(response), 0);
    const std::string frame = RawRequest(9, "a frame");
    const auto bytes = std::make_unique<char[]>(frame.size());
    frame.copy(bytes.get(), frame.size());
    EXPECT_EQ(pipe->Write(bytes, frame.size(), 9), 0);
    for (const auto &[id, type, payload] :
         {std::tuple(7U, 0U, "made"), std::tuple(8U, 1U, "made"), std::tuple(9U, 0U, "a frame")}) {
        const RawFrame received = peer.Receive();
        EXPECT_EQ(received.id, id);
        EXPECT_EQ(received.type, type);
        EXPECT_EQ(received.payload, payload);
    }
    CloseRemote();
    EXPECT_EQ(pipe->Send(request), -EPIPE);
    EXPECT_EQ(pipe->Write(response), -EPIPE);
    EXPECT_EQ(pipe->Write(bytes, frame.size(), 9), -EPIPE);
}

TEST_F(PipeSendTest, DocumentedChecksumIsOnTheWire) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(SendRequest(pipe, 1, "\xff"), 0);
    EXPECT_EQ(Bytes().substr(16, 4), "\xDA\xC9\xB7\xA6"s);
}

TEST_F(PipeSendTest, NegativeTimeoutIsSentAsItIs) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(SendRequest(pipe, 1, "x", -1), 0);
    EXPECT_EQ(peer.Receive().timeout, -1);
    EXPECT_EQ(SendRequest(pipe, 1, "x", INT32_MIN), 0);
    EXPECT_EQ(peer.Receive().timeout, INT32_MIN);
}

TEST_F(PipeSendTest, StartOfTheWriteIsTheMonotonicClock) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const auto now = [] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    };
    const int64_t before = now();
    EXPECT_EQ(SendRequest(pipe, 1, "x"), 0);
    const int64_t after = now();
    const RawFrame frame = peer.Receive();
    EXPECT_GE(frame.writeStartTime, before);
    EXPECT_LE(frame.writeStartTime, after);
}

TEST_F(PipeSendTest, EverySizeArrivesWholeInOneWrite) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    std::size_t written = 0;
    unsigned writes = 0;
    const ScopedHook count(Call::Write, [&](const CallInfo &info) {
        ++writes;
        written = info.size;
    });
    for (const std::size_t size : {1U, 2U, 31U, 32U, 33U, 3999U, 4000U}) {
        std::string payload(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            payload[i] = static_cast<char>(i * 7 + size);
        }
        writes = 0;
        EXPECT_EQ(SendRequest(pipe, 5, payload), 0);
        EXPECT_EQ(writes, 1U);
        EXPECT_EQ(written, 32 + size);
        EXPECT_EQ(peer.Receive().payload, payload);
    }
}

TEST_F(PipeSendTest, NoOtherSystemCallIsMade) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const CallCounter writes(Call::Write, Where().Fd(WriteFd()));
    std::vector<std::unique_ptr<CallCounter>> others;
    for (const Call call :
         {Call::Open, Call::Read, Call::Close, Call::Access, Call::Unlink, Call::EpollCtl, Call::EpollWait, Call::Sleep,
          Call::CondTimedwait, Call::SemTimedwait, Call::Syslog, Call::Lstat}) {
        others.push_back(std::make_unique<CallCounter>(call, Where().ThisThread()));
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(SendRequest(pipe, 1, "x"), 0);
    }
    EXPECT_EQ(writes.Count(), 3U);
    for (const auto &other : others) {
        EXPECT_EQ(other->Count(), 0U);
    }
}

TEST_F(PipeSendTest, InvalidSizesAreRefusedBeforeAnythingIsDone) {
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    peer.OpenRead();
    const CallCounter opens(Call::Open);
    const CallCounter writes(Call::Write);
    char data[4001] = {};
    for (const uint32_t size : {0U, 4001U, 0xFFFFFFFFU}) {
        log.Clear();
        EXPECT_EQ(pipe->Send(TarvoRequest{1, data, size}, 0), -EINVAL);
        EXPECT_EQ(pipe->Send(TarvoResponse{1, data, size}), -EINVAL);
        EXPECT_EQ(log.CountExactly(LOG_ERR, "Send size " + std::to_string(size) + " is not valid"), 2U);
    }
    EXPECT_EQ(opens.Count() + writes.Count(), 0U);
}

TEST_F(PipeSendTest, NullPayloadIsRefused) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const CallCounter writes(Call::Write);
    EXPECT_EQ(pipe->Send(TarvoRequest{1, nullptr, 5}, 0), -EINVAL);
    EXPECT_EQ(Troubles(), std::vector<std::string>{"Send msg data ptr is null"});
    EXPECT_EQ(pipe->Send(TarvoResponse{1, nullptr, 5}), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Send msg data ptr is null"), 2U);
    EXPECT_EQ(writes.Count(), 0U);
}

TEST_F(PipeSendTest, WithoutAReaderTheSendFailsAtOnce) {
    const RecordedSleeps sleeps;
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
    EXPECT_EQ(pipe->TimedOpen(100), 0);
    EXPECT_EQ(SendRequest(pipe, 1, "x"), -ENXIO);
    EXPECT_TRUE(sleeps.Sleeps().empty());
    EXPECT_EQ(Troubles(), std::vector<std::string>());
    // The first send after the remote came opens the write end, without the background task.
    peer.OpenRead();
    EXPECT_EQ(SendRequest(pipe, 2, "y"), 0);
    EXPECT_EQ(peer.Receive().id, 2U);
    const int fd = WriteFd();
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(observer.RunTask());
    EXPECT_EQ(WriteFd(), fd);
}

TEST_F(PipeSendTest, WithoutAFileTheSendFails) {
    const Pipe pipe = MakePipe(Attr(TARVO_MODE_CLIENT));
    EXPECT_EQ(SendRequest(pipe, 1, "x"), -ENOENT);
}

TEST_F(PipeSendTest, ClosedPipeDoesNotSend) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    pipe->CloseFd();
    const CallCounter opens(Call::Open);
    const CallCounter writes(Call::Write);
    EXPECT_EQ(SendRequest(pipe, 1, "x"), -1);
    EXPECT_EQ(SendResponse(pipe, 1, "x"), -1);
    EXPECT_EQ(opens.Count() + writes.Count(), 0U);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeSendTest, ReaderThatIsGoneBreaksThePipe) {
    const FreshRestrainedLines fresh;
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const int fd = WriteFd();
    peer.CloseRead();
    EXPECT_EQ(SendRequest(pipe, 1, "x"), -EPIPE);
    EXPECT_EQ(Troubles(), std::vector<std::string>{self + "=>" + remote +
                                                   " The pipe is broken, write unfinished, remote is closed."});
    EXPECT_TRUE(log.Contains(LOG_ERR, "The pipe is broken"));
    // Nothing is closed: that is left to the receive side.
    EXPECT_EQ(WriteFd(), fd);
    EXPECT_EQ(SendResponse(pipe, 1, "x"), -EPIPE);
    EXPECT_TRUE(observer.Calls(Report::RemoteClosed).empty());
    peer.OpenRead();
    EXPECT_EQ(SendRequest(pipe, 2, "again"), 0);
    EXPECT_EQ(peer.Receive().payload, "again");
}

TEST_F(PipeSendTest, FullFifoFailsAtOnceAndWorksAgainAfterADrain) {
    const RecordedSleeps sleeps;
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const std::string payload(4000, 'f');
    uint32_t sent = 0;
    int ret = 0;
    while ((ret = SendRequest(pipe, sent, payload)) == 0) {
        ++sent;
    }
    EXPECT_EQ(ret, -EAGAIN);
    // One page each: a FIFO has 16.
    EXPECT_EQ(sent, 16U);
    EXPECT_EQ(Troubles(), std::vector<std::string>{WriteErrorLine(EAGAIN)});
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, WriteErrorLine(EAGAIN)));
    EXPECT_EQ(SendRequest(pipe, 99, payload), -EAGAIN);
    EXPECT_TRUE(sleeps.Sleeps().empty());

    EXPECT_EQ(peer.Receive().id, 0U);
    EXPECT_EQ(SendRequest(pipe, sent, payload), 0);
    for (uint32_t id = 1; id <= sent; ++id) {
        const RawFrame frame = peer.Receive();
        EXPECT_EQ(frame.id, id);
        EXPECT_EQ(frame.payload, payload);
    }
    EXPECT_FALSE(peer.HasInput());
}

TEST_F(PipeSendTest, OtherErrorsOfTheWriteAreToldAndReturned) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    for (const int error : {EIO, EINTR, ENOSPC}) {
        const FreshRestrainedLines fresh;
        const ScopedFault fault(Call::Write, error, Where().Fd(WriteFd()).Always());
        EXPECT_EQ(SendRequest(pipe, 1, "x"), -error);
        EXPECT_EQ(fault.Hits(), 1U);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, WriteErrorLine(error)));
    }
    EXPECT_EQ(SendRequest(pipe, 1, "x"), 0);
}

TEST_F(PipeSendTest, ShortWriteIsToldAndNotContinued) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const ScopedHook cut(
        Call::Write,
        [](const CallInfo &) {
            return std::optional<Outcome>(Outcome{10, 0});
        },
        Where().Fd(WriteFd()).Always());
    EXPECT_EQ(SendRequest(pipe, 1, "abc"), -1);
    EXPECT_EQ(cut.Hits(), 1U);
    EXPECT_EQ(Troubles(), std::vector<std::string>{"write size 10 is not equal to expected size 35 for readFd(" +
                                                   std::to_string(ReadFd()) + ") remote(" + remote + ")"});
    EXPECT_TRUE(log.Contains(LOG_ERR, "write size 10"));
}

TEST_F(PipeSendTest, SlowWriteIsReportedFromFiftyMillisecondsOn) {
    FreshRestrainedLines fresh(FakeClock::Mode::Frozen);
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const int fd = WriteFd();
    for (const int64_t taken : {49999, 50000, 1234567}) {
        log.Clear();
        const ScopedHook slow(
            Call::Write,
            [&, taken = taken](const CallInfo &) { fresh.clock.Advance(std::chrono::microseconds(taken)); },
            Where().Fd(fd).Always());
        EXPECT_EQ(SendRequest(pipe, 0xFFFFFFFFU, "x"), 0);
        const std::string time = std::to_string(taken);
        EXPECT_EQ(log.CountExactly(LOG_NOTICE, "Writing " + writeFile +
                                                   " takes more than 50ms. fd=4711, FifoFd=" + std::to_string(fd) +
                                                   ", Msgid=4294967295 t10 = " + time + "us,totalTime=" + time + "us"),
                  taken >= 50000 ? 1U : 0U);
        EXPECT_EQ(log.Lines().size(), taken >= 50000 ? 1U : 0U);
    }
}

TEST_F(PipeSendTest, SlowWriteThatFailsIsReportedToo) {
    FreshRestrainedLines fresh(FakeClock::Mode::Frozen);
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const ScopedHook slow(
        Call::Write,
        [&](const CallInfo &) {
            fresh.clock.Advance(std::chrono::milliseconds(51));
            return std::optional<Outcome>(Outcome{-1, EAGAIN});
        },
        Where().Fd(WriteFd()));
    EXPECT_EQ(SendRequest(pipe, 3, "x"), -EAGAIN);
    EXPECT_TRUE(log.Contains(LOG_NOTICE, "Msgid=3 t10 = 51000us"));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, WriteErrorLine(EAGAIN)));
}

TEST_F(PipeSendTest, RequestAndResponseOfTheCallerAreNotChanged) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    char data[] = "keep";
    const TarvoRequest request{5, data, 4};
    const TarvoResponse response{6, data, 4};
    EXPECT_EQ(pipe->Send(request, 100), 0);
    EXPECT_EQ(pipe->Send(response), 0);
    EXPECT_EQ(request.id, 5U);
    EXPECT_EQ(response.id, 6U);
    EXPECT_STREQ(data, "keep");
}

} // namespace
} // namespace tarvo_test
