// Receiving: what a frame becomes, and what becomes of everything that is not one.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

class PipeReceiveTest : public PipeTest {
protected:
    explicit PipeReceiveTest(FakeClock::Mode mode = FakeClock::Mode::Running) : fresh(mode) {}

    struct Received {
        int fd;
        uint32_t id;
        std::string data;
        bool operator==(const Received &other) const { return fd == other.fd && id == other.id && data == other.data; }
    };

    // A pipe whose callback records what it is called with.
    Pipe OpenRecordingPipe() {
        TarvoAttr attr = Attr(TARVO_MODE_SERVER);
        attr.callback = [this](int fd, TarvoRequest *request) {
            received.push_back(request != nullptr ? Received{fd, request->id, std::string(request->data, request->size)}
                                                  : Received{fd, 0, "closed"});
        };
        return OpenPipe(attr);
    }

    // What a raw remote wrote is refused with `line`, and a good frame after it is delivered.
    void ExpectRefused(const Pipe &pipe, const std::string &bytes, const std::string &line) {
        peer.Send(bytes);
        HandleNextEvent(pipe);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, line)) << line << "\nin " << testing::PrintToString(log.Messages());
        ExpectDelivered(pipe);
    }

    void ExpectDelivered(const Pipe &pipe) {
        received.clear();
        peer.Send(RawRequest(77, "good"));
        HandleNextEvent(pipe);
        EXPECT_EQ(observer.RunTasks(), 1U);
        EXPECT_EQ(received, (std::vector<Received>{{HANDLE, 77, "good"}}));
    }

    std::string FailedPayload(uint32_t length, const RawFrame &frame, int ret) const {
        return "Recv msg failed, remote(" + remote + "), received payloadLen should be " + std::to_string(length) +
               ", received timeout = " + std::to_string(frame.timeout) +
               " ms, received writeStartTime = " + std::to_string(frame.writeStartTime) +
               ", ret = " + std::to_string(ret);
    }

    std::string ShortRead(std::size_t size, std::size_t wanted) const {
        return "The readFd(" + std::to_string(ReadFd()) + ") read size " + std::to_string(size) + " instead of " +
               std::to_string(wanted) + ", errno = ";
    }

    FreshRestrainedLines fresh;
    std::vector<Received> received;
};

TEST_F(PipeReceiveTest, RequestReachesTheCallbackOnTheWorkerOfThePipe) {
    const Pipe pipe = OpenRecordingPipe();
    peer.Send(RawRequest(5, std::string("a\0b", 3)));
    EXPECT_EQ(HandleNextEvent(pipe), static_cast<uint32_t>(EPOLLIN));
    const std::vector<ObserverCall> submitted = observer.Calls(Report::RequestIn);
    ASSERT_EQ(submitted.size(), 1U);
    EXPECT_EQ(submitted[0].worker, "4711");
    EXPECT_EQ(submitted[0].priority, TARVO_PRIORITY_NORMAL);
    EXPECT_TRUE(received.empty()) << "the callback runs on a worker, not on the receive thread";
    EXPECT_EQ(observer.RunTasks(), 1U);
    EXPECT_EQ(received, (std::vector<Received>{{HANDLE, 5, std::string("a\0b", 3)}}));
}

TEST_F(PipeReceiveTest, FrameOf4000BytesIsDelivered) {
    const Pipe pipe = OpenRecordingPipe();
    std::string payload(4000, '\x80');
    payload[1234] = '\xFF';
    peer.Send(RawRequest(6, payload));
    HandleNextEvent(pipe);
    observer.RunTasks();
    EXPECT_EQ(received, (std::vector<Received>{{HANDLE, 6, payload}}));
}

TEST_F(PipeReceiveTest, TwoFramesWrittenBackToBackAreTwoEventsInOrder) {
    const Pipe pipe = OpenRecordingPipe();
    peer.Send(RawRequest(1, "first") + RawRequest(2, "second"));
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.PendingTasks(), 1U);
    HandleNextEvent(pipe);
    observer.RunTasks();
    EXPECT_EQ(received, (std::vector<Received>{{HANDLE, 1, "first"}, {HANDLE, 2, "second"}}));
}

