// What is made of samples that strangers can write: whatever the types of the topics can hold.
#include "network/BundleSample.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace tarvo_test {
namespace {

using tarvo_bridge::Announcement;
using tarvo_bridge::Bundle;
using tarvo_bridge::BundleSample;
using tarvo_bridge::Item;
using tarvo_bridge::ItemKind;
using tarvo_bridge::TakeAnnouncement;
using tarvo_bridge::TakeBundle;

template <std::size_t SIZE>
void PutText(const std::string &text, char (&to)[SIZE]) {
    std::memset(to, 0, SIZE);
    text.copy(to, SIZE);
}

// What no name may be: it could become part of a file's, or of a line in a log.
const std::vector<std::string> &NoNames() {
    static const std::vector<std::string> names{"",   "/",    "a/b",   "../a", "a|b",  "a;b",       "a`b", "a>b",
                                                "\n", "a\nb", "a\x1f", "\x01", "\x7f", "a\x1b[31m", "a\tb"};
    return names;
}

class BundleSampleTest : public testing::Test {
protected:
    static constexpr uint32_t ROOM = 4001;

    BundleSampleTest() {
        items.resize(257);
        for (tarvo_bridge_v1_Item &item : items) {
            item.content._d = tarvo_bridge_v1_ITEM_CLOSE;
        }
        sample.from = 1;
        sample.to = 2;
        sample.items._buffer = items.data();
        sample.items._length = 1;
    }

    tarvo_bridge_v1_ItemContent &Content() { return items[0].content; }
    void PutOpen(const std::string &service, const std::string &client) {
        Content() = {};
        Content()._d = tarvo_bridge_v1_ITEM_OPEN;
        Content()._u.open.window = 7;
        PutText(service, Content()._u.open.service);
        PutText(client, Content()._u.open.client);
    }
    void PutFrame(uint32_t type, uint32_t size) {
        Content() = {};
        Content()._d = tarvo_bridge_v1_ITEM_FRAME;
        Content()._u.frame.id = 5;
        Content()._u.frame.type = type;
        Content()._u.frame.timeout = -1;
        Content()._u.frame.payload._length = size;
        Content()._u.frame.payload._buffer = bytes.data();
    }
    bool IsTaken() { return TakeBundle(sample, bundle); }

