#include "loop/FrameReader.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "diag/velm_syslog.h"
#include "loop/FrameView.h"
#include "pipe/MagicReceiver.h"
#include "stats/Stats.h"

namespace {

constexpr char LOG_TAG[] = "FrameReader";
// The room that is kept for the next rest of a read, so that a stream of small frames needs no memory for each.
constexpr std::size_t KEPT_STASH = 4096;

MsgHead HeadAt(const char *bytes) {
    MsgHead head;
    std::memcpy(&head, bytes, sizeof(head));
    return head;
}

} // namespace

void FrameReader::Feed(const char *bytes, std::size_t size) {
    unread = bytes;
    end = bytes + size;
    if (stash.capacity() > KEPT_STASH) {
        std::string().swap(stash);
    } else {
        stash.clear();
    }
}

bool FrameReader::Next(Frame &frame) {
    if (!HasNext()) {
        return false;
    }
    frame = found;
    ++sum.frames;
    sum.bytes += found.size;
    held = false;
    return true;
}

bool FrameReader::HasNext() {
    held = held || Find();
    return held;
}

bool FrameReader::Stash() {
    if (!HasUnread() || !stash.empty()) {
        return true;
    }
    // Its payload is what stands before the unread bytes, unless it has been put together in the carry.
    const bool withHeld = held && !foundInCarry;
    try {
        stash.assign(withHeld ? found.data : unread, end);
    } catch (const std::bad_alloc &) {
        return false;
    }
    unread = stash.data();
    end = unread + stash.size();
    if (withHeld) {
        found.data = unread;
        unread += found.size;
    }
    return true;
}

void FrameReader::End() {
    if (carried == 0) {
        return;
    }
    const bool hasHead = carried >= sizeof(MsgHead);
    const std::size_t received = hasHead ? carried - sizeof(MsgHead) : carried;
    const std::size_t expected = hasHead ? HeadAt(carry.data()).payloadLen : sizeof(MsgHead);
    TARVO_LOG(LOG_ERR, "The readFd(%d) read size %ld instead of %lu, errno = %d, remoteName: %s", origin.readFd,
              static_cast<long>(received), expected, 0, origin.remote.c_str());
    CountBad(TARVO_STATS_BAD_SHORT);
    carried = 0;
}

bool FrameReader::Find() {
    while (unread != end) {
        foundInCarry = carried > 0;
        if (foundInCarry ? FindInCarry() : FindInUnread()) {
            return true;
        }
    }
    return false;
}

// The frame that an earlier read has begun.
bool FrameReader::FindInCarry() {
    if (!Carry(sizeof(MsgHead))) {
        return false;
    }
    const MsgHead head = HeadAt(carry.data());
    if (!HeadValid(head)) {
        carried = 0;
        return false;
    }
    if (!Carry(sizeof(head) + head.payloadLen)) {
        return false;
    }
    carried = 0;
    return Accept(head, carry.data() + sizeof(head));
}

bool FrameReader::FindInUnread() {
    const auto left = static_cast<std::size_t>(end - unread);
    if (left < sizeof(MsgHead)) {
        CarryRest();
        return false;
    }
    const MsgHead head = HeadAt(unread);
    if (!HeadValid(head)) {
        unread += sizeof(head);
        return false;
    }
    if (left - sizeof(head) < head.payloadLen) {
        CarryRest();
        return false;
    }
    const char *const payload = unread + sizeof(head);
    unread = payload + head.payloadLen;
    return Accept(head, payload);
}

// Makes the carry `size` bytes long, as far as there are bytes for that.
bool FrameReader::Carry(std::size_t size) {
    if (carried < size) {
        const std::size_t count = std::min(size - carried, static_cast<std::size_t>(end - unread));
        std::memcpy(carry.data() + carried, unread, count);
        carried += count;
        unread += count;
    }
    return carried >= size;
}

bool FrameReader::HeadValid(const MsgHead &head) const {
    if (head.magic != MagicReceiver::MAGIC) {
        TARVO_LOG(LOG_ERR, "RecvMagic, result != MAGIC_OK, remote(%s), result=%u.", origin.remote.c_str(), head.magic);
        CountBad(TARVO_STATS_BAD_MAGIC);
        return false;
    }
    if (!FrameView(head.id, head.type, nullptr, head.payloadLen).SizeValid()) {
        TARVO_LOG(LOG_ERR, "Input addrress is nullptr");
        TARVO_LOG(LOG_ERR,
                  "Recv msg failed, remote(%s), received payloadLen should be %u, received timeout = %d ms, received "
                  "writeStartTime = %ld, ret = %d",
                  origin.remote.c_str(), head.payloadLen, head.timeout, head.writeStartTime, -1);
        CountBad(TARVO_STATS_BAD_LENGTH);
        return false;
    }
    return true;
}

bool FrameReader::Accept(const MsgHead &head, const char *payload) {
    const uint32_t checksum = FrameView(head.id, head.type, payload, head.payloadLen).Checksum();
    if (checksum != head.checksum) {
        TARVO_LOG(LOG_ERR, "Recv msg failed, send checksum = %u, but recv checksum = %u for readFd(%d) remote(%s)",
                  head.checksum, checksum, origin.readFd, origin.remote.c_str());
        CountBad(TARVO_STATS_BAD_CHECKSUM);
        return false;
    }
    if (head.type != MSG_TYPE_REQUEST && head.type != MSG_TYPE_RESPONSE) {
        CountBad(TARVO_STATS_BAD_KIND);
        return false;
    }
    found = {head.id, static_cast<MsgType>(head.type), head.timeout, head.writeStartTime, payload, head.payloadLen};
    return true;
}

void FrameReader::CountBad(uint32_t reason) const {
    if (origin.bad != nullptr) {
        Stats::CountAlone(origin.bad[reason]);
    }
}

// The next frame from `at` on, which it moves behind that.
bool FrameReader::FrameInRest(std::size_t &at, Frame &frame) const {
    while (RestSize() - at >= sizeof(MsgHead)) {
        MsgHead head;
        const std::size_t before = at < carried ? std::min(carried - at, sizeof(head)) : 0;
        char *const bytes = reinterpret_cast<char *>(&head);
        std::memcpy(bytes, carry.data() + (before > 0 ? at : 0), before);
        if (before < sizeof(head)) {
            std::memcpy(bytes + before, unread + (at + before - carried), sizeof(head) - before);
        }
        at += sizeof(head);
        const bool good = head.magic == MagicReceiver::MAGIC && head.type <= MSG_TYPE_RESPONSE &&
                          FrameView(head.id, head.type, nullptr, head.payloadLen).SizeValid();
        if (!good) {
            continue;
        }
        if (RestSize() - at < head.payloadLen) {
            return false;
        }
        at += head.payloadLen;
        frame = {head.id, static_cast<MsgType>(head.type), head.timeout, head.writeStartTime, nullptr, head.payloadLen};
        return true;
    }
    return false;
}