TEST_F(PipeReceiveTest, MessageIsReadWithExactlyTwoReads) {
    const Pipe pipe = OpenRecordingPipe();
    const CallCounter reads(Call::Read, Where().Fd(ReadFd()));
    peer.Send(RawRequest(1, "first") + RawRequest(2, "second"));
    HandleNextEvent(pipe);
    EXPECT_EQ(reads.Count(), 2U);
}

TEST_F(PipeReceiveTest, WrongMagicIsRefused) {
    const Pipe pipe = OpenRecordingPipe();
    RawFrame frame = MakeRawFrame(1, 0, "");
    frame.magic = 0x12345678;
    ExpectRefused(pipe, EncodeRawFrame(frame),
                  "RecvMagic, result != MAGIC_OK, remote(" + remote + "), result=305419896.");
}

TEST_F(PipeReceiveTest, PayloadLengthOfZeroIsRefused) {
    const Pipe pipe = OpenRecordingPipe();
    const RawFrame frame = MakeRawFrame(1, 0, "", 33);
    ExpectRefused(pipe, EncodeRawFrame(frame), FailedPayload(0, frame, -1));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Input addrress is nullptr"));
}

TEST_F(PipeReceiveTest, PayloadLengthAbove4000IsRefused) {
    const Pipe pipe = OpenRecordingPipe();
    RawFrame frame = MakeRawFrame(1, 0, "", 34);
    for (const uint32_t length : {4001U, 4064U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        frame.length = length;
        ExpectRefused(pipe, EncodeRawFrame(frame), FailedPayload(length, frame, -1));
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input addrress is nullptr"), 4U);
}

TEST_F(PipeReceiveTest, WrongChecksumIsRefused) {
    const Pipe pipe = OpenRecordingPipe();
    RawFrame frame = MakeRawFrame(1, 0, "payload");
    const uint32_t right = frame.checksum;
    frame.checksum = right + 1;
    ExpectRefused(pipe, EncodeRawFrame(frame),
                  "Recv msg failed, send checksum = " + std::to_string(right + 1) + ", but recv checksum = " +
                      std::to_string(right) + " for readFd(" + std::to_string(ReadFd()) + ") remote(" + remote + ")");
}

TEST_F(PipeReceiveTest, UnknownTypeIsReadAndIgnoredSilently) {
    const Pipe pipe = OpenRecordingPipe();
    log.Clear();
    peer.Send(EncodeRawFrame(MakeRawFrame(1, 2, "payload")));
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.PendingTasks(), 0U);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
    ExpectDelivered(pipe);
}

TEST_F(PipeReceiveTest, ShortHeadIsRefused) {
    const Pipe pipe = OpenRecordingPipe();
    ExpectRefused(pipe, "ten bytes!", "Recv msg head failed for remote(" + remote + "), ret = -1");
    EXPECT_TRUE(log.Contains(LOG_ERR, ShortRead(10, 32)));
}

TEST_F(PipeReceiveTest, FrameCutInHalfIsRefused) {
    const Pipe pipe = OpenRecordingPipe();
    const RawFrame frame = MakeRawFrame(1, 0, "payload");
    const std::string bytes = EncodeRawFrame(frame);
    ExpectRefused(pipe, bytes.substr(0, bytes.size() - 3), FailedPayload(7, frame, -1));
    EXPECT_TRUE(log.Contains(LOG_ERR, ShortRead(4, 7)));
}

TEST_F(PipeReceiveTest, HeadWithoutItsPayloadIsRefused) {
    const Pipe pipe = OpenRecordingPipe();
    const RawFrame frame = MakeRawFrame(1, 0, "payload");
    log.Clear();
    ExpectRefused(pipe, EncodeRawFrame(frame).substr(0, 32), FailedPayload(7, frame, -EAGAIN));
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "read fail")) << "an empty FIFO is no failure to report";
}

