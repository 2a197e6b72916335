#include "core/Session.h"

#include <algorithm>
#include <utility>

#include "core/Report.h"

namespace tarvo_bridge {

Session::~Session() {
    if (pipe != nullptr) {
        pipe->Close();
    }
}

Item Session::Make(ItemKind kind, uint32_t count) const {
    Item item;
    item.kind = kind;
    item.session = number;
    item.opener = opener;
    item.count = count;
    return item;
}

void Session::Ask(const std::string &service, const std::string &client) {
    state = State::ASKED;
    Item item = Make(ItemKind::OPEN, window);
    item.service = service;
    item.client = client;
    owner.SendItem(*this, std::move(item));
}

void Session::Take(LocalPipe *serverPipe, uint32_t firstCredit) {
    state = State::OPENING;
    credit = std::clamp(firstCredit, 1U, LARGEST_WINDOW);
    pipe = serverPipe;
    if (pipe == nullptr) {
        Refuse();
    }
}

void Session::OnItem(Item &item) {
    if (state == State::OVER || state == State::DRAINING) {
        return;
    }
    switch (item.kind) {
    case ItemKind::OPENED:
        OnOpened(item);
        break;
    case ItemKind::FRAME:
        OnFrame(item);
        break;
    case ItemKind::CREDIT:
        OnCredit(item.count);
        break;
    case ItemKind::CLOSE:
        Drain();
        break;
    case ItemKind::OPEN:
        break;
    }
}

void Session::OnOpened(const Item &item) {
    if (state != State::ASKED) {
        return;
    }
    state = State::OPENING;
    credit = std::clamp(item.count, 1U, LARGEST_WINDOW);
    pipe = owner.MakeClientPipe(*this);
    if (pipe == nullptr) {
        Refuse();
    }
}

void Session::OnFrame(Item &item) {
    if (state != State::OPENING && state != State::OPEN) {
        return;
    }
    if (frames.size() >= window || item.payload.empty()) {
        Say(Level::WARNING, "another bridge has sent more than it may; the pipe is closed");
        Refuse();
        return;
    }
    frames.push_back(std::move(item));
    Deliver();
}

void Session::OnCredit(uint32_t count) {
    if (state != State::OPEN) {
        return;
    }
    const bool waited = credit == 0;
    credit = std::min(credit + std::min(count, LARGEST_WINDOW), LARGEST_WINDOW);
    if (waited && credit > 0) {
        pipe->Resume();
    }
}

void Session::OnPipeOpen() {
    if (state != State::OPENING && state != State::DRAINING) {
        return;
    }
    if (state == State::OPENING) {
        state = State::OPEN;
        if (!opener) {
            owner.SendItem(*this, Make(ItemKind::OPENED, window));
        }
    }
    Deliver();
}

void Session::OnPipeFailed(int /*result*/) { Refuse(); }

void Session::OnPipeFrame(const FrameBytes &frame) {
    if (state != State::OPEN) {
        return; // the other side is gone
    }
    Item item = Make(ItemKind::FRAME, 0);
    item.id = frame.id;
    item.type = frame.type;
    item.timeout = frame.timeout;
    item.payload.assign(frame.payload);
    --credit;
    if (!owner.SendItem(*this, std::move(item)) || credit == 0) {
        pipe->Pause();
    }
}

void Session::OnRoom() {
    if (state == State::OPEN && credit > 0) {
        pipe->Resume();
    }
}

void Session::OnPipeWritable() { Deliver(); }

void Session::OnPipeGone() { Refuse(); }

void Session::Deliver() {
    if (state != State::OPEN && state != State::DRAINING) {
        return;
    }
    while (!frames.empty()) {
        const Item &frame = frames.front();
        if (!pipe->Write({frame.id, frame.type, frame.timeout, frame.payload})) {
            break;
        }
        frames.pop_front();
        ++delivered;
    }
    if (state == State::OPEN) {
        GrantWhatIsDue();
    } else if (frames.empty() && pipe->Flush()) {
        Finish();
    }
}

// Not one by one: half a window is enough for the other side to go on, and costs a fraction of the messages.
void Session::GrantWhatIsDue() {
    if (delivered >= std::max(window / 2, 1U)) {
        owner.SendItem(*this, Make(ItemKind::CREDIT, delivered));
        delivered = 0;
    }
}

// What has come is delivered before the pipe is closed, and a client whose pipe is about to open sees it open and
// close.
void Session::Drain() {
    if (state == State::OPENING && opener) {
        state = State::DRAINING;
    } else if (state == State::OPEN) {
        state = State::DRAINING;
        Deliver();
    } else {
        Finish();
    }
}

void Session::OnLinkDown() {
    if (state != State::OVER && state != State::DRAINING) {
        Drain();
    }
}

// The other side is told.
void Session::Refuse() {
    if (state == State::OVER) {
        return;
    }
    if (state != State::DRAINING) {
        owner.SendItem(*this, Make(ItemKind::CLOSE, 0));
    }
    Finish();
}

void Session::Finish() {
    state = State::OVER;
    frames.clear();
    if (pipe != nullptr) {
        pipe->Close();
        pipe = nullptr;
    }
    owner.OnSessionOver(*this);
}

} // namespace tarvo_bridge
