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

} // namespace

Peer::Peer(RunId self, Announcement first, Limits peerLimits, uint32_t &beginnings, Network &network, Owner &peerOwner)
    : told(std::move(first)), limits(peerLimits), owner(peerOwner),
      link({self, told.run}, peerLimits.leaseMs, beginnings, network, *this) {}

void Peer::Open(const std::string &service, const std::string &local, const LocalClient &client) {
    const bool opening = std::any_of(mine.begin(), mine.end(), [&](const auto &entry) {
        return entry.second.local == local && entry.second.client.name == client.name &&
               entry.second.session->IsOpening();
    });
    if (opening) {
        return; // it has announced itself again
    }
    const uint32_t number = ++lastNumber;
    auto made = std::make_unique<Session>(number, true, limits.window, *this);
    Session &session = *made;
    mine.emplace(number, Client{local, client, std::move(made)});
    Settle();
    session.Ask(service, Shown(client.name));
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

void Peer::OnItem(Item &item) {
    if (item.kind == ItemKind::OPEN) {
        if (item.opener) {
            Accept(item);
        }
        return;
    }
    Session *const session = Find(item);
    if (session != nullptr) {
        session->OnItem(item);
    }
}

void Peer::Accept(const Item &item) {
    if (theirs.find(item.session) != theirs.end()) {
        return;
    }
    if (Sessions() >= limits.sessions) {
        Say(Level::WARNING, "machine '{}' has {} pipes through this bridge; one more is refused", told.machine,
            limits.sessions);
        link.Send(Session(item.session, false, limits.window, *this).Closing());
        owner.OnPeerUnsent();
        return;
    }
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

void Peer::SendItem(Session &session, Item &&item) {
    // One of an earlier link has nobody to tell.
    if (!link.IsUp() || left.find(&session) != left.end()) {
        return;
    }
    const bool first = !link.HasUnsent();
    link.Send(std::move(item));
    if (first) {
        owner.OnPeerUnsent();
    }
}

LocalPipe *Peer::MakeClientPipe(Session &session) {
    const auto found = mine.find(session.Number());
    return found == mine.end() ? nullptr : owner.Local().Accept(found->second.local, found->second.client, session);
}

void Peer::OnSessionOver(Session &session) {
    const auto kept = left.find(&session);
    if (kept != left.end()) {
        over.push_back(std::move(kept->second));
        left.erase(kept);
        return;
    }
    if (session.IsOpener()) {
        const auto found = mine.find(session.Number());
        over.push_back(std::move(found->second.session));
        mine.erase(found);
    } else {
        const auto found = theirs.find(session.Number());
        over.push_back(std::move(found->second));
        theirs.erase(found);
    }
    Settle();
}

void Peer::Settle() { link.SetBusy(Sessions() > 0, owner.Local().NowMs()); }

} // namespace tarvo_bridge