TEST_F(PipeReceiveTest, FailingReadIsReported) {
    const Pipe pipe = OpenRecordingPipe();
    {
        const ScopedFault fault(Call::Read, EIO, Where().Fd(ReadFd()));
        peer.Send(RawRequest(1, "later"));
        HandleNextEvent(pipe);
    }
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "The readFd(" + std::to_string(ReadFd()) +
                                                 ") read fail, errno = 5, remoteName: " + remote));
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Recv msg head failed for remote(" + remote + "), ret = -5"));
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.RunTasks(), 1U);
}

TEST_F(PipeReceiveTest, FailingReadOfThePayloadDropsTheMessage) {
    const Pipe pipe = OpenRecordingPipe();
    const RawFrame frame = MakeRawFrame(1, 0, "payload");
    const ScopedFault fault(Call::Read, EIO, Where().Fd(ReadFd()).Nth(2));
    peer.Send(EncodeRawFrame(frame));
    HandleNextEvent(pipe);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, FailedPayload(7, frame, -EIO)));
    EXPECT_EQ(observer.PendingTasks(), 0U);
}

TEST_F(PipeReceiveTest, FrameForWhichMemoryRunsOutIsDroppedWhole) {
    const Pipe pipe = OpenRecordingPipe();
    constexpr uint32_t LENGTH = 3131; // no other allocation has this size
    const RawFrame frame = MakeRawFrame(1, 0, std::string(LENGTH, 'x'));
    const std::string bytes = EncodeRawFrame(frame);
    const AllocFault fault(1, LENGTH + InMessage::ROOM);
    ExpectRefused(pipe, bytes, FailedPayload(LENGTH, frame, -ENOMEM));
    EXPECT_TRUE(fault.Hit());
}

TEST_F(PipeReceiveTest, ReadOfNothingYieldsNoMessage) {
    const Pipe pipe = OpenRecordingPipe();
    const ScopedHook closed(
        Call::Read,
        [](const CallInfo &) {
            return std::optional<Outcome>(Outcome{0, 0});
        },
        Where().Fd(ReadFd()));
    HandleEvents(pipe, EPOLLIN);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Recv msg head failed for remote(" + remote + "), ret = 0"));
}

TEST_F(PipeReceiveTest, QueuedCallbackKeepsThePipeAlive) {
    Pipe pipe = OpenRecordingPipe();
    peer.Send(RawRequest(9, "late"));
    HandleNextEvent(pipe);
    const std::weak_ptr<TarvoPipeImpl> alive = pipe;
    pipe.reset();
    EXPECT_FALSE(alive.expired());
    EXPECT_EQ(observer.RunTasks(), 1U);
    EXPECT_EQ(received, (std::vector<Received>{{HANDLE, 9, "late"}}));
    EXPECT_TRUE(alive.expired());
}

TEST_F(PipeReceiveTest, RefusedSubmissionDropsTheRequestWithItsLine) {
    const Pipe pipe = OpenRecordingPipe();
    observer.Answer(Report::RequestIn, -EBUSY);
    peer.Send(RawRequest(1, "x"));
    HandleNextEvent(pipe);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "Observer handle request failed(-16) for readFd(" +
                                                 std::to_string(ReadFd()) + ") remote(" + remote + ")"));
    EXPECT_EQ(observer.PendingTasks(), 0U);
}

TEST_F(PipeReceiveTest, ClosingPipeDropsRequestsSilently) {
    const Pipe pipe = OpenRecordingPipe();
    pipe->DeInitPipe();
    log.Clear();
    char data[] = "x";
    InMessage msg(1, MSG_TYPE_REQUEST, 1);
    msg.GetData()[0] = data[0];
    pipe->ProcessMessage(msg);
    EXPECT_EQ(observer.PendingTasks(), 0U);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeReceiveTest, WorkerAllocatedByASubmissionThatRacedWithACloseIsGivenBack) {
    const Pipe pipe = OpenRecordingPipe();
    observer.Do(Report::RequestIn, [&pipe](const ObserverCall &) { pipe->DeInitPipe(); });
    peer.Send(RawRequest(1, "x"));
    HandleNextEvent(pipe);
    const std::vector<ObserverCall> freed = observer.Calls(Report::FreeSelfWorker);
    ASSERT_EQ(freed.size(), 1U);
    EXPECT_EQ(freed[0].worker, "4711");
}