    std::vector<tarvo_bridge_v1_Item> items;
    std::array<uint8_t, ROOM> bytes{'p'};
    tarvo_bridge_v1_Bundle sample{};
    Bundle bundle;
};

TEST_F(BundleSampleTest, WhatABridgeSaysIsTakenAsItWas) {
    Bundle told;
    told.from = UINT64_MAX;
    told.to = 3;
    told.mine = 4;
    told.theirs = 5;
    told.confirmed = true;
    told.sequence = 6;
    told.items.resize(5);
    for (std::size_t i = 0; i < told.items.size(); ++i) {
        told.items[i].kind = static_cast<ItemKind>(i);
        told.items[i].session = static_cast<uint32_t>(10 + i);
        told.items[i].opener = i % 2 == 0;
    }
    told.items[0].count = 7;
    told.items[0].service = std::string(100, 's');
    told.items[0].client = std::string(110, 'c');
    told.items[1].count = 8;
    told.items[2].id = 9;
    told.items[2].type = 1;
    told.items[2].timeout = -1;
    told.items[2].payload = std::string("\0payload", 8);
    told.items[3].count = UINT32_MAX;
    BundleSample writing;
    ASSERT_TRUE(TakeBundle(writing.Of(told), bundle));
    EXPECT_EQ(bundle.from, told.from);
    EXPECT_EQ(bundle.to, told.to);
    EXPECT_EQ(bundle.mine, told.mine);
    EXPECT_EQ(bundle.theirs, told.theirs);
    EXPECT_TRUE(bundle.confirmed);
    EXPECT_EQ(bundle.sequence, told.sequence);
    ASSERT_EQ(bundle.items.size(), told.items.size());
    for (std::size_t i = 0; i < told.items.size(); ++i) {
        const Item &item = bundle.items[i];
        EXPECT_EQ(item.kind, told.items[i].kind);
        EXPECT_EQ(item.session, told.items[i].session);
        EXPECT_EQ(item.opener, told.items[i].opener);
        EXPECT_EQ(item.count, told.items[i].count);
        EXPECT_EQ(item.service, told.items[i].service);
        EXPECT_EQ(item.client, told.items[i].client);
        EXPECT_EQ(item.id, told.items[i].id);
        EXPECT_EQ(item.type, told.items[i].type);
        EXPECT_EQ(item.timeout, told.items[i].timeout);
        EXPECT_EQ(item.payload, told.items[i].payload);
    }
}

TEST_F(BundleSampleTest, NoMoreItemsAreTakenThanABundleHolds) {
    for (const uint32_t count : {0U, 1U, 256U}) {
        sample.items._length = count;
        ASSERT_TRUE(IsTaken()) << count;
        EXPECT_EQ(bundle.items.size(), count);
    }
    for (const uint32_t count : {257U, UINT32_MAX}) {
        sample.items._length = count;
        EXPECT_FALSE(IsTaken()) << count;
    }
}

TEST_F(BundleSampleTest, OneBadItemRefusesTheBundle) {
    sample.items._length = 256;
    ASSERT_TRUE(IsTaken());
    items[255].content._d = tarvo_bridge_v1_ITEM_FRAME;
    EXPECT_FALSE(IsTaken());
}

TEST_F(BundleSampleTest, UnknownKindOfItemIsRefused) {
    // The others that this type can have in C++.
    for (const int kind : {5, 6, 7}) {
        Content()._d = static_cast<tarvo_bridge_v1_ItemKind>(kind);
        EXPECT_FALSE(IsTaken()) << kind;
    }
}

TEST_F(BundleSampleTest, NamesThatAreNoneAreRefused) {
    PutOpen("camera", "viewer");
    ASSERT_TRUE(IsTaken());
    EXPECT_EQ(bundle.items[0].service, "camera");
    EXPECT_EQ(bundle.items[0].client, "viewer");
    EXPECT_EQ(bundle.items[0].count, 7U);
    for (const std::string &name : NoNames()) {
        PutOpen(name, "viewer");
        EXPECT_FALSE(IsTaken()) << testing::PrintToString(name);
        PutOpen("camera", name);
        EXPECT_FALSE(IsTaken()) << testing::PrintToString(name);
    }
}

TEST_F(BundleSampleTest, NameWithoutAnEndEndsWithItsField) {
    PutOpen(std::string(101, 's'), std::string(111, 'c'));
    ASSERT_TRUE(IsTaken());
    EXPECT_EQ(bundle.items[0].service, std::string(101, 's'));
    EXPECT_EQ(bundle.items[0].client, std::string(111, 'c'));
}

TEST_F(BundleSampleTest, FrameOfAWrongSizeIsRefused) {
    for (const uint32_t size : {1U, 4000U}) {
        PutFrame(0, size);
        ASSERT_TRUE(IsTaken()) << size;
        EXPECT_EQ(bundle.items[0].payload.size(), size);
    }
    for (const uint32_t size : {0U, 4001U, UINT32_MAX}) {
        PutFrame(0, size);
        EXPECT_FALSE(IsTaken()) << size;
    }
}

TEST_F(BundleSampleTest, FrameWithoutBytesIsRefused) {
    PutFrame(0, 1);
    Content()._u.frame.payload._buffer = nullptr;
    EXPECT_FALSE(IsTaken());
}

TEST_F(BundleSampleTest, FrameIsARequestOrAResponse) {
    for (const uint32_t type : {0U, 1U}) {
        PutFrame(type, 1);
        ASSERT_TRUE(IsTaken()) << type;
        EXPECT_EQ(bundle.items[0].type, type);
    }
    for (const uint32_t type : {2U, 0x80000000U, UINT32_MAX}) {
        PutFrame(type, 1);
        EXPECT_FALSE(IsTaken()) << type;
    }
}

// Numbers are for those who count with them.
TEST_F(BundleSampleTest, AnyCountIsTaken) {
    for (const uint32_t count : {0U, 1U, UINT32_MAX}) {
        Content() = {};
        Content()._d = tarvo_bridge_v1_ITEM_OPENED;
        Content()._u.window = count;
        ASSERT_TRUE(IsTaken());
        EXPECT_EQ(bundle.items[0].count, count);
        Content()._d = tarvo_bridge_v1_ITEM_CREDIT;
        ASSERT_TRUE(IsTaken());
        EXPECT_EQ(bundle.items[0].count, count);
        Content()._d = tarvo_bridge_v1_ITEM_CLOSE;
        EXPECT_TRUE(IsTaken());
    }
}

class AnnouncementSampleTest : public testing::Test {
protected:
    AnnouncementSampleTest() {
        sample.run = 1;
        sample.version = 1;
        PutText("front", sample.machine);
    }

    // The texts are those of the last call.
    void Put(const std::vector<std::string> &names, dds_sequence_string100 &to) {
        for (std::size_t i = 0; i < names.size(); ++i) {
            PutText(names[i], texts[i]);
        }
        to._length = static_cast<uint32_t>(names.size());
        to._buffer = texts;
    }

    char texts[32][101] = {};
    tarvo_bridge_v1_Announcement sample{};
    Announcement announcement;
};

TEST_F(AnnouncementSampleTest, WhatABridgeTellsOfItselfIsTaken) {
    sample.version = 3;
    Put({"camera", std::string(100, 'n')}, sample.services);
    ASSERT_TRUE(TakeAnnouncement(sample, announcement));
    EXPECT_EQ(announcement.run, 1U);
    EXPECT_EQ(announcement.version, 3U);
    EXPECT_EQ(announcement.machine, "front");
    EXPECT_EQ(announcement.services, (std::vector<std::string>{"camera", std::string(100, 'n')}));
    EXPECT_TRUE(announcement.names.empty());
}

TEST_F(AnnouncementSampleTest, RunIsNeverZero) {
    sample.run = 0;
    EXPECT_FALSE(TakeAnnouncement(sample, announcement));
}

TEST_F(AnnouncementSampleTest, MachineWithoutANameIsNotHeard) {
    for (const std::string &name : NoNames()) {
        PutText(name, sample.machine);
        EXPECT_FALSE(TakeAnnouncement(sample, announcement)) << testing::PrintToString(name);
    }
}

TEST_F(AnnouncementSampleTest, NamesThatAreNoneAreLeftOut) {
    std::vector<std::string> names = NoNames();
    names.insert(names.begin() + 3, "camera");
    names.emplace_back("gps");
    Put(names, sample.services);
    ASSERT_TRUE(TakeAnnouncement(sample, announcement));
    EXPECT_EQ(announcement.services, (std::vector<std::string>{"camera", "gps"}));
    sample.services = {};
    Put(names, sample.names);
    ASSERT_TRUE(TakeAnnouncement(sample, announcement));
    EXPECT_EQ(announcement.names, (std::vector<std::string>{"camera", "gps"}));
}

} // namespace
} // namespace tarvo_test
