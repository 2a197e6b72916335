// Names, from the arguments of the exported functions down to the files that they become.
//
// Input: three bytes of options (length that a caller claims, longest length allowed, priority), then the name.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "api/EnvManager.h"
#include "api/TableFactory.h"
#include "api/tarvo_check.h"
#include "fifo/velm_check.h"
#include "fuzz/LeftOvers.h"
#include "fuzz/NameRules.h"
#include "fuzz/Target.h"
#include "server/PipeServerMessage.h"
#include "support/Pipes.h"
#include "support/RawFrame.h"
#include "table/TarvoTable.h"

namespace tarvo_test {
namespace {

bool Exists(const std::string &file) { return access(file.c_str(), F_OK) == 0; }

void CheckLength(const std::string &name, std::size_t claimed, std::size_t most) {
    const bool right = claimed != 0 && claimed <= most && claimed == name.size();
    Require(CheckInputName(name.c_str(), claimed, most) == (right ? 0 : -EINVAL), "a name has the length it claims");
}

void CheckArguments(const std::string &name, unsigned priority, bool acceptable) {
    const auto asPriority = static_cast<TarvoPriority>(priority);
    const int expected = acceptable && priority <= TARVO_PRIORITY_URGENT ? 0 : -EINVAL;
    Require(CheckInputSelfNameAndPriority(name.c_str(), asPriority) == expected, "the name of this process is checked");
    TarvoServerAttr server;
    server.selfName = name.c_str();
    server.priority = asPriority;
    Require(CheckInputServerAttr(server) == expected, "the name of a server is checked");
    TarvoAttr attr;
    attr.selfName = "me";
    attr.targetName = name.c_str();
    attr.priority = asPriority;
    Require(CheckInputPipeAttr(attr) == expected, "the name of the remote is checked");
    if (expected != 0) {
        Require(TarvoOpen(&attr) == -EINVAL && TarvoCreateClient(&attr) == -EINVAL, "no pipe has a wrong name");
        Require(TarvoCreateServer(&server) == -EINVAL, "no server has a wrong name");
    }
}

const LeftOvers &BeforeOpening() {
    static const LeftOvers *const before = [] {
        // The receive thread of the first pipe stays.
        Require(TableFactory::GetInstance()->PrepareMonitor(TARVO_PRIORITY_NORMAL, TARVO_PRIORITY_NORMAL) == 0,
                "a receive thread can be started");
        return new LeftOvers;
    }();
    return *before;
}

// A pipe between this process and `name`, and where its files are.
void CheckFiles(const std::string &name) {
    static const auto *const self = new std::string(UniqueName("self"));
    BeforeOpening();
    TarvoAttr attr = MakeAttr(*self, name, TARVO_MODE_SERVER);
    const int handle = TarvoOpen(&attr);
    if (name.find('/') != std::string::npos) {
        Require(handle == -ENOENT, "a name with a slash points into a directory that does not exist");
    } else {
        Require(handle > 0, "a pipe to an acceptable name opens");
        Require(Exists(FifoPath(*self, name)) && Exists(FifoPath(name, *self)), "a pipe has its two files");
        TarvoClosePipe(handle);
    }
    // Also the pipe whose open failed: it stays registered, and 1024 of them are all that a process can have.
    BeforeOpening().AwaitNoOther();
    Require(OwnFifoFiles().empty(), "a closed pipe has no files");
}

void CheckPacket(const std::string &name) {
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, name);
    const int result = message.Init();
    if (name.size() >= NAME_MAX) {
        Require(result == -EINVAL, "a packet takes no name that is too long");
        return;
    }
    Require(result == 0, "a packet takes every other name");
    const std::string expected = RawConnectPacket(name, getgid(), getpid());
    // An empty name has no size field either.
    const std::size_t size = name.empty() ? expected.size() - sizeof(uint32_t) : expected.size();
    Require(message.Size() == size && std::memcmp(message.GetData(), expected.data(), size) == 0,
            "a packet is what the server reads");
}

void CheckProcessName(const std::string &name) {
    const bool fits = name.size() <= LONGEST_NAME;
    {
        MutexLock lock(EnvManager::Instance());
        Require(EnvManager::SetProcName(name) == (fits ? 0 : ERANGE), "a process name has 100 characters at most");
    }
    Require(EnvManager::ProcName() == (fits ? name : ""), "a process has the name that it took");
    // Threads take a part of it for their own name.
    MutexLock lock(EnvManager::Instance());
    EnvManager::SetProcName("fuzz");
}

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    Bytes input(data, size);
    const std::size_t claimed = input.Byte();
    const std::size_t most = input.Byte();
    const unsigned priority = input.Below(4);
    const std::string name = input.Rest().c_str();
    const bool acceptable = IsAcceptableName(name);
    CheckLength(name, claimed, most);
    CheckLength(name, name.size(), LONGEST_NAME);
    Require(BlackListCheck(name.c_str()) == !IsHarmless(name), "a name that means something to a shell is found");
    CheckArguments(name, priority, acceptable);
    if (acceptable) {
        CheckFiles(name);
    }
    CheckPacket(name);
    CheckProcessName(name);
    return 0;
}