// ---- Early requests ----

TEST_F(PipeReceiveTest, RequestsBeforeACallbackAreKeptUpTo1000AndRunInOrder) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const auto send = [&](uint32_t id) {
        peer.Send(RawRequest(id, "early"));
        HandleNextEvent(pipe);
    };
    for (uint32_t id = 0; id < 1000; ++id) {
        send(id);
    }
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "out of space"));
    send(1000);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Add InRequest failed, out of space"), 1U);
    EXPECT_EQ(pipe->GetInReqList().size(), 1000U);
    EXPECT_EQ(observer.PendingTasks(), 0U);

    std::vector<uint32_t> ids;
    pipe->ProcessCachedRequests([&ids](int, TarvoRequest *request) { ids.push_back(request->id); });
    EXPECT_TRUE(pipe->GetInReqList().empty());
    EXPECT_EQ(observer.RunTasks(), 1000U);
    ASSERT_EQ(ids.size(), 1000U);
    for (uint32_t id = 0; id < 1000; ++id) {
        ASSERT_EQ(ids[id], id);
    }
}

TEST_F(PipeReceiveTest, KeptRequestsRunBeforeANewerOne) {
    const Pipe pipe = OpenRecordingPipe();
    for (const uint32_t id : {1U, 2U}) {
        InMessage msg(id, MSG_TYPE_REQUEST, 1);
        msg.GetData()[0] = 'k';
        pipe->CacheRequest(std::make_shared<InRequest>(msg));
    }
    peer.Send(RawRequest(3, "n"));
    HandleNextEvent(pipe);
    observer.RunTasks();
    EXPECT_EQ(received, (std::vector<Received>{{HANDLE, 1, "k"}, {HANDLE, 2, "k"}, {HANDLE, 3, "n"}}));
}

// ---- Concurrent callbacks ----

class PipeConcurrentTest : public PipeReceiveTest {
protected:
    static constexpr std::size_t MOST = 200;

    Pipe OpenConcurrentPipe() {
        TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
        attr.isConcur = true;
        attr.priority = TARVO_PRIORITY_URGENT;
        attr.callback = [this](int, TarvoRequest *) { ++calls; };
        return OpenPipe(attr);
    }

    void Request(const Pipe &pipe, std::size_t times = 1) {
        for (std::size_t i = 0; i < times; ++i) {
            peer.Send(RawRequest(1, "x"));
            HandleNextEvent(pipe);
        }
    }

    std::string Occupied() const {
        return "Callback occupied over 200 threads fail. Drop the current callback for Remote=" + remote + ", fd=4711.";
    }

    int calls = 0;
};

TEST_F(PipeConcurrentTest, RequestGoesToAnyWorkerAtThePriorityOfThePipe) {
    const Pipe pipe = OpenConcurrentPipe();
    Request(pipe);
    const std::vector<ObserverCall> submitted = observer.Calls(Report::AsyncRequestIn);
    ASSERT_EQ(submitted.size(), 1U);
    EXPECT_EQ(submitted[0].priority, TARVO_PRIORITY_URGENT);
    EXPECT_EQ(observer.Count(Report::RequestIn), 0U);
    observer.RunTasks();
    EXPECT_EQ(calls, 1);
}

