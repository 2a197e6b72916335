#include "core/Peer.h"

#include <algorithm>
#include <utility>

#include "core/Report.h"

namespace tarvo_bridge {
namespace {

// There it is only shown, as a part of a file's name; here it may lead into a folder.
std::string Shown(std::string name) {
    const auto isUnfit = [](unsigned char letter) { return letter == '/' || letter < 0x20 || letter == 0x7f; };
    std::replace_if(name.begin(), name.end(), isUnfit, '_');
    return name;
}

// After the lease the network has lost one that is dead.
constexpr int64_t TWIN_MARGIN_MS = 1000;

} // namespace

Peer::Peer(RunId self, Announcement first, Limits peerLimits, uint32_t &beginnings, Network &network, Owner &peerOwner)
    : told(std::move(first)), limits(peerLimits), owner(peerOwner),
      link({self, told.run}, peerLimits.leaseMs, beginnings, network, *this) {}

void Peer::SetLost() {
    standing = Standing::LOST;
    told.services = {};
    told.names = {};
}

void Peer::SetReplaced(RunId by, int64_t now) {
    standing = Standing::REPLACED;
    replacedBy = by;
    replacedAt = now;
}

int64_t Peer::TwinDue() const {
    return standing == Standing::REPLACED && !twinTold ? replacedAt + limits.leaseMs + TWIN_MARGIN_MS : PeerLink::NEVER;
}

void Peer::Open(const std::string &service, const std::string &local, const LocalClient &client) {
    const bool opening = std::any_of(mine.begin(), mine.end(), [&](const auto &entry) {
        return entry.second.local == local && entry.second.client.name == client.name &&
               entry.second.session->IsOpening();
    });
    if (opening) {
        return; // it has announced itself again
    }
    if (!HasRoom()) {
        if (!refusing) {
            Say(Level::WARNING, "{} pipes of this machine go to machine '{}'; one more is refused", limits.sessions,
                told.machine);
        }
        refusing = true;
        return;
    }
    Say(Level::INFO, "'{}' asks for '{}' of machine '{}'", client.name, service, told.machine);
    const uint32_t number = ++lastNumber;
    auto made = std::make_unique<Session>(number, true, limits.window, *this);
    Session &session = *made;
    mine.emplace(number, Client{local, client, std::move(made)});
    Settle();
    session.Ask(service, Shown(client.name));
}

// Whether there may be one more session. What is refused is told once, until there are far fewer.
bool Peer::HasRoom() {
    if (Sessions() <= limits.sessions / 2) {
        refusing = false;
    }
    return Sessions() < limits.sessions;
}

void Peer::OnLinkUp() {
    Say(Level::NOTICE, "link to machine '{}' is up", told.machine);
    owner.OnPeerUp(*this);
}

void Peer::OnLinkDown(const char *why) {
    Say(Level::NOTICE, "link to machine '{}' is down: {}", told.machine, why);
    std::vector<Session *> all;
    for (auto &entry : mine) {
        all.push_back(entry.second.session.get());
        left.emplace(all.back(), std::move(entry.second.session));
    }
    for (auto &entry : theirs) {
        all.push_back(entry.second.get());
        left.emplace(all.back(), std::move(entry.second));
    }
    // A client's pipe that is about to open needs to know whose it is no more.
    mine.clear();
    theirs.clear();
    for (Session *const session : all) {
        session->OnLinkDown();
    }
    Settle();
    owner.OnPeerDown(*this);
}

void Peer::OnLinkRoom() {
    for (const auto &entry : mine) {
        entry.second.session->OnRoom();
    }
    for (const auto &entry : theirs) {
        entry.second->OnRoom();
    }
}

void Peer::OnItem(Item &item) {
    if (item.kind == ItemKind::OPEN) {
        if (item.opener) {
            Accept(item);
        }
        return;
    }
    Session *const session = Find(item);
    if (session == nullptr) {
        return;
    }
    session->OnItem(item);
    if (session->IsDraining()) {
        Leave(*session);
    }
}

// Its other side is gone. What is left of it keeps nobody on the link: the other bridge, which has nothing of it any
// more, would be taken for dead.
void Peer::Leave(Session &session) {
    left.emplace(&session, Release(session));
    Settle();
}

// From where it is kept.
std::unique_ptr<Session> Peer::Release(Session &session) {
    std::unique_ptr<Session> released;
    if (const auto kept = left.find(&session); kept != left.end()) {
        released = std::move(kept->second);
        left.erase(kept);
    } else if (session.IsOpener()) {
        const auto found = mine.find(session.Number());
        released = std::move(found->second.session);
        mine.erase(found);
    } else {
        const auto found = theirs.find(session.Number());
        released = std::move(found->second);
        theirs.erase(found);
    }
    return released;
}

void Peer::Accept(const Item &item) {
    if (theirs.find(item.session) != theirs.end()) {
        return;
    }
    if (!HasRoom()) {
        if (!refusing) {
            Say(Level::WARNING, "machine '{}' has {} pipes through this bridge; one more is refused", told.machine,
                limits.sessions);
        }
        refusing = true;
        link.Send(Session(item.session, false, limits.window, *this).Closing());
        owner.OnPeerUnsent();
        return;
    }
    Say(Level::INFO, "'{}' of machine '{}' asks for '{}'", item.client, told.machine, item.service);
    auto made = std::make_unique<Session>(item.session, false, limits.window, *this);
    Session &session = *made;
    theirs.emplace(item.session, std::move(made));
    Settle();
    session.Take(owner.ConnectToServer(item.service, item.client, told.machine, session), item.count);
}

Session *Peer::Find(const Item &item) {
    if (item.opener) {
        const auto found = theirs.find(item.session);
        return found == theirs.end() ? nullptr : found->second.get();
    }
    const auto found = mine.find(item.session);
    return found == mine.end() ? nullptr : found->second.session.get();
}

bool Peer::SendItem(Session &session, Item &&item) {
    // One of an earlier link has nobody to tell.
    if (!link.IsUp() || left.find(&session) != left.end()) {
        return true;
    }
    const bool first = !link.HasUnsent();
    link.Send(std::move(item));
    if (first) {
        owner.OnPeerUnsent();
    }
    return !link.IsFull();
}

LocalPipe *Peer::MakeClientPipe(Session &session) {
    const auto found = mine.find(session.Number());
    return found == mine.end() ? nullptr : owner.Local().Accept(found->second.local, found->second.client, session);
}

void Peer::OnSessionOver(Session &session) {
    over.push_back(Release(session));
    Settle();
}

void Peer::Settle() { link.SetBusy(!mine.empty() || !theirs.empty(), owner.Local().NowMs()); }

} // namespace tarvo_bridge
