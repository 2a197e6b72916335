#include "shared/Client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "api/EnvManager.h"
#include "shared/CommandLine.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "tarvo.h"

namespace tarvoctl {
namespace {

constexpr std::chrono::milliseconds POLL_INTERVAL(1);

// Why no FIFO can be reached, as the library does not tell: to who may not enter the directory, and where there is
// none, each server looks like one that does not run. 0 when the directory can be entered.
int DirectoryError() { return access(EnvManager::FifoPrefix().c_str(), X_OK) == 0 ? 0 : errno; }

Failure ExplainMissing(const std::string &server) {
    const int error = DirectoryError();
    if (error == EACCES) {
        return {EXIT_FAILED,
                fmt::format("this user may not enter {} (see: tarvoctl doctor)", EnvManager::FifoPrefix())};
    }
    if (error == ENOENT) {
        return {EXIT_NO_SERVER,
                fmt::format("no server runs under the name '{}': {} is missing; 'tarvoctl init' makes it", server,
                            EnvManager::FifoPrefix())};
    }
    return {EXIT_NO_SERVER, fmt::format("no server runs under the name '{}' (see: tarvoctl list)", server)};
}

// A call whose pipe was closed between the sending and the waiting returns 0 without an answer.
int ResultOf(int result, const TarvoResponse &response) {
    return result == 0 && response.data == nullptr ? -EPIPE : result;
}

} // namespace

void AddClientOptions(CommandLine &sub, ClientOptions &options) {
    sub.Add("NAME", options.server, "Name that the server serves under").Required();
    sub.Add("--as", options.self, "Appear to the server under this name, with _ and the process id added")
        .Type("NAME")
        .ShowDefault();
    sub.Add("--priority", options.priority, "normal, or urgent to receive on a real-time thread")
        .OneOf({"normal", "urgent"})
        .Type("PRIORITY")
        .ShowDefault();
    sub.Add("--open-timeout", options.openTimeout, "How long the server may take to open its end (2s)");
}

Failure Explain(int result, const std::string &server) {
    switch (-result) {
    case ENXIO:
        return ExplainMissing(server);
    case ETIMEDOUT:
        return {EXIT_NO_ANSWER, fmt::format("'{}' did not answer in time", server)};
    case EINVAL:
        return {EXIT_USAGE,
                "a name is refused: 1 to 100 characters, none of | ; > < ` & ( ) $ and no two dots in a row"};
    case EPIPE:
    case ENOENT:
    case EPERM: // -1, a pipe that is closing
        return {EXIT_FAILED, fmt::format("'{}' has closed the pipe or is gone", server)};
    case EAGAIN:
        return {EXIT_FAILED, fmt::format("the pipe to '{}' is full: it does not keep up", server)};
    case EACCES:
        return {EXIT_FAILED, fmt::format("no right to the FIFOs of '{}': see their group with tarvoctl list", server)};
    default:
        return {EXIT_FAILED, fmt::format("'{}': {}", server, std::strerror(-result))};
    }
}

Client::~Client() {
    interrupt.OnRequest(nullptr);
    Close();
}

int Client::Connect() {
    interrupt.OnRequest([] { _exit(EXIT_INTERRUPTED); });
    const int result = Open();
    interrupt.OnRequest([this] { Cancel(); });
    if (result == 0) {
        return EXIT_DONE;
    }
    const Failure failure = Explain(result, options.server);
    Diagnose("{}", failure.text);
    return failure.exitStatus;
}

int Client::Open() {
    TarvoAttr attr;
    attr.targetName = options.server.c_str();
    attr.selfName = options.self.c_str();
    attr.timeout = options.openTimeout.Milliseconds();
    attr.priority = options.priority == "urgent" ? TARVO_PRIORITY_URGENT : TARVO_PRIORITY_NORMAL;
    const int result = TarvoCreateClient(&attr);
    pipe = result > 0 ? result : -1;
    return result > 0 ? 0 : result;
}

int Client::Call(std::string &request, int timeoutMs, std::string &answer) {
    TarvoRequest frame = {0, request.data(), static_cast<uint32_t>(request.size())};
    TarvoResponse response = {};
    const int result = ResultOf(TarvoTimedRPCSync(pipe, &frame, &response, timeoutMs), response);
    if (result == 0) {
        answer.assign(response.data, response.size);
    }
    DestroyResponse(&response);
    return result;
}

int Client::Send(std::string &request) const {
    TarvoRequest frame = {0, request.data(), static_cast<uint32_t>(request.size())};
    return TarvoSendRequest(pipe, &frame);
}

int Client::WriteDescriptor() const {
    const std::string file =
        EnvManager::FifoPrefix() + options.self + "_" + std::to_string(getpid()) + "__to__" + options.server;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const int fd = std::atoi(entry.path().filename().c_str());
        const std::string target = std::filesystem::read_symlink(entry.path(), error);
        if (target == file && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY) {
            return fd;
        }
    }
    return -1;
}

void Client::KeepWriteEnd() { writeEnd = UniqueFd(fcntl(WriteDescriptor(), F_DUPFD_CLOEXEC, 0)); }

int Client::AwaitRead(std::chrono::microseconds limit) const {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        // Asked in this order, since a server that ends may have read everything before. The kernel tells how much is
        // unread at either end of a FIFO, but sends no event when it becomes nothing.
        pollfd entry = {writeEnd.Get(), 0, 0};
        const bool gone = poll(&entry, 1, 0) < 0 || (entry.revents & (POLLERR | POLLNVAL)) != 0;
        int unread = 0;
        if (ioctl(writeEnd.Get(), FIONREAD, &unread) != 0) {
            return -EPIPE;
        }
        if (unread == 0) {
            return 0;
        }
        if (gone || interrupt.WaitFor(POLL_INTERVAL)) {
            return -EPIPE;
        }
        if (std::chrono::steady_clock::now() > end) {
            return -ETIMEDOUT;
        }
    }
}

void Client::AwaitRoom(std::chrono::milliseconds limit) const {
    pollfd entry = {writeEnd.Get(), POLLOUT, 0};
    poll(&entry, 1, static_cast<int>(limit.count()));
}

void Client::Cancel() {
    const int handle = pipe;
    if (handle > 0) {
        TarvoClosePipe(handle);
    }
}

void Client::Close() {
    writeEnd.Reset(); // first: the server sees the close of the last one
    const int handle = pipe.exchange(-1);
    if (handle > 0) {
        TarvoClosePipe(handle);
    }
}

} // namespace tarvoctl
