#include "PipeFixture.h"

#include <poll.h>

#include <chrono>

#include "api/EnvManager.h"
#include "support/Interpose.h"

namespace tarvo_test {

namespace {

constexpr std::chrono::seconds LIMIT(30);
constexpr int LIMIT_MS = 30000;

// Never destroyed: the library may close pipes while statics end.
struct CloseRecord {
    std::mutex mutex;
    std::vector<int> handles;
    std::function<void(int)> action;
};

CloseRecord &Closes() {
    static auto *const record = new CloseRecord;
    return *record;
}

} // namespace

int RecordingObserver::OnRequestIn(std::string workerName, const Task &task, TarvoPriority priority) const {
    return Record({Report::RequestIn, std::move(workerName), priority, -1, -1, {}}, task);
}

int RecordingObserver::OnAsyncRequestIn(const Task &task, TarvoPriority priority) const {
    return Record({Report::AsyncRequestIn, "", priority, -1, -1, {}}, task);
}

int RecordingObserver::OnPipeOpened(int readFd, int fd, std::shared_ptr<TarvoPipeImpl> pipe) {
    return Record({Report::PipeOpened, "", TARVO_PRIORITY_NONE, readFd, fd, pipe});
}

void RecordingObserver::OnOpenFailed(int fd) { Record({Report::OpenFailed, "", TARVO_PRIORITY_NONE, -1, fd, {}}); }

void RecordingObserver::OnPipeRemoteClosed(int fd) {
    Record({Report::RemoteClosed, "", TARVO_PRIORITY_NONE, -1, fd, {}});
}

void RecordingObserver::OnFreeSelfWorker(std::string workerName) {
    Record({Report::FreeSelfWorker, std::move(workerName), TARVO_PRIORITY_NONE, -1, -1, {}});
}

int RecordingObserver::Record(const ObserverCall &call, const Task &task) const {
    Action action;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(call);
        const auto planned = results.find(call.report);
        result = planned != results.end() ? planned->second : 0;
        const auto wanted = actions.find(call.report);
        action = wanted != actions.end() ? wanted->second : nullptr;
        if (task && result == 0) {
            tasks.push_back(task);
        }
        changed.notify_all();
    }
    if (action) {
        action(call);
    }
    return result;
}

void RecordingObserver::Answer(Report report, int result) {
    const std::lock_guard<std::mutex> lock(mutex);
    results[report] = result;
}

void RecordingObserver::Do(Report report, Action action) {
    const std::lock_guard<std::mutex> lock(mutex);
    actions[report] = std::move(action);
}

std::vector<ObserverCall> RecordingObserver::Calls() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return calls;
}

std::vector<ObserverCall> RecordingObserver::Calls(Report report) const {
    std::vector<ObserverCall> found;
    for (const ObserverCall &call : Calls()) {
        if (call.report == report) {
            found.push_back(call);
        }
    }
    return found;
}

bool RecordingObserver::WaitFor(Report report, std::size_t times) const {
    const RealTime real;
    std::unique_lock<std::mutex> lock(mutex);
    const bool came = changed.wait_for(lock, LIMIT, [&] {
        std::size_t count = 0;
        for (const ObserverCall &call : calls) {
            count += call.report == report ? 1 : 0;
        }
        return count >= times;
    });
    EXPECT_TRUE(came) << "waited 30 s in vain for a report to the observer";
    return came;
}

std::size_t RecordingObserver::PendingTasks() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return tasks.size();
}

bool RecordingObserver::RunTask() {
    Task task;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (tasks.empty()) {
            return false;
        }
        task = std::move(tasks.front());
        tasks.erase(tasks.begin());
    }
    task();
    return true;
}

std::size_t RecordingObserver::RunTasks() {
    std::size_t count = 0;
    while (RunTask()) {
        ++count;
    }
    return count;
}

bool RecordingObserver::WaitAndRunTask() {
    {
        const RealTime real;
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, LIMIT, [&] { return !tasks.empty(); })) {
            ADD_FAILURE() << "waited 30 s in vain for a task";
            return false;
        }
    }
    return RunTask();
}

