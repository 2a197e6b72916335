#include "core/PeerLink.h"

#include <algorithm>
#include <utility>

namespace tarvo_bridge {
namespace {

constexpr int64_t GREETING_INTERVAL_MS = 50;
// After the network had no room.
constexpr int64_t RETRY_MS = 1;
// Of beginnings of links.
constexpr uint32_t HIGHEST_COUNT = 0x7FFFFFFF;
// A bundle travels in one piece of the network up to about this size.
constexpr std::size_t BUNDLE_BYTES = 16000;
// What waits for a network that takes no more: from the first of them on no pipe is read; what another bridge can make
// this one send all the same ends the link at the second.
constexpr std::size_t FULL_BYTES = 8 << 20;
constexpr std::size_t MOST_BYTES = 4 * FULL_BYTES;

std::size_t Cost(const Item &item) { return sizeof(Item) + item.payload.size(); }

} // namespace

PeerLink::~PeerLink() {
    if (connected) {
        network.Disconnect(ends.peer);
    }
}

void PeerLink::Connect() {
    // What refuses is asked again with the next greeting.
    connected = connected || network.Connect(ends.peer);
}

void PeerLink::Begin(int64_t now) {
    if (state != State::IDLE) {
        return;
    }
    Connect();
    state = State::GREETING;
    Greet(now);
}

void PeerLink::OnAnnounced(int64_t now) {
    if (wasUsed) {
        Begin(now);
    }
}

void PeerLink::OnLost() {
    Restart(State::IDLE, "its bridge is gone");
    if (connected) {
        // What the network still holds for it is for nobody.
        network.Disconnect(ends.peer);
        connected = false;
    }
}

// Whatever comes of the link as it was is not meant for the next one.
void PeerLink::Restart(State next, const char *why) {
    const bool wasUp = state == State::UP;
    state = next;
    // From below again after the highest: whoever has heard that forgets it when nothing else comes.
    mine = std::max(mine < HIGHEST_COUNT ? mine + 1 : 1, ++beginnings);
    theirs = 0;
    sent = 0;
    received = 0;
    unsent.clear();
    unsentBytes = 0;
    full = false;
    nextFlush = NEVER;
    nextGreeting = NEVER;
    if (wasUp) {
        listener.OnLinkDown(why);
    }
}

void PeerLink::Send(Item &&item) {
    unsentBytes += Cost(item);
    full = full || unsentBytes > FULL_BYTES;
    unsent.push_back(std::move(item));
}

// How many items are in it.
std::size_t PeerLink::FillBundle() {
    std::size_t bytes = 0;
    std::size_t count = 0;
    while (count < unsent.size() && count < MAX_ITEMS &&
           (count == 0 || bytes + unsent[count].payload.size() < BUNDLE_BYTES)) {
        bytes += unsent[count].payload.size();
        unsentBytes -= Cost(unsent[count]);
        ++count;
    }
    outgoing.from = ends.self;
    outgoing.to = ends.peer;
    outgoing.mine = mine;
    outgoing.theirs = theirs;
    outgoing.confirmed = true;
    outgoing.sequence = sent + 1;
    const auto end = unsent.begin() + static_cast<std::ptrdiff_t>(count);
    outgoing.items.assign(std::make_move_iterator(unsent.begin()), std::make_move_iterator(end));
    return count;
}

void PeerLink::Flush(int64_t now) {
    nextFlush = NEVER;
    while (!unsent.empty() && state == State::UP) {
        const std::size_t count = FillBundle();
        if (!network.Send(outgoing)) {
            TakeBack();
            nextFlush = now + RETRY_MS;
            break;
        }
        unsent.erase(unsent.begin(), unsent.begin() + static_cast<std::ptrdiff_t>(count));
        ++sent;
    }
    if (full && unsentBytes <= FULL_BYTES / 2) {
        full = false;
        listener.OnLinkRoom();
    }
}

// What found no room.
void PeerLink::TakeBack() {
    for (const Item &item : outgoing.items) {
        unsentBytes += Cost(item);
    }
    std::move(outgoing.items.begin(), outgoing.items.end(), unsent.begin());
}

void PeerLink::Greet(int64_t now) {
    if (state == State::GREETING && now >= lastHeard + lease) {
        // What was heard may not have been the peer, which would not follow.
        theirs = 0;
    }
    Bundle greeting;
    greeting.from = ends.self;
    greeting.to = ends.peer;
    greeting.mine = mine;
    greeting.theirs = theirs;
    greeting.confirmed = state == State::UP;
    greeting.sequence = sent;
    Connect();
    // One that finds no room is sent again.
    network.Send(greeting);
    if (state == State::GREETING) {
        nextGreeting = now + GREETING_INTERVAL_MS;
    } else {
        nextGreeting = state == State::UP && busy ? now + lease / 3 : NEVER;
    }
}

void PeerLink::SetBusy(bool isBusy, int64_t now) {
    if (busy == isBusy) {
        return;
    }
    busy = isBusy;
    if (state == State::UP) {
        lastHeard = now;
        nextGreeting = busy ? now + lease / 3 : NEVER;
    }
}

bool PeerLink::BringUp(const Bundle &bundle, int64_t now) {
    if (bundle.theirs != mine || state == State::UP) {
        return false;
    }
    state = State::UP;
    wasUsed = true;
    lastHeard = now;
    nextGreeting = busy ? now + lease / 3 : NEVER;
    return true;
}

void PeerLink::OnBundle(Bundle &bundle, int64_t now) {
    if (bundle.to != ends.self || bundle.from != ends.peer || bundle.mine == 0 || bundle.mine > HIGHEST_COUNT ||
        bundle.theirs > HIGHEST_COUNT) {
        return;
    }
    if (bundle.theirs > mine) {
        if (bundle.theirs == HIGHEST_COUNT) {
            return; // nothing exceeds it; the peer will forget it
        }
        // Somebody has spoken in this one's name. The peer hears higher counts only: this comes first, since somebody
        // may have spoken in the peer's name, too, and each would tell the other for ever that it is not heard. Of this
        // link only: what one peer says must not use up the counts of the others.
        const uint32_t heard = std::max(theirs, bundle.mine);
        mine = bundle.theirs;
        Restart(State::GREETING, "somebody else has spoken for this bridge");
        theirs = heard;
        Greet(now);
        return;
    }
    if (theirs != 0 && bundle.mine < theirs && now < lastHeard + lease) {
        // Of a link that is over; or else the peer needs to know which count it has to exceed.
        Greet(now);
        return;
    }
    lastHeard = now;
    if (state == State::UP && bundle.mine != theirs) {
        // The peer has begun anew. As long as nothing has been sent its new count is all that matters: two sides that
        // both began anew at each other's news would never come to an end.
        Restart(State::GREETING, "its bridge has lost this one and begins anew");
    }
    theirs = bundle.mine;
    if (bundle.items.empty()) {
        OnGreeting(bundle, now);
    } else {
        OnItems(bundle, now);
    }
}

bool PeerLink::IsNext(const Bundle &bundle) const {
    return state == State::UP && bundle.to == ends.self && bundle.mine == theirs && bundle.theirs == mine &&
           bundle.sequence == received + 1;
}

void PeerLink::OnGreeting(const Bundle &bundle, int64_t now) {
    if (state == State::IDLE) {
        state = State::GREETING;
    }
    if (BringUp(bundle, now)) {
        // Before anything else is sent, so that the peer's first answer finds the link up.
        Greet(now);
        listener.OnLinkUp();
        return;
    }
    if (bundle.theirs != mine || !bundle.confirmed) {
        Greet(now);
        return;
    }
    if (bundle.sequence > received) {
        OnMissing(now);
    }
}

void PeerLink::OnItems(Bundle &bundle, int64_t now) {
    if (bundle.theirs != mine) {
        // The peer has not heard yet that this side has begun anew.
        if (state == State::IDLE) {
            Begin(now);
        } else if (nextGreeting == NEVER || now >= nextGreeting) {
            Greet(now);
        }
        return;
    }
    if (BringUp(bundle, now)) {
        listener.OnLinkUp();
    }
    if (bundle.sequence <= received) {
        return; // a repetition
    }
    if (bundle.sequence != received + 1) {
        OnMissing(now);
        return;
    }
    ++received;
    const uint32_t beginning = mine;
    for (Item &item : bundle.items) {
        if (mine != beginning) {
            return;
        }
        listener.OnItem(item);
    }
}

void PeerLink::OnMissing(int64_t now) {
    Restart(State::GREETING, "messages are missing");
    Greet(now);
}

int64_t PeerLink::Due() const {
    const int64_t silent = state == State::UP && busy ? lastHeard + lease : NEVER;
    return std::min({nextGreeting, nextFlush, silent});
}

void PeerLink::OnTime(int64_t now) {
    if (unsentBytes > MOST_BYTES) {
        Restart(State::GREETING, "it takes nothing");
        Greet(now);
        return;
    }
    if (state == State::UP && busy && now >= lastHeard + lease) {
        Restart(State::GREETING, "nothing is heard from there");
        Greet(now);
        return;
    }
    if (now >= nextGreeting) {
        Greet(now);
    }
    if (now >= nextFlush) {
        Flush(now);
    }
}

} // namespace tarvo_bridge
