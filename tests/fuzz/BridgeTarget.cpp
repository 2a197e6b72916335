// What bridges make of what they are told: by each other over a network that loses, repeats and delays, by pipes, and
// by somebody who writes whatever it likes to their topics.
//
// Input: one operation after another, each of a byte and what it needs. However they go on: no pipe is used after its
// close, nobody has more sessions than are allowed, and when the network behaves again and the stranger is gone the two
// bridges offer what they should, and carry it.
#include <string>
#include <utility>
#include <vector>

#include "bridge/CoreParts.h"
#include "core/Report.h"
#include "fuzz/Target.h"

namespace tarvo_test {
namespace {

using namespace tarvo_bridge;

constexpr RunId EXPORTER = 1;
constexpr RunId IMPORTER = 2;
constexpr RunId STRANGERS = 6; // runs up to here
constexpr int64_t LEASE_MS = 1000;
constexpr uint32_t SESSIONS = 4;
// A count that no honest one can exceed would shut its link out for good.
constexpr uint32_t HIGHEST_FORGED = 1000000;

Plan PlanOf(RunId run, const std::string &machine) {
    Plan plan;
    plan.run = run;
    plan.machine = machine;
    plan.limits = {4, LEASE_MS, SESSIONS};
    return plan;
}

class Play {
public:
    explicit Play(Bytes &bytes) : input(bytes) {
        Plan exports = PlanOf(EXPORTER, "front");
        exports.exports = {"camera"};
        exporter = &nodes.Start(std::move(exports));
        Plan imports = PlanOf(IMPORTER, "rear");
        imports.imports = {{"camera", "", "camera"}};
        importer = &nodes.Start(std::move(imports));
        exporter->bridge.OnServer("camera", true);
        nodes.Settle();
    }

    void Step();
    void CheckEnd();

private:
    uint32_t Number() { return input.Flag() ? input.Below(6) : (input.Word() << 16 | input.Word()) % HIGHEST_FORGED; }
    CoreNode &AnyNode() { return input.Flag() ? *exporter : *importer; }
    std::string AnyMachine() { return std::vector<std::string>{"front", "rear", "attic"}[input.Below(3)]; }
    Item AnyItem();
    void Forge();
    void Announce();
    void LosePeer();
    void UsePipe();
    void Disturb();
    void Check();