TEST_F(PipeConcurrentTest, Outstanding200thIsAcceptedAndThe201stDropped) {
    const Pipe pipe = OpenConcurrentPipe();
    Request(pipe, MOST);
    EXPECT_EQ(observer.PendingTasks(), MOST);
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "Callback occupied"));
    Request(pipe, 2);
    EXPECT_EQ(observer.PendingTasks(), MOST);
    EXPECT_EQ(log.CountExactly(LOG_ERR, Occupied()), 1U) << "once for both, as a restrained line";
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "Observer handle request failed"));
    ASSERT_TRUE(observer.RunTask());
    Request(pipe, 2);
    EXPECT_EQ(observer.PendingTasks(), MOST) << "one finished callback makes room for one";
    EXPECT_EQ(observer.RunTasks(), MOST);
    EXPECT_EQ(calls, 201);
}

TEST_F(PipeConcurrentTest, RefusedSubmissionKeepsItsPlaceForTheLifeOfThePipe) {
    const Pipe pipe = OpenConcurrentPipe();
    observer.Answer(Report::AsyncRequestIn, -EACCES);
    Request(pipe, MOST);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Observer handle request failed(-13) for readFd(" + std::to_string(ReadFd()) +
                                            ") remote(" + remote + ")"),
              1U);
    observer.Answer(Report::AsyncRequestIn, 0);
    Request(pipe);
    EXPECT_EQ(observer.PendingTasks(), 0U);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, Occupied()));
}

// Sees how many refer to a task when it is handed in.
class ReferenceObserver : public RecordingObserver {
public:
    int OnTaskIn(std::string workerName, std::shared_ptr<const TarvoTask> task, TarvoPriority priority) const override {
        references = task.use_count();
        return RecordingObserver::OnTaskIn(std::move(workerName), std::move(task), priority);
    }
    int OnAsyncTaskIn(std::shared_ptr<const TarvoTask> task, TarvoPriority priority) const override {
        references = task.use_count();
        return RecordingObserver::OnAsyncTaskIn(std::move(task), priority);
    }

    mutable long references = 0;
};

TEST_F(PipeReceiveTest, WorkerIsTheLastToLetGoOfATask) {
    for (const bool concurrent : {false, true}) {
        ReferenceObserver alone;
        TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
        attr.callback = [](int, TarvoRequest *) {};
        attr.isConcur = concurrent;
        const Pipe pipe = std::make_shared<TarvoPipeImpl>(attr, alone);
        InMessage message(1, MSG_TYPE_REQUEST, 4);
        std::memcpy(message.GetData(), "ping", 4);
        pipe->ProcessRequest(message);
        EXPECT_EQ(alone.references, 1) << concurrent;
        EXPECT_EQ(alone.RunTasks(), 1U);
    }
}

// A worker's queue that cannot grow.
class EmptyHandedObserver : public RecordingObserver {
public:
    int OnTaskIn(std::string, std::shared_ptr<const TarvoTask>, TarvoPriority) const override {
        throw std::bad_alloc();
    }
};

TEST_F(PipeReceiveTest, SubmissionWithoutMemoryDropsTheRequestWithItsLine) {
    EmptyHandedObserver alone;
    TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
    attr.callback = [](int, TarvoRequest *) {};
    const Pipe pipe = std::make_shared<TarvoPipeImpl>(attr, alone);
    InMessage message(1, MSG_TYPE_REQUEST, 4);
    std::memcpy(message.GetData(), "ping", 4);
    pipe->ProcessRequest(message);
    EXPECT_TRUE(log.Contains(LOG_ERR, "Observer handle request failed(-12) for readFd(-1) remote(" + remote + ")"));
}

TEST_F(PipeReceiveTest, KeptRequestForWhichMemoryRunsOutIsDroppedAndTheOthersRun) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_CLIENT));
    for (const uint32_t id : {1U, 2U}) {
        InMessage message(id, MSG_TYPE_REQUEST, 4);
        std::memcpy(message.GetData(), "kept", 4);
        pipe->ProcessRequest(message);
    }
    {
        const AllocFault fault(1);
        pipe->ProcessCachedRequests([this](int, TarvoRequest *request) { received.push_back({0, request->id, ""}); });
        EXPECT_TRUE(fault.Hit());
    }
    observer.RunTasks();
    EXPECT_EQ(received, (std::vector<Received>{{0, 2, ""}}));
    EXPECT_TRUE(log.Contains(LOG_ERR, "Observer handle request failed(-12)"));
}

