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
    : plan(std::move(bridgePlan)), network(bridgeNetwork), local(localSide), listener(bridgeListener) {
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
}

void Bridge::Announce() {
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
    network.Announce(announcement);
}

Peer *Bridge::Find(RunId run) {
    const auto found =
        std::find_if(peers.begin(), peers.end(), [run](const auto &peer) { return peer->Told().run == run; });
    return found == peers.end() ? nullptr : found->get();
}

void Bridge::OnAnnounced(const Announcement &announcement) {
    if (announcement.run == plan.run || announcement.run == 0) {
        return;
    }
    if (announcement.version != PROTOCOL_VERSION) {
        Say(Level::WARNING, "the bridge of machine '{}' speaks version {}, this one {}; it is left alone",
            announcement.machine, announcement.version, PROTOCOL_VERSION);
        return;
    }
    Peer *peer = Find(announcement.run);
    const bool fresh = peer == nullptr || peer->IsLost();
    if (peer == nullptr) {
        peers.push_back(std::make_unique<Peer>(plan.run, announcement, plan.limits, beginnings, network, *this));
        peer = peers.back().get();
    }
    peer->SetTold(announcement);
    peer->SetLost(false);
    if (fresh) {
        Say(Level::NOTICE, "the bridge of machine '{}' is there", announcement.machine);
        for (const auto &other : peers) {
            if (!other->IsLost() && TakesPlaceOf(announcement, other->Told())) {
                Retire(*other);
            }
        }
        peer->Link().OnAnnounced(local.NowMs());
    }
    Choose();
    ForgetOldest();
    listener.OnDueChanged();
}

void Bridge::OnRunLost(RunId run) {
    Peer *const peer = Find(run);
    if (peer != nullptr && !peer->IsLost()) {
        Retire(*peer);
        Choose();
    }
    listener.OnDueChanged();
}

void Bridge::Retire(Peer &peer) {
    Say(Level::NOTICE, "the bridge of machine '{}' is gone", peer.Told().machine);
    peer.SetLost(true);
    peer.Link().OnLost();
}

void Bridge::ForgetOldest() {
    const auto isLost = [](const auto &peer) { return peer->IsLost(); };
    if (static_cast<std::size_t>(std::count_if(peers.begin(), peers.end(), isLost)) > MOST_LOST) {
        peers.erase(std::find_if(peers.begin(), peers.end(), isLost));
    }
}

void Bridge::OnBundle(Bundle &bundle) {
    Peer *const peer = Find(bundle.from);
    // One that is unknown greets again, after its announcement.
    if (peer != nullptr && !peer->IsLost()) {
        peer->Link().OnBundle(bundle, local.NowMs());
        peer->FreeOver();
        listener.OnDueChanged();
    }
}

bool Bridge::IsTraffic(const Bundle &bundle) {
    const auto isTraffic = [](const Item &item) {
        return item.kind == ItemKind::FRAME || item.kind == ItemKind::CREDIT;
    };
    Peer *const peer = Find(bundle.from);
    return peer != nullptr && !peer->IsLost() && peer->Link().IsNext(bundle) && !bundle.items.empty() &&
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
    Peer *const peer = found == imports.end() ? nullptr : Find(found->carrier);
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
        if (!peer->IsLost()) {
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
        Peer *const peer = Find(chosen);
        if (peer != nullptr) {
            peer->Link().Begin(local.NowMs());
        }
    }
    SetOffered(import);
}

void Bridge::SetOffered(Import &import) {
    Peer *const peer = Find(import.carrier);
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
        due = std::min(due, peer->Link().Due());
    }
    const bool again =
        std::any_of(imports.begin(), imports.end(), [](const Import &import) { return import.refused != 0; });
    return again ? std::min(due, retryDue) : due;
}

void Bridge::OnTime() {
    const int64_t now = local.NowMs();
    for (const auto &peer : peers) {
        peer->Link().OnTime(now);
        peer->FreeOver();
    }
    if (now >= retryDue) {
        retryDue = now + RETRY_OFFER_MS;
        for (Import &import : imports) {
            SetOffered(import);
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
        if (!peer->IsLost()) {
            picture.peers.push_back({peer->Told().machine, peer->Told().run, peer->Link().IsUp(), peer->Sessions()});
        }
    }
    return picture;
}

} // namespace tarvo_bridge
