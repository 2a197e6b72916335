// Names of users and groups.
#ifndef TARVO_TARVOCTL_IDS_H
#define TARVO_TARVOCTL_IDS_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace tarvoctl {

// The name, or the number where there is none.
std::string UserText(uid_t user);
std::string GroupText(gid_t group);

// A name or a number; empty when no such group exists.
std::optional<gid_t> GroupOf(const std::string &text);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_IDS_H
