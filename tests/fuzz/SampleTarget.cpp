// What a bridge makes of samples that somebody writes to its topics: whatever the types of those can hold.
//
// Input: a bundle, then an announcement, each field after the other. What is taken is exactly what the protocol allows,
// and comes back the same when it is written and taken once more.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/Target.h"
#include "network/BundleSample.h"

namespace tarvo_test {
namespace {

using namespace tarvo_bridge;

constexpr unsigned MOST_ITEMS = 256;
constexpr uint32_t MOST_BYTES = 4000;
constexpr unsigned KINDS = 5;

// Of the texts below. BundleSampleTest.cpp shows the verdict on each letter.
bool IsGoodName(const std::string &name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= '0' && letter <= '9') || letter == '_' || letter == '-';
    });
}

// A bundle, and whether it is one.
class Sample {
public:
    explicit Sample(Bytes &bytes) : input(bytes), payload(MOST_BYTES + 1, 'p') {}

    void Fill();
    void Check() const;

private:
    template <std::size_t SIZE>
    void Name(char (&to)[SIZE]);
    void FillOpen(tarvo_bridge_v1_OpenContent &open);
    void FillFrame(tarvo_bridge_v1_FrameContent &frame);
    void FillItem(tarvo_bridge_v1_Item &item);

    Bytes &input;
    std::vector<uint8_t> payload;
    std::vector<tarvo_bridge_v1_Item> items;
    tarvo_bridge_v1_Bundle sample{};
    bool good = true;
};

std::string AnyText(Bytes &input, std::size_t most) {
    switch (input.Below(6)) {
    case 0:
        return "camera";
    case 1:
        return std::string(most, 'n');
    case 2:
        return std::string(input.Below(8), 'v') + "/";
    case 3:
        return std::string(1, static_cast<char>(input.Below(32))) + "v";
    case 4:
        return "";
    default:
        return "viewer;reboot";
    }
}

template <std::size_t SIZE>
void PutName(const std::string &name, char (&to)[SIZE]) {
    std::memset(to, 0, SIZE);
    name.copy(to, SIZE);
}

// What is read of it.
template <std::size_t SIZE>
std::string NameOf(const char (&from)[SIZE]) {
    return {from, strnlen(from, SIZE)};
}

template <std::size_t SIZE>
void Sample::Name(char (&to)[SIZE]) {
    PutName(AnyText(input, SIZE), to);
    good = good && IsGoodName(NameOf(to));
}

void Sample::FillOpen(tarvo_bridge_v1_OpenContent &open) {
    open.window = input.Word();
    Name(open.service);
    Name(open.client);
}

void Sample::FillFrame(tarvo_bridge_v1_FrameContent &frame) {
    frame.id = input.Word();
    frame.type = input.Flag() ? input.Below(4) : UINT32_MAX - input.Below(4);
    frame.timeout = static_cast<int32_t>(input.Word());
    frame.payload._length = input.Flag() ? input.Below(4) : MOST_BYTES - 2 + input.Below(4);
    frame.payload._buffer = input.Below(8) == 0 ? nullptr : payload.data();
    good = good && frame.type <= 1 && frame.payload._length > 0 && frame.payload._length <= MOST_BYTES &&
           frame.payload._buffer != nullptr;
}

void Sample::FillItem(tarvo_bridge_v1_Item &item) {
    item.session = input.Word();
    item.opener = input.Flag();
    item.content._d = static_cast<tarvo_bridge_v1_ItemKind>(input.Below(8)); // all that the type can have in C++
    switch (item.content._d) {
    case tarvo_bridge_v1_ITEM_OPEN:
        FillOpen(item.content._u.open);
        break;
    case tarvo_bridge_v1_ITEM_FRAME:
        FillFrame(item.content._u.frame);
        break;
    default:
        item.content._u.frames = input.Word();
        good = good && static_cast<unsigned>(item.content._d) < KINDS;
    }
}

void Sample::Fill() {
    sample.from = input.Word();
    sample.to = input.Word();
    sample.mine = input.Word();
    sample.theirs = input.Word();
    sample.confirmed = input.Flag();
    sample.position = input.Word();
    items.resize(input.Flag() ? input.Below(6) : MOST_ITEMS - 2 + input.Below(6));
    for (tarvo_bridge_v1_Item &item : items) {
        item.content._d = tarvo_bridge_v1_ITEM_CLOSE;
        if (!input.Empty()) {
            FillItem(item);
        }
    }
    sample.items._length = static_cast<uint32_t>(items.size());
    sample.items._buffer = items.data();
    good = good && items.size() <= MOST_ITEMS;
}

bool IsSame(const Item &one, const Item &other) {
    return one.kind == other.kind && one.session == other.session && one.opener == other.opener &&
           one.count == other.count && one.service == other.service && one.client == other.client &&
           one.id == other.id && one.type == other.type && one.timeout == other.timeout && one.payload == other.payload;
}

void Sample::Check() const {
    Bundle bundle;
    Require(TakeBundle(sample, bundle) == good, "a bundle is taken if all of it is as the protocol has it");
    if (!good) {
        return;
    }
    Require(bundle.items.size() == items.size(), "each item is taken");
    for (Item &item : bundle.items) {
        // A field that is full has no place for its end; nobody who means well fills it.
        item.service = item.service.substr(0, 100);
        item.client = item.client.substr(0, 110);
    }
    BundleSample writing;
    Bundle again;
    Require(TakeBundle(writing.Of(bundle), again), "what was taken can be written and taken again");
    Require(again.from == bundle.from && again.to == bundle.to && again.mine == bundle.mine &&
                again.theirs == bundle.theirs && again.confirmed == bundle.confirmed &&
                again.sequence == bundle.sequence &&
                std::equal(again.items.begin(), again.items.end(), bundle.items.begin(), bundle.items.end(), IsSame),
            "and is the same then");
}

void CheckAnnouncement(Bytes &input) {
    tarvo_bridge_v1_Announcement sample{};
    sample.run = input.Below(2);
    sample.version = input.Word();
    PutName(AnyText(input, sizeof(sample.machine)), sample.machine);
    char texts[8][101];
    std::vector<std::string> expected;
    const unsigned count = input.Below(8);
    for (unsigned i = 0; i < count; ++i) {
        PutName(AnyText(input, sizeof(texts[i])), texts[i]);
        if (IsGoodName(NameOf(texts[i]))) {
            expected.push_back(NameOf(texts[i]));
        }
    }
    sample.services._length = count;
    sample.services._buffer = texts;
    sample.names = sample.services;
    Announcement announcement;
    const bool taken = TakeAnnouncement(sample, announcement);
    Require(taken == (sample.run != 0 && IsGoodName(NameOf(sample.machine))),
            "who has a run and a name is heard, and nobody else");
    Require(announcement.services == expected && announcement.names == expected,
            "of what it tells, the names that are");
}

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    Bytes input(data, size);
    Sample sample(input);
    sample.Fill();
    sample.Check();
    CheckAnnouncement(input);
    return 0;
}
