#include "network/BundleSample.h"

#include <algorithm>
#include <cstring>

#include "api/tarvo_check.h"

namespace tarvo_bridge {
namespace {

constexpr uint32_t MAX_PAYLOAD = 4000;
constexpr uint32_t RESPONSE = 1;

template <std::size_t SIZE>
void Copy(const std::string &from, char (&to)[SIZE]) {
    const std::size_t size = from.size() < SIZE ? from.size() : SIZE - 1;
    std::memcpy(to, from.data(), size);
    to[size] = 0;
}

template <std::size_t SIZE>
std::string Text(const char (&from)[SIZE]) {
    return {from, strnlen(from, SIZE)};
}

void FillContent(const Item &item, tarvo_bridge_v1_ItemContent &content) {
    switch (item.kind) {
    case ItemKind::OPEN:
        content._d = tarvo_bridge_v1_ITEM_OPEN;
        content._u.open.window = item.count;
        Copy(item.service, content._u.open.service);
        Copy(item.client, content._u.open.client);
        break;
    case ItemKind::OPENED:
        content._d = tarvo_bridge_v1_ITEM_OPENED;
        content._u.window = item.count;
        break;
    case ItemKind::FRAME:
        content._d = tarvo_bridge_v1_ITEM_FRAME;
        content._u.frame.id = item.id;
        content._u.frame.type = item.type;
        content._u.frame.timeout = item.timeout;
        content._u.frame.payload._length = static_cast<uint32_t>(item.payload.size());
        content._u.frame.payload._maximum = content._u.frame.payload._length;
        content._u.frame.payload._release = false;
        // The DDS only reads it.
        content._u.frame.payload._buffer =
            reinterpret_cast<uint8_t *>(const_cast<char *>(item.payload.data())); // NOLINT
        break;
    case ItemKind::CREDIT:
        content._d = tarvo_bridge_v1_ITEM_CREDIT;
        content._u.frames = item.count;
        break;
    case ItemKind::CLOSE:
        content._d = tarvo_bridge_v1_ITEM_CLOSE;
        content._u.reason = 0;
        break;
    }
}

// A name that may become part of a file's.
bool IsName(const std::string &name) {
    const auto isControl = [](unsigned char letter) { return letter < 0x20 || letter == 0x7f; };
    return !name.empty() && name.find('/') == std::string::npos && !BlackListCheck(name.c_str()) &&
           std::none_of(name.begin(), name.end(), isControl);
}

bool TakeFrame(const tarvo_bridge_v1_FrameContent &frame, Item &item) {
    const uint32_t size = frame.payload._length;
    if (size == 0 || size > MAX_PAYLOAD || frame.type > RESPONSE || frame.payload._buffer == nullptr) {
        return false;
    }
    item.kind = ItemKind::FRAME;
    item.id = frame.id;
    item.type = frame.type;
    item.timeout = frame.timeout;
    item.payload.assign(reinterpret_cast<const char *>(frame.payload._buffer), size);
    return true;
}

bool TakeItem(const tarvo_bridge_v1_Item &from, Item &item) {
    item.session = from.session;
    item.opener = from.opener;
    const tarvo_bridge_v1_ItemContent &content = from.content;
    switch (content._d) {
    case tarvo_bridge_v1_ITEM_OPEN:
        item.kind = ItemKind::OPEN;
        item.count = content._u.open.window;
        item.service = Text(content._u.open.service);
        item.client = Text(content._u.open.client);
        return IsName(item.service) && IsName(item.client);
    case tarvo_bridge_v1_ITEM_OPENED:
        item.kind = ItemKind::OPENED;
        item.count = content._u.window;
        return true;
    case tarvo_bridge_v1_ITEM_FRAME:
        return TakeFrame(content._u.frame, item);
    case tarvo_bridge_v1_ITEM_CREDIT:
        item.kind = ItemKind::CREDIT;
        item.count = content._u.frames;
        return true;
    case tarvo_bridge_v1_ITEM_CLOSE:
        item.kind = ItemKind::CLOSE;
        return true;
    }
    return false;
}

std::vector<std::string> TakeNames(const dds_sequence_string100 &names) {
    std::vector<std::string> taken;
    for (uint32_t i = 0; i < names._length; ++i) {
        std::string name = Text(names._buffer[i]);
        if (IsName(name)) {
            taken.push_back(std::move(name));
        }
    }
    return taken;
}

} // namespace

const tarvo_bridge_v1_Bundle &BundleSample::Of(const Bundle &bundle) {
    items.resize(bundle.items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        items[i].session = bundle.items[i].session;
        items[i].opener = bundle.items[i].opener;
        FillContent(bundle.items[i], items[i].content);
    }
    sample.from = bundle.from;
    sample.to = bundle.to;
    sample.mine = bundle.mine;
    sample.theirs = bundle.theirs;
    sample.confirmed = bundle.confirmed;
    sample.position = bundle.sequence;
    sample.items._length = static_cast<uint32_t>(items.size());
    sample.items._maximum = sample.items._length;
    sample.items._release = false;
    sample.items._buffer = items.data();
    return sample;
}

bool TakeBundle(const tarvo_bridge_v1_Bundle &sample, Bundle &bundle) {
    bundle.from = sample.from;
    bundle.to = sample.to;
    bundle.mine = sample.mine;
    bundle.theirs = sample.theirs;
    bundle.confirmed = sample.confirmed;
    bundle.sequence = sample.position;
    if (sample.items._length > MAX_ITEMS) {
        return false;
    }
    bundle.items.resize(sample.items._length);
    for (uint32_t i = 0; i < sample.items._length; ++i) {
        if (!TakeItem(sample.items._buffer[i], bundle.items[i])) {
            return false;
        }
    }
    return true;
}

bool TakeAnnouncement(const tarvo_bridge_v1_Announcement &sample, Announcement &announcement) {
    announcement.run = sample.run;
    announcement.version = sample.version;
    announcement.machine = Text(sample.machine);
    announcement.services = TakeNames(sample.services);
    announcement.names = TakeNames(sample.names);
    return sample.run != 0 && IsName(announcement.machine);
}

} // namespace tarvo_bridge
