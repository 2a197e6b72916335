// The last callbacks of a pipe: the null request comes once, and after a close of a serial pipe nothing starts any
// more.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PipeFixture.h"

namespace tarvo_test {
namespace {

class PipeLastCallbackTest : public PipeTest {
protected:
    // Notes the ids of the requests, and the null request.
    TarvoAttr Recording(bool concurrent) {
        TarvoAttr attr = Attr(TARVO_MODE_SERVER);
        attr.isConcur = concurrent;
        attr.callback = [this](int, TarvoRequest *request) {
            steps.push_back(request != nullptr ? "request " + std::to_string(request->id) : "null request");
        };
        return attr;
    }

    // What a close by the user does to the pipe, at the moment when somebody else is handing in a callback. The
    // worker's queue was emptied by then, so that the callback is left to the next worker.
    void CloseWhileSubmitting(const Pipe &pipe) {
        for (const Report report : {Report::RequestIn, Report::AsyncRequestIn}) {
            observer.Do(report, [pipe](const ObserverCall &) {
                pipe->Retire();
                pipe->DeInitPipe();
            });
        }
    }

    void ForgetTheClose() {
        observer.Do(Report::RequestIn, nullptr);
        observer.Do(Report::AsyncRequestIn, nullptr);
    }

    std::vector<std::string> steps;
};

TEST_F(PipeLastCallbackTest, NullRequestComesOnceWhoeverNoticesTheEnd) {
    for (const bool concurrent : {false, true}) {
        steps.clear();
        const Pipe pipe = MakePipe(Recording(concurrent));
        ASSERT_EQ(pipe->TimedOpen(100), 0);
        // A remote that goes before it has opened its read end: its hang-up is the monitor's to notice, and the search
        // for its reader, which is the first task, ends in vain.
        peer.OpenWrite();
        peer.CloseWrite();
        EXPECT_EQ(HandleNextEvent(pipe), static_cast<uint32_t>(EPOLLHUP));
        EXPECT_GE(observer.RunTasks(), 2U);
        EXPECT_EQ(steps, std::vector<std::string>{"null request"});
        pipe->DeInitPipe();
    }
}

TEST_F(PipeLastCallbackTest, NullRequestComesAgainForTheNextOpening) {
    const Pipe pipe = OpenPipe(Recording(false));
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.RunTasks(), 1U);
    pipe->DeInitPipe();
    OpenWithRemote(pipe, TARVO_MODE_SERVER);
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.RunTasks(), 1U);
    EXPECT_EQ(steps, (std::vector<std::string>{"null request", "null request"}));
}

TEST_F(PipeLastCallbackTest, NullRequestThatFoundNoRoomIsNotTakenForTold) {
    const Pipe pipe = OpenPipe(Recording(false));
    observer.Answer(Report::RequestIn, -16);
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.Count(Report::RemoteClosed), 1U);
    observer.Answer(Report::RequestIn, 0);
    OpenWithRemote(pipe, TARVO_MODE_SERVER);
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.RunTasks(), 1U);
    EXPECT_EQ(steps, std::vector<std::string>{"null request"});
}

TEST_F(PipeLastCallbackTest, RequestOnItsWayWhenItsSerialPipeClosesIsNotStarted) {
    const Pipe pipe = OpenPipe(Recording(false));
    CloseWhileSubmitting(pipe);
    peer.Send(RawRequest(7, "late"));
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.RunTasks(), 1U);
    EXPECT_EQ(steps, std::vector<std::string>());
    // Its worker, which the close has given back before, goes too.
    EXPECT_EQ(observer.Count(Report::FreeSelfWorker), 1U);
    ForgetTheClose();
}

TEST_F(PipeLastCallbackTest, NullRequestOnItsWayWhenItsSerialPipeClosesIsNotStarted) {
    const Pipe pipe = OpenPipe(Recording(false));
    CloseWhileSubmitting(pipe);
    CloseRemote();
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.RunTasks(), 1U);
    EXPECT_EQ(steps, std::vector<std::string>());
    EXPECT_EQ(observer.Count(Report::FreeSelfWorker), 1U);
    ForgetTheClose();
}

TEST_F(PipeLastCallbackTest, CallbackOfAConcurrentPipeThatWasHandedInIsStarted) {
    const Pipe pipe = OpenPipe(Recording(true));
    CloseWhileSubmitting(pipe);
    peer.Send(RawRequest(7, "late"));
    HandleNextEvent(pipe);
    EXPECT_EQ(observer.RunTasks(), 1U);
    EXPECT_EQ(steps, std::vector<std::string>{"request 7"});
    ForgetTheClose();
}

} // namespace
} // namespace tarvo_test
