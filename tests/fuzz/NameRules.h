// The rules for names, written down once more for the fuzz targets; shares no code with the library.
#ifndef TARVO_FUZZ_NAMERULES_H
#define TARVO_FUZZ_NAMERULES_H

#include <string>

namespace tarvo_test {

constexpr std::size_t LONGEST_NAME = 100;

// No shell metacharacter and no two dots in a row.
inline bool IsHarmless(const std::string &name) {
    return name.find_first_of("|;><`&()$") == std::string::npos && name.find("..") == std::string::npos;
}

inline bool IsAcceptableName(const std::string &name) {
    return !name.empty() && name.size() <= LONGEST_NAME && IsHarmless(name);
}

} // namespace tarvo_test

#endif // TARVO_FUZZ_NAMERULES_H