TEST_F(PipeReceiveTest, HalfAHeadIsNoRemoteThatIsLost) {
    Tarvo::EpollTimeRecord record;
    const Pipe pipe = OpenRecordingPipe();
    peer.Send(RawRequest(1, "whole").substr(0, 10));
    EXPECT_FALSE(pipe->HasLostRemote(record));
    EXPECT_TRUE(log.Contains(LOG_ERR, ShortRead(10, 32)));
    ExpectDelivered(pipe);
}

TEST_F(PipeReceiveTest, ListOfKeptRequestsIsACopyInTheirOrder) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_CLIENT));
    for (const uint32_t id : {3U, 1U, 2U}) {
        InMessage message(id, MSG_TYPE_REQUEST, 4);
        std::memcpy(message.GetData(), "kept", 4);
        pipe->ProcessRequest(message);
    }
    const auto kept = pipe->GetInReqList();
    pipe->CloseFd();
    std::vector<uint32_t> ids;
    for (const auto &request : kept) {
        ids.push_back(request->id);
        EXPECT_EQ(std::string(request->data.get(), request->length), "kept");
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{3, 1, 2}));
}

// ---- Delivery times of heartbeat pipes ----

class PipeHeartbeatTest : public PipeReceiveTest {
protected:
    PipeHeartbeatTest() : PipeReceiveTest(FakeClock::Mode::Frozen) {}

    static constexpr int64_t LATE = 2000000;
    static constexpr int64_t WRITTEN = 3000000;

    // A heartbeat pipe, with the clock standing at `now` microseconds after the write.
    Pipe OpenHeartbeatPipe(int64_t now) {
        TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
        attr.selfName = own.c_str();
        attr.targetName = far.c_str();
        attr.callback = [this](int, TarvoRequest *) {
            received.push_back({});
            if (duringCallback) {
                duringCallback();
            }
        };
        beatPeer = std::make_unique<RawPeer>(far, own);
        beatPeer->CreateFiles();
        const Pipe pipe = MakePipe(attr);
        EXPECT_EQ(pipe->TimedOpen(100), 0);
        beatPeer->OpenWrite();
        SetNow(now);
        return pipe;
    }

    void SetNow(int64_t now) { fresh.clock.SetMonotonic(std::chrono::microseconds(WRITTEN + now)); }

    void Deliver(const Pipe &pipe, uint32_t id, uint32_t type = 0, int64_t written = WRITTEN) {
        Write(id, type, written);
        Read(pipe);
    }
    void Write(uint32_t id, uint32_t type = 0, int64_t written = WRITTEN) {
        RawFrame frame = MakeRawFrame(id, type, "beat", 250);
        frame.writeStartTime = written;
        beatPeer->Send(EncodeRawFrame(frame));
    }
    static void Read(const Pipe &pipe) {
        epoll_event event{};
        event.events = EPOLLIN;
        Tarvo::EpollTimeRecord record;
        record.epollWaitT = WRITTEN - 7;
        record.epollRecvT = WRITTEN + 30;
        record.eventIdx = 2;
        record.eventNum = 3;
        pipe->HandleEvent(event, record);
    }

    // Short, so that the lines about them fit behind their headers.
    const std::string own = UniqueName("_heartbeat");
    const std::string far = UniqueName("r");
    std::unique_ptr<RawPeer> beatPeer;
    std::function<void()> duringCallback;
};

TEST_F(PipeHeartbeatTest, MessageLaterThanTwoSecondsIsReported) {
    const Pipe pipe = OpenHeartbeatPipe(LATE + 1);
    Deliver(pipe, 1);
    EXPECT_EQ(
        log.CountExactly(LOG_WARNING, "Send too slow, msgType=0, T=2000001us, T0=30, T1=1999971, Tp=-7, Ev:2of3, " +
                                          far + "=>" + own + ", writeStartT=3000000, epoolRecvT=3000030"),
        1U)
        << testing::PrintToString(log.Messages());
    observer.DropTasks();
}

