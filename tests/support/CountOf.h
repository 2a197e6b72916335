#ifndef TARVO_TEST_COUNTOF_H
#define TARVO_TEST_COUNTOF_H

#include <cstddef>
#include <string>

namespace tarvo_test {

// How often `part` is in `text`, one behind the other.
inline std::size_t CountOf(const std::string &text, const std::string &part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

} // namespace tarvo_test

#endif // TARVO_TEST_COUNTOF_H
