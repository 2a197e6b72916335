// Sequences of calls of the exported functions, over pipes both ends of which are in this process.
//
// Input: one byte of options, then calls (see Actor). One option has two threads do half of them each at the same time.
// Every result is one that the function may have, an honest client is served all the while, and when all pipes are
// closed nothing is left of them.
#include <unistd.h>

#include <string>
#include <thread>

#include "api/TableFactory.h"
#include "fuzz/Actor.h"
#include "fuzz/Honest.h"
#include "fuzz/LeftOvers.h"
#include "fuzz/Target.h"
#include "server/PipeServer.h"
#include "support/Pipes.h"
#include "table/TarvoTable.h"

namespace tarvo_test {
namespace {

constexpr int MOST_STEPS = 64;
constexpr int STEPS_BETWEEN_CALLS = 4;

const std::string &ServerName() {
    static const auto *const name = new std::string(UniqueName("server"));
    return *name;
}

void StartServer() {
    TarvoServerAttr attr;
    attr.selfName = ServerName().c_str();
    attr.callback = Echo;
    Require(TarvoCreateServer(&attr) == 0, "a server can be started");
}

// What there is while no actor is at work.
const LeftOvers &Calm() {
    static const LeftOvers *const calm = [] {
        StartServer();
        TheHonestClient().Call();
        // The other receive thread that an actor may start; it stays.
        Require(TableFactory::GetInstance()->PrepareMonitor(TARVO_PRIORITY_URGENT, TARVO_PRIORITY_URGENT) == 0,
                "a receive thread can be started");
        return new LeftOvers;
    }();
    return *calm;
}

// One of the exported functions removes it.
void RestoreServerFile() {
    if (access((FifoDirectory() + ServerName()).c_str(), F_OK) != 0) {
        PipeServer::GetInstance()->Close();
        StartServer();
    }
}

void Act(Actor &actor, HonestClient *honest) {
    for (int step = 0; step < MOST_STEPS && actor.ActOnce(); ++step) {
        if (honest != nullptr && step % STEPS_BETWEEN_CALLS == 0) {
            honest->Call();
        }
    }
}

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    const LeftOvers &calm = Calm();
    Bytes input(data, size);
    if (input.Flag()) {
        const std::size_t half = input.Left() / 2;
        Actor one(Bytes(data + 1, half), ServerName());
        Actor other(Bytes(data + 1 + half, input.Left() - half), ServerName());
        std::thread thread([&other] { Act(other, nullptr); });
        Act(one, &TheHonestClient());
        thread.join();
    } else {
        Actor only(input, ServerName());
        Act(only, &TheHonestClient());
    }
    TheHonestClient().Call();
    calm.AwaitNoOther();
    RestoreServerFile();
    return 0;
}
