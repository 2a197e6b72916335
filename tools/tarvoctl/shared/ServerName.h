#ifndef TARVO_TARVOCTL_SERVERNAME_H
#define TARVO_TARVOCTL_SERVERNAME_H

#include <string>

namespace tarvoctl {

// As the library has it, which is not asked, since it writes a line for each name that it refuses.
inline bool NameIsValid(const std::string &name) {
    constexpr std::size_t MAX_NAME = 100;
    return !name.empty() && name.size() <= MAX_NAME && name.find_first_of("|;><`&()$") == std::string::npos &&
           name.find("..") == std::string::npos;
}

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_SERVERNAME_H