void RecordingObserver::DropTasks() {
    std::vector<Task> dropped;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        dropped.swap(tasks);
    }
}

std::vector<int> PublicCloses() {
    const std::lock_guard<std::mutex> lock(Closes().mutex);
    return Closes().handles;
}

void OnPublicClose(std::function<void(int)> action) {
    const std::lock_guard<std::mutex> lock(Closes().mutex);
    Closes().action = std::move(action);
}

PipeTest::PipeTest() {
    // Its first use, which opens and closes a file, would fall on the first log line.
    EnvManager::ProcName();
    const std::lock_guard<std::mutex> lock(Closes().mutex);
    Closes().handles.clear();
}

PipeTest::~PipeTest() {
    OnPublicClose(nullptr);
    observer.DropTasks();
}

TarvoAttr PipeTest::Attr(TarvoMode mode) const {
    TarvoAttr attr;
    attr.targetName = remote.c_str();
    attr.selfName = self.c_str();
    attr.timeout = 100;
    attr.mode = mode;
    return attr;
}

PipeTest::Pipe PipeTest::MakePipe(const TarvoAttr &attr) {
    const auto pipe = std::make_shared<TarvoPipeImpl>(attr, observer);
    pipe->SetFd(HANDLE);
    return pipe;
}

PipeTest::Pipe PipeTest::OpenPipe(const TarvoAttr &attr) {
    const Pipe pipe = MakePipe(attr);
    OpenWithRemote(pipe, attr.mode);
    return pipe;
}

void PipeTest::OpenWithRemote(const Pipe &pipe, TarvoMode mode) {
    if (mode == TARVO_MODE_CLIENT) {
        peer.CreateFiles();
        ASSERT_EQ(pipe->TimedOpen(100), 0);
        peer.OpenWrite();
        return;
    }
    ASSERT_EQ(pipe->TimedOpen(100), 0);
    peer.OpenBoth();
    ASSERT_TRUE(observer.RunTask());
}

int PipeTest::TryCall(const Pipe &pipe) {
    TarvoRequest request{};
    TarvoResponse response{};
    const int ret = pipe->RecordOutRequest(request, response, 100);
    if (ret == 0) {
        pipe->RemoveRequest(request);
    }
    return ret;
}

int PipeTest::SendText(const Pipe &pipe, std::string text) {
    return pipe->Send(TarvoRequest{1, text.data(), static_cast<uint32_t>(text.size())}, 0);
}

void PipeTest::CloseRemote() {
    peer.CloseRead();
    peer.CloseWrite();
}

std::vector<std::string> PipeTest::Troubles() const {
    std::vector<std::string> messages;
    for (const LogLine &line : log.Lines()) {
        if (line.level <= LOG_WARNING) {
            messages.push_back(line.message);
        }
    }
    return messages;
}

int PipeTest::ReadFd() const {
    const std::vector<ObserverCall> opened = observer.Calls(Report::PipeOpened);
    return opened.empty() ? -1 : opened.back().readFd;
}

uint32_t PipeTest::HandleNextEvent(const Pipe &pipe) {
    pollfd entry = {ReadFd(), POLLIN, 0};
    const int ready = poll(&entry, 1, LIMIT_MS);
    EXPECT_EQ(ready, 1) << "waited 30 s in vain for something to read";
    const auto events = static_cast<uint32_t>(entry.revents);
    HandleEvents(pipe, events);
    return events;
}

void PipeTest::HandleEvents(const Pipe &pipe, uint32_t events) {
    static_assert(POLLIN == EPOLLIN && POLLHUP == EPOLLHUP);
    epoll_event event{};
    event.events = events;
    Tarvo::EpollTimeRecord record;
    pipe->HandleEvent(event, record);
}

} // namespace tarvo_test

// Stands in front of the library's.
int TarvoClosePipe(int fd) {
    using tarvo_test::Closes;
    std::function<void(int)> action;
    {
        const std::lock_guard<std::mutex> lock(Closes().mutex);
        Closes().handles.push_back(fd);
        action = Closes().action;
    }
    if (action) {
        action(fd);
    }
    return 0;
}
