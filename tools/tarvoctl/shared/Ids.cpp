#include "shared/Ids.h"

#include <grp.h>
#include <pwd.h>

#include <array>
#include <charconv>

namespace tarvoctl {
namespace {

// Enough for the entry of a group with many members.
constexpr std::size_t ENTRY_SIZE = 65536;

} // namespace

std::string UserText(uid_t user) {
    std::array<char, ENTRY_SIZE> buffer{};
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return entry.pw_name;
    }
    return std::to_string(user);
}

std::string GroupText(gid_t group) {
    std::array<char, ENTRY_SIZE> buffer{};
    struct group entry {};
    struct group *found = nullptr;
    if (getgrgid_r(group, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return entry.gr_name;
    }
    return std::to_string(group);
}

std::optional<gid_t> GroupOf(const std::string &text) {
    gid_t number = 0;
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec == std::errc() && parsed.ptr == end) {
        return number;
    }
    std::array<char, ENTRY_SIZE> buffer{};
    struct group entry {};
    struct group *found = nullptr;
    if (getgrnam_r(text.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return entry.gr_gid;
    }
    return std::nullopt;
}

} // namespace tarvoctl
