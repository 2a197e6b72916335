#include "PipeServerFixture.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <utility>

#include "api/TableFactory.h"
#include "support/Asleep.h"
#include "support/Eventually.h"
#include "support/FifoEnds.h"
#include "support/Names.h"
#include "support/RawFrame.h"

namespace tarvo_test {
namespace {

std::mutex actionMutex;
std::function<void(int, const std::string &)> openAction;

void RunOpenAction(int fd, const char *peerName, uint32_t nameLength) {
    std::function<void(int, const std::string &)> action;
    {
        const std::lock_guard<std::mutex> lock(actionMutex);
        action = openAction;
    }
    if (action) {
        action(fd, std::string(peerName, nameLength));
    }
}

} // namespace

PipeServerTest::PipeServerTest()
    : name(UniqueName("srv")), path(FifoDirectory() + name), table(TableFactory::GetInstance()) {
    attr.selfName = name.c_str();
    attr.gid = getgid();
    attr.openCallback = RunOpenAction;
    server.emplace(*table);
}

PipeServerTest::~PipeServerTest() {
    server.reset();
    OnOpen(nullptr);
    unlink(path.c_str());
}

void PipeServerTest::OnOpen(std::function<void(int, const std::string &)> action) {
    const std::lock_guard<std::mutex> lock(actionMutex);
    openAction = std::move(action);
}

void PipeServerTest::Write(const std::string &bytes) const {
    const UniqueFd end = WriteEnd(path);
    EXPECT_EQ(write(end.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string PipeServerTest::Connect(const std::string &client) { return RawConnectPacket(client, getgid(), getpid()); }

OpenedPipe PipeServerTest::ServeClient(const std::string &client) {
    Write(Connect(client));
    return opens.WaitForTarget(client);
}

bool PipeServerTest::FileExists() const { return access(path.c_str(), F_OK) == 0; }

std::size_t PipeServerTest::ServerThreads() {
    std::size_t count = 0;
    std::error_code error;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::string threadName;
        std::ifstream(task.path() / "comm") >> threadName;
        count += threadName == "tarvo_server" ? 1 : 0;
    }
    return count;
}

bool PipeServerTest::NoServerThreads() const {
    return Eventually([this] { return ThreadCount() == threadsAtFirst; });
}

bool PipeServerTest::Sleeps(pid_t thread) {
    return Eventually([thread] { return IsAsleep("/proc/self/task/" + std::to_string(thread)); });
}

} // namespace tarvo_test
