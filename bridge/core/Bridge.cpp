#include "core/Bridge.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "core/Report.h"

namespace tarvo_bridge {
namespace {

// Of the 110 characters of a name in a server's packet: the process id that is put behind it has 10 and a "_".
constexpr std::size_t ROOM_FOR_NAME = 99;

} // namespace

std::string RemoteName(const std::string &client, const std::string &machine, uint32_t number, std::size_t room) {
    const std::string rest = "@" + machine + "." + std::to_string(number);
    std::string name = client.substr(0, rest.size() < room ? room - rest.size() : 0) + rest;
    return name.substr(name.size() > room ? name.size() - room : 0);
}

Bridge::Bridge(Plan &&bridgePlan, Network &bridgeNetwork, LocalSide &localSide, Listener &bridgeListener)
    : plan(std::move(bridgePlan)), network(bridgeNetwork), local(localSide), listener(bridgeListener),
      peers(plan.run, plan.limits, network, *this) {
    for (const ImportRule &rule : plan.imports) {
        imports.push_back({rule});
    }
}

Bridge::~Bridge() {
    for (Import &import : imports) {
        if (import.offered) {
            local.Withdraw(import.rule.local);
        }
    }
}

void Bridge::Begin() {
    for (const std::string &name : plan.exports) {
        servers.emplace(name, false);
    }
    Announce();
    for (const std::string &name : plan.exports) {
        local.WatchServer(name);
    }
    listener.OnDueChanged();
}

Announcement Bridge::Own() const {
    Announcement announcement;
    announcement.run = plan.run;
    announcement.machine = plan.machine;
    for (const auto &server : servers) {
        announcement.names.push_back(server.first);
        if (server.second) {
            announcement.services.push_back(server.first);
        }
    }
    for (const Import &import : imports) {
        announcement.names.push_back(import.rule.local);
    }
    return announcement;
}

void Bridge::Announce() { announced = network.Announce(Own()); }

void Bridge::OnBundle(Bundle &bundle) {
    Peer *const peer = peers.Find(bundle.from);
    // One that is unknown greets again, after its announcement.
    if (peer != nullptr && peer->IsHere()) {
        peer->Link().OnBundle(bundle, local.NowMs());
        peer->FreeOver();
        listener.OnDueChanged();
    }
}

bool Bridge::IsTraffic(const Bundle &bundle) {
    const auto isTraffic = [](const Item &item) {
        return item.kind == ItemKind::FRAME || item.kind == ItemKind::CREDIT;
    };
    Peer *const peer = peers.Find(bundle.from);
    return peer != nullptr && peer->IsHere() && peer->Link().IsNext(bundle) && !bundle.items.empty() &&
           std::all_of(bundle.items.begin(), bundle.items.end(), isTraffic);
}

void Bridge::OnServer(const std::string &name, bool lives) {
    const auto found = servers.find(name);
    if (found == servers.end() || found->second == lives) {
        return;
    }
    found->second = lives;
    Say(Level::NOTICE, lives ? "'{}' is exported" : "'{}' has no server here; it is not exported for now", name);
    Announce();
    listener.OnDueChanged();
}

void Bridge::OnClient(const std::string &name, const LocalClient &client) {
    const auto found = std::find_if(imports.begin(), imports.end(),
                                    [&name](const Import &import) { return import.rule.local == name; });
    Peer *const peer = found == imports.end() ? nullptr : peers.Find(found->carrier);
    if (peer == nullptr || !peer->Link().IsUp()) {
        return;
    }
    peer->Open(found->rule.service, name, client);
    listener.OnDueChanged();
}

void Bridge::OnPeerUp(Peer & /*peer*/) {
    for (Import &import : imports) {
        SetOffered(import);
    }
}

void Bridge::OnPeerDown(Peer & /*peer*/) {
    for (Import &import : imports) {
        SetOffered(import);
    }
}

LocalPipe *Bridge::ConnectToServer(const std::string &service, const std::string &client, const std::string &machine,
                                   LocalPipe::Listener &session) {
    if (servers.find(service) == servers.end()) {
        Say(Level::WARNING, "machine '{}' asks for '{}', which is not exported", machine, service);
        return nullptr;
    }
    return local.Connect(service, RemoteName(client, machine, ++pipes, ROOM_FOR_NAME), session);
}

void Bridge::Choose() {
    std::vector<const Announcement *> candidates;
    for (const auto &peer : peers) {
        if (peer->IsHere()) {
            candidates.push_back(&peer->Told());
        }
    }
    for (Import &import : imports) {
        Choose(import, candidates);
    }
}

void Bridge::Choose(Import &import, const std::vector<const Announcement *> &candidates) {
    const RunId chosen = ChooseExporter(import.rule, candidates, import.carrier);
    if (chosen != import.carrier) {
        // Sessions through the one before end when their pipes there do, after all that these had sent.
        import.carrier = chosen;
        Peer *const peer = peers.Find(chosen);
        if (peer != nullptr) {
            peer->Link().Begin(local.NowMs());
        }
    }
    SetOffered(import);
}

void Bridge::CheckOffered(Import &import) {
    if (import.offered && !local.IsOffered(import.rule.local)) {
        Say(Level::WARNING, "the server file of '{}' was removed or replaced", import.rule.local);
        local.Withdraw(import.rule.local);
        import.offered = false;
    }
    SetOffered(import);
}

void Bridge::SetOffered(Import &import) {
    Peer *const peer = peers.Find(import.carrier);
    const bool wanted = peer != nullptr && peer->Link().IsUp();
    if (!wanted) {
        if (import.offered) {
            Say(Level::NOTICE, "'{}' is not offered any more: nobody carries '{}'", import.rule.local,
                import.rule.service);
            local.Withdraw(import.rule.local);
        }
        import.offered = false;
        import.refused = 0;
        return;
    }
    if (import.offered) {
        return;
    }
    const int ret = local.Offer(import.rule.local);
    import.offered = ret == 0;
    if (ret == 0) {
        Say(Level::NOTICE, "'{}' is offered, carried by machine '{}'", import.rule.local, peer->Told().machine);
    } else if (ret != import.refused) {
        Say(Level::ERROR, "'{}' cannot be offered here: {}; it is tried again", import.rule.local, std::strerror(-ret));
    }
    import.refused = ret;
}

void Bridge::Flush() {
    for (const auto &peer : peers) {
        peer->FreeOver();
        peer->Link().Flush(local.NowMs());
    }
    listener.OnDueChanged();
}

int64_t Bridge::Due() const {
    int64_t due = PeerLink::NEVER;
    for (const auto &peer : peers) {
        due = std::min({due, peer->Link().Due(), peer->TwinDue()});
    }
    const bool look = !announced || std::any_of(imports.begin(), imports.end(), [](const Import &import) {
        return import.offered || import.refused != 0;
    });
    return look ? std::min(due, lookDue) : due;
}

void Bridge::OnTime() {
    const int64_t now = local.NowMs();
    for (const auto &peer : peers) {
        peer->Link().OnTime(now);
        peer->FreeOver();
    }
    TellOfTwins(now);
    if (now >= lookDue) {
        lookDue = now + LOOK_INTERVAL_MS;
        if (!announced) {
            Announce();
        }
        for (Import &import : imports) {
            CheckOffered(import);
        }
    }
    listener.OnDueChanged();
}

Picture Bridge::Look() const {
    Picture picture;
    for (const auto &server : servers) {
        picture.exports.push_back({server.first, server.second});
    }
    for (const Import &import : imports) {
        const auto carrier = std::find_if(peers.begin(), peers.end(),
                                          [&](const auto &peer) { return peer->Told().run == import.carrier; });
        picture.imports.push_back(
            {import.rule, carrier == peers.end() ? "" : (*carrier)->Told().machine, import.offered, import.refused});
    }
    for (const auto &peer : peers) {
        if (peer->IsHere()) {
            picture.peers.push_back({peer->Told().machine, peer->Told().run, peer->Link().IsWanted(),
                                     peer->Link().IsUp(), peer->Sessions()});
        }
    }
    return picture;
}

} // namespace tarvo_bridge
