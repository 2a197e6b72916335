// The layout of the public types, which programs that were built earlier have compiled in.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <type_traits>

#include "tarvo.h"

namespace {

template <typename Block, typename Field>
std::size_t OffsetOf(const Block &block, const Field &field) {
    return static_cast<std::size_t>(reinterpret_cast<const char *>(&field) - reinterpret_cast<const char *>(&block));
}

TEST(PublicTypes, FieldsOfAPipesAttributeAreWhereProgramsHaveThem) {
    const TarvoAttr attr;
    const std::size_t callback = sizeof(std::function<void(int, TarvoRequest *)>);
    EXPECT_EQ(OffsetOf(attr, attr.targetName), 0U);
    EXPECT_EQ(OffsetOf(attr, attr.callback), 8U);
    EXPECT_EQ(OffsetOf(attr, attr.timeout), 8U + callback);
    EXPECT_EQ(OffsetOf(attr, attr.mode), 12U + callback);
    EXPECT_EQ(OffsetOf(attr, attr.gid), 16U + callback);
    EXPECT_EQ(OffsetOf(attr, attr.priority), 20U + callback);
    EXPECT_EQ(OffsetOf(attr, attr.selfName), 24U + callback);
    EXPECT_EQ(OffsetOf(attr, attr.targetPid), 32U + callback);
    EXPECT_EQ(OffsetOf(attr, attr.isConcur), 36U + callback);
    EXPECT_EQ(OffsetOf(attr, attr.domain), 40U + callback);
    EXPECT_EQ(OffsetOf(attr, attr.targetCon), 48U + callback);
    EXPECT_EQ(sizeof(attr), 56U + callback);
    static_assert(sizeof(attr.timeout) == 4 && std::is_signed_v<decltype(attr.timeout)>);
    static_assert(sizeof(attr.gid) == 4 && std::is_unsigned_v<decltype(attr.gid)>);
    static_assert(sizeof(attr.targetPid) == 4 && std::is_signed_v<decltype(attr.targetPid)>);
    static_assert(std::is_same_v<decltype(attr.isConcur), bool>);
}

TEST(PublicTypes, UnsetFieldsOfAnAttributeHaveTheirDefaults) {
    const TarvoAttr attr;
    EXPECT_FALSE(attr.callback);
    EXPECT_EQ(attr.gid, 4294967295U);
    EXPECT_EQ(attr.priority, 1);
    EXPECT_EQ(attr.selfName, nullptr);
    EXPECT_EQ(attr.targetPid, -1);
    EXPECT_FALSE(attr.isConcur);
    EXPECT_EQ(attr.domain, 0);
    EXPECT_EQ(attr.targetCon, nullptr);
}

TEST(PublicTypes, FieldsOfAServersAttributeAreWhereProgramsHaveThem) {
    static_assert(std::is_standard_layout_v<TarvoServerAttr>);
    EXPECT_EQ(offsetof(TarvoServerAttr, openCallback), 0U);
    EXPECT_EQ(offsetof(TarvoServerAttr, callback), 8U);
    EXPECT_EQ(offsetof(TarvoServerAttr, gid), 16U);
    EXPECT_EQ(offsetof(TarvoServerAttr, priority), 20U);
    EXPECT_EQ(offsetof(TarvoServerAttr, selfName), 24U);
    EXPECT_EQ(sizeof(TarvoServerAttr), 32U);
    static_assert(std::is_same_v<decltype(TarvoServerAttr::openCallback), void (*)(int, const char *, uint32_t)>);
    static_assert(std::is_same_v<decltype(TarvoServerAttr::callback), void (*)(int, TarvoRequest *)>);
}

template <typename Block>
void ExpectBlock() {
    static_assert(std::is_trivial_v<Block> && std::is_standard_layout_v<Block>);
    EXPECT_EQ(offsetof(Block, id), 0U);
    EXPECT_EQ(offsetof(Block, data), 8U);
    EXPECT_EQ(offsetof(Block, size), 16U);
    EXPECT_EQ(sizeof(Block), 24U);
    static_assert(std::is_same_v<decltype(Block::id), uint32_t> && std::is_same_v<decltype(Block::size), uint32_t>);
}

TEST(PublicTypes, RequestAndResponseAreAlike) {
    ExpectBlock<TarvoRequest>();
    ExpectBlock<TarvoResponse>();
}

TEST(PublicTypes, EnumeratorsHaveTheirNumbers) {
    EXPECT_EQ(TARVO_NORMAL_PIPE, 0);
    EXPECT_EQ(TARVO_CLIENT_PIPE, 1);
    EXPECT_EQ(TARVO_SERVER_PIPE, 2);
    EXPECT_EQ(TARVO_MODE_CLIENT, 0);
    EXPECT_EQ(TARVO_MODE_SERVER, 1);
    EXPECT_EQ(TARVO_PRIORITY_NONE, 0);
    EXPECT_EQ(TARVO_PRIORITY_NORMAL, 1);
    EXPECT_EQ(TARVO_PRIORITY_URGENT, 2);
    EXPECT_EQ(TARVO_DOMAIN_LOCAL, 0);
    EXPECT_EQ(TARVO_DOMAIN_DP, 1);
    EXPECT_EQ(TARVO_DOMAIN_ORLA, 2);
    static_assert(sizeof(TarvoPipeType) == 4 && sizeof(TarvoMode) == 4 && sizeof(TarvoPriority) == 4 &&
                  sizeof(TarvoDomain) == 4);
}

} // namespace