TEST_F(PipeHeartbeatTest, MessageOfExactlyTwoSecondsIsNotReported) {
    const Pipe pipe = OpenHeartbeatPipe(LATE);
    Deliver(pipe, 1);
    observer.RunTasks();
    EXPECT_EQ(received.size(), 1U);
    EXPECT_FALSE(log.Contains(LOG_WARNING, "Send too slow"));
    EXPECT_FALSE(log.Contains(LOG_WARNING, "start late"));
}

TEST_F(PipeHeartbeatTest, MessageFromAnotherDomainIsNotReportedAsSlow) {
    const Pipe pipe = OpenHeartbeatPipe(0);
    TarvoAttr attr = Attr(TARVO_MODE_CLIENT);
    attr.selfName = own.c_str();
    attr.domain = TARVO_DOMAIN_ORLA;
    const Pipe foreign = MakePipe(attr);
    Tarvo::EpollTimeRecord record;
    MsgHead head{};
    head.writeStartTime = WRITTEN;
    SetNow(LATE + 1);
    foreign->CheckEpollTime(head, record);
    EXPECT_FALSE(log.Contains(LOG_WARNING, "Send too slow"));
}

TEST_F(PipeHeartbeatTest, MessagesOfEveryTypeAreReportedAsSlow) {
    const Pipe pipe = OpenHeartbeatPipe(LATE + 1);
    for (const uint32_t type : {0U, 1U, 7U}) {
        Deliver(pipe, 1, type);
        EXPECT_EQ(log.Count(LOG_WARNING, "Send too slow, msgType=" + std::to_string(type) + ","), 1U);
        fresh.clock.AdvanceWall(std::chrono::hours(1));
    }
    observer.DropTasks();
}

TEST_F(PipeHeartbeatTest, CallbackThatTakesLongHasNotStartedLate) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    duringCallback = [this] { SetNow(LATE + 1); };
    Deliver(pipe, 1);
    observer.RunTasks();
    EXPECT_EQ(received.size(), 1U);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeHeartbeatTest, CallbackThatStartsLateIsReportedOnce) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    Deliver(pipe, 1);
    SetNow(LATE + 1);
    observer.RunTasks();
    EXPECT_EQ(log.CountExactly(LOG_WARNING, "Callback " + far + "=>" + own +
                                                " start late, writeT=3000000, epollT=3000030, "
                                                "callbackT=5000001"),
              1U)
        << testing::PrintToString(log.Messages());
    log.Clear();
    fresh.clock.AdvanceWall(std::chrono::hours(1));
    pipe->UpdateTimeRecord(1);
    EXPECT_EQ(Troubles(), std::vector<std::string>()) << "the record is gone";
}

TEST_F(PipeHeartbeatTest, SecondMessageOfAnIdKeepsTheFirstRecord) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    Deliver(pipe, 8);
    Deliver(pipe, 8);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Rpc id already exist, id=8, timeout=250"), 1U);
    EXPECT_EQ(observer.RunTasks(), 2U);
    Deliver(pipe, 8);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Rpc id already exist, id=8, timeout=250"), 1U);
    observer.DropTasks();
}

TEST_F(PipeHeartbeatTest, RecordThatIsKeptIsTheFirst) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    Deliver(pipe, 8);
    Deliver(pipe, 8, 0, WRITTEN + 5);
    SetNow(LATE + 10);
    observer.RunTasks();
    EXPECT_EQ(log.Count(LOG_WARNING, " start late, writeT=3000000,"), 1U) << testing::PrintToString(log.Messages());
    EXPECT_EQ(log.Count(LOG_WARNING, " start late"), 1U);
}

TEST_F(PipeHeartbeatTest, ResponsesLeaveNoRecordBehind) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    Deliver(pipe, 8, 1);
    Deliver(pipe, 8, 1);
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "Rpc id already exist"));
}