    Bytes &input;
    CoreNodes nodes;
    CoreNode *exporter;
    CoreNode *importer;
};

Item Play::AnyItem() {
    Item item;
    item.kind = static_cast<ItemKind>(input.Below(5));
    item.opener = input.Flag();
    item.session = Number();
    item.count = input.Flag() ? UINT32_MAX - input.Below(3) : Number();
    item.service = input.Flag() ? "camera" : "nobody";
    item.client = std::string(1 + input.Below(110), 'c');
    item.payload.assign(1 + input.Below(100), 'p');
    return item;
}

void Play::Forge() {
    Bundle bundle;
    bundle.from = 1 + input.Below(STRANGERS);
    bundle.to = input.Flag() ? EXPORTER : IMPORTER;
    bundle.mine = Number();
    bundle.theirs = Number();
    bundle.confirmed = input.Flag();
    bundle.sequence = Number();
    bundle.items.resize(input.Below(4));
    for (Item &item : bundle.items) {
        item = AnyItem();
    }
    nodes.cables.Inject(bundle);
}

void Play::Announce() {
    Announcement announcement;
    announcement.run = 1 + input.Below(STRANGERS);
    announcement.version = input.Below(8) == 0 ? 2 : PROTOCOL_VERSION;
    announcement.machine = AnyMachine();
    announcement.names = {input.Flag() ? "camera" : "radar"};
    if (input.Flag()) {
        announcement.services = announcement.names;
    }
    AnyNode().bridge.OnAnnounced(announcement);
}

void Play::LosePeer() {
    if (input.Flag()) {
        nodes.cables.Rediscover(input.Flag() ? EXPORTER : IMPORTER, input.Flag());
    } else {
        AnyNode().bridge.OnRunLost(1 + input.Below(STRANGERS));
    }
}

void Play::UsePipe() {
    auto &pipes = AnyNode().machine.pipes;
    if (pipes.empty()) {
        return;
    }
    CorePipe &pipe = pipes[input.Below(static_cast<unsigned>(pipes.size()))];
    const unsigned event = input.Below(6);
    if (pipe.closed) {
        return;
    }
    switch (event) {
    case 0:
        pipe.listener->OnPipeOpen();
        break;
    case 1:
        if (!pipe.paused) {
            pipe.listener->OnPipeFrame({1, 0, -1, "frame"});
        }
        break;
    case 2:
        pipe.flushes = input.Flag();
        pipe.MakeRoom(static_cast<int>(input.Below(8)));
        break;
    case 3:
        pipe.listener->OnPipeGone();
        break;
    case 4:
        pipe.listener->OnPipeFailed(-1);
        break;
    default:
        pipe.room = static_cast<int>(input.Below(3));
    }
}

void Play::Disturb() {
    const unsigned what = input.Below(8);
    nodes.cables.fate = [count = 0U, what](const Bundle &) mutable {
        return what >= 4 || ++count % (what + 2) != 0 ? Fate::ARRIVES : static_cast<Fate>(1 + count / 4 % 3);
    };
    const bool room = what != 7;
    nodes.cables.room = [room] { return room; };
}

void Play::Step() {
    switch (input.Below(10)) {
    case 0:
        Forge();
        break;
    case 1:
        Announce();
        break;
    case 2:
        LosePeer();
        break;
    case 3:
        importer->bridge.OnClient("camera", {"viewer" + std::to_string(input.Below(8)), 0, 1});
        break;
    case 4:
    case 5:
    case 6:
        UsePipe();
        break;
    case 7:
        nodes.Pass(10 * int64_t{input.Below(100)});
        break;
    case 8:
        Disturb();
        break;
    default:
        exporter->bridge.OnServer("camera", input.Flag());
    }
    nodes.Settle();
    Check();
}

void Play::Check() {
    Require(!nodes.AnyMisused(), "no pipe is used after its close, and none takes an empty frame");
    for (const CoreNode *const node : {exporter, importer}) {
        for (const Picture::PeerState &peer : node->bridge.Look().peers) {
            Require(peer.sessions <= SESSIONS, "no peer has more sessions than it may");
        }
    }
}

void Play::CheckEnd() {
    nodes.cables.fate = [](const Bundle &) { return Fate::ARRIVES; };
    nodes.cables.room = [] { return true; };
    for (RunId run = EXPORTER; run <= STRANGERS; ++run) {
        exporter->bridge.OnRunLost(run);
        importer->bridge.OnRunLost(run);
    }
    // What the ones that are gone had sent is delivered, and their pipes are closed then.
    for (CoreNode *const node : {exporter, importer}) {
        for (std::size_t i = 0; i < node->machine.pipes.size(); ++i) {
            CorePipe &pipe = node->machine.pipes[i];
            pipe.flushes = true;
            if (!pipe.closed) {
                pipe.listener->OnPipeOpen();
            }
            pipe.MakeRoom(1000000);
            Require(pipe.closed, "the end of a link closes its pipes");
        }
    }
    nodes.cables.Rediscover(EXPORTER, true);
    exporter->bridge.OnServer("camera", false);
    exporter->bridge.OnServer("camera", true);
    nodes.Pass(5 * LEASE_MS);
    Require(importer->machine.offered.count("camera") == 1, "what lives is offered again");
    importer->bridge.OnClient("camera", {"last", 0, 1});
    nodes.Settle();
    CorePipe &there = exporter->machine.pipes.back();
    Require(!there.closed, "a client is carried");
    there.listener->OnPipeOpen();
    nodes.Settle();
    CorePipe &here = importer->machine.pipes.back();
    Require(!here.closed, "its pipe is made");
    here.listener->OnPipeOpen();
    here.listener->OnPipeFrame({1, 0, -1, "last"});
    nodes.Settle();
    Require(there.written == std::vector<std::string>{"last"}, "what it sends arrives");
    Check();
}

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    tarvo_bridge::SetTold(tarvo_bridge::Level::ERROR);
    Bytes input(data, size);
    Play play(input);
    while (!input.Empty()) {
        play.Step();
    }
    play.CheckEnd();
    return 0;
}
