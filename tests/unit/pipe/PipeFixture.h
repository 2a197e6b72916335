// What the tests of the pipe connection share: an observer in place of the pipe table, a pipe between two names of this
// test, and its remote, played by hand.
#ifndef TARVO_TESTS_PIPE_PIPEFIXTURE_H
#define TARVO_TESTS_PIPE_PIPEFIXTURE_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "pipe/TarvoPipeImpl.h"
#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/RawPeer.h"
#include "support/SyslogCapture.h"

namespace tarvo_test {

enum class Report { RequestIn, AsyncRequestIn, PipeOpened, OpenFailed, RemoteClosed, FreeSelfWorker };

// One call of an observer operation; what the operation does not have keeps its default.
struct ObserverCall {
    Report report;
    std::string worker;
    TarvoPriority priority = TARVO_PRIORITY_NONE;
    int readFd = -1;
    int fd = -1; // pipe handle
    std::weak_ptr<TarvoPipeImpl> pipe;
};

// Records what pipes report, in order, and keeps the tasks that they hand over until the test runs them.
// Owns: the tasks, and with them references to their pipes. Threads: any. Locks: mutex. Ends: after its pipes.
class RecordingObserver : public PipeObserver {
public:
    using Task = std::function<void()>;
    using Action = std::function<void(const ObserverCall &)>;

    int OnRequestIn(std::string workerName, const Task &task, TarvoPriority priority) const override;
    int OnAsyncRequestIn(const Task &task, TarvoPriority priority) const override;
    int OnPipeOpened(int readFd, int fd, std::shared_ptr<TarvoPipeImpl> pipe) override;
    void OnOpenFailed(int fd) override;
    void OnPipeRemoteClosed(int fd) override;
    void OnFreeSelfWorker(std::string workerName) override;

    // From now on the operation returns `result`; a task is kept only when that is 0.
    void Answer(Report report, int result);
    // From now on `action` runs inside the operation, on the calling thread, after the call was recorded.
    void Do(Report report, Action action);

    std::vector<ObserverCall> Calls() const;
    std::vector<ObserverCall> Calls(Report report) const;
    std::size_t Count(Report report) const { return Calls(report).size(); }
    // Waits for that many calls; after 30 s the test fails and the result is false.
    bool WaitFor(Report report, std::size_t times = 1) const;

    std::size_t PendingTasks() const;
    // Runs the oldest task on this thread; false when there is none.
    bool RunTask();
    // Runs tasks until none is left, those that come up meanwhile included; yields their number.
    std::size_t RunTasks();
    // Waits for a task and runs it; after 30 s the test fails and the result is false.
    bool WaitAndRunTask();
    void DropTasks();

private:
    int Record(const ObserverCall &call, const Task &task = nullptr) const;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    mutable std::vector<ObserverCall> calls;
    mutable std::vector<Task> tasks;
    std::map<Report, int> results;
    std::map<Report, Action> actions;
};

// The handles that the library has closed through TarvoClosePipe, which this program defines in front of the library's:
// there is no table here.
std::vector<int> PublicCloses();
// From now on `action` runs inside TarvoClosePipe.
void OnPublicClose(std::function<void(int)> action);

// Two names, the files between them, the observer, the log and the remote. Nothing may be left behind by a test.
class PipeTest : public LeakCheckedTest {
protected:
    using Pipe = std::shared_ptr<TarvoPipeImpl>;
    static constexpr int HANDLE = 4711;

    PipeTest();
    ~PipeTest() override;

    // `self` to `remote`, serial, normal priority, with `timeout` 100 and no callback; the names live as long as the
    // fixture.
    TarvoAttr Attr(TarvoMode mode) const;
    // Not opened; has the handle HANDLE.
    Pipe MakePipe(const TarvoAttr &attr);

    // A pipe that is open to the remote in both directions. Server mode: the background open has run.
    Pipe OpenPipe(const TarvoAttr &attr);
    // The same for a pipe that is there already; `mode` must be its own.
    void OpenWithRemote(const Pipe &pipe, TarvoMode mode);

    // What a call that is registered gets; one that was accepted is taken back.
    static int TryCall(const Pipe &pipe);
    // What sending a request with that text yields.
    static int SendText(const Pipe &pipe, std::string text);
    void CloseRemote();

    // The messages of warnings and errors, in order. The reports of slow operations are notices: whether there are any
    // depends on how busy the machine is.
    std::vector<std::string> Troubles() const;

    // The descriptor that the pipe has registered last.
    int ReadFd() const;
    // Waits for something on the read end and hands the pipe the event, as a receive monitor does; yields the events.
    uint32_t HandleNextEvent(const Pipe &pipe);
    void HandleEvents(const Pipe &pipe, uint32_t events);

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    const std::string writeFile = FifoPath(self, remote);
    const std::string readFile = FifoPath(remote, self);
    SyslogCapture log;
    RecordingObserver observer;
    RawPeer peer{remote, self};
};

} // namespace tarvo_test

#endif // TARVO_TESTS_PIPE_PIPEFIXTURE_H