TEST_F(PipeHeartbeatTest, MessagesOfUnknownTypeLeaveNoRecordBehind) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    Deliver(pipe, 8, 7);
    Deliver(pipe, 8, 7);
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "Rpc id already exist"));
}

TEST_F(PipeHeartbeatTest, RefusedRequestsLeaveNoRecordBehind) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    observer.Answer(Report::RequestIn, -ENOMEM);
    Deliver(pipe, 8);
    Deliver(pipe, 8);
    EXPECT_TRUE(log.Contains(LOG_ERR, "Observer handle request failed(-12)"));
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "Rpc id already exist"));
}

TEST_F(PipeHeartbeatTest, KeptRequestsThatAreRefusedLeaveNoRecordBehind) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    const auto callback = pipe->GetServiceHandler();
    for (int round = 0; round < 2; ++round) {
        InMessage message(8, MSG_TYPE_REQUEST, 4);
        std::memcpy(message.GetData(), "beat", 4);
        MsgHead head{};
        head.id = 8;
        Tarvo::EpollTimeRecord record;
        message.timed = pipe->CheckEpollTime(head, record);
        EXPECT_TRUE(message.timed) << "the one before has taken its record with it";
        pipe->CacheRequest(std::make_shared<InRequest>(message));
        observer.Answer(Report::RequestIn, -ENOMEM);
        pipe->ProcessCachedRequests(callback);
    }
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "Rpc id already exist"));
}

TEST_F(PipeHeartbeatTest, MessageWithoutMemoryForItsRecordIsDropped) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    for (unsigned nth = 1; nth < 10 && received.empty(); ++nth) {
        Write(8);
        {
            const AllocFault fault(nth);
            Read(pipe);
        }
        observer.RunTasks();
    }
    EXPECT_EQ(received.size(), 1U) << "with as much memory as it takes";
    EXPECT_FALSE(log.Contains(ANY_LEVEL, "Rpc id already exist"));
}

// Only the message that made a record may take it away before its callback starts.
TEST_F(PipeHeartbeatTest, MessagesOfTheSameIdDoNotEraseTheRecordOfAWaitingRequest) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    Deliver(pipe, 8);
    Deliver(pipe, 8, 1);
    Deliver(pipe, 8, 7);
    observer.Answer(Report::RequestIn, -ENOMEM);
    Deliver(pipe, 8);
    SetNow(LATE + 1);
    EXPECT_EQ(observer.RunTasks(), 1U);
    EXPECT_EQ(log.Count(LOG_WARNING, " start late, writeT=3000000,"), 1U) << testing::PrintToString(log.Messages());
}

// Undefined behaviour, were it computed with signed numbers: only a sanitizer sees it.
TEST_F(PipeHeartbeatTest, AnyTimeOfWritingCanBeReckonedWith) {
    const Pipe pipe = OpenHeartbeatPipe(10);
    Deliver(pipe, 8, 0, INT64_MIN);
    Deliver(pipe, 9, 0, INT64_MAX);
    EXPECT_EQ(observer.RunTasks(), 2U);
    EXPECT_EQ(received.size(), 2U);
    EXPECT_EQ(Troubles(), std::vector<std::string>());
}

TEST_F(PipeHeartbeatTest, OtherPipesAreNotWatched) {
    const Pipe pipe = OpenRecordingPipe();
    SetNow(LATE + 1);
    RawFrame frame = MakeRawFrame(1, 0, "slow");
    frame.writeStartTime = WRITTEN;
    peer.Send(EncodeRawFrame(frame));
    HandleNextEvent(pipe);
    observer.RunTasks();
    EXPECT_EQ(received.size(), 1U);
    EXPECT_FALSE(log.Contains(LOG_WARNING, "Send too slow"));
    EXPECT_FALSE(log.Contains(LOG_WARNING, "start late"));
}

} // namespace
} // namespace tarvo_test
