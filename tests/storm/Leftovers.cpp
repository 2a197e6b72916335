#include "storm/Leftovers.h"

#include <algorithm>
#include <cstddef>

#include "support/Names.h"

namespace storm {

namespace {

bool EndsWith(const std::string &text, const std::string &end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// A pipe's file is named by two names, of which one is the server's and the other ends with "_" and a process id.
bool IsTemporaryOfPipe(const std::string &file) {
    constexpr std::size_t LONGEST_PROCESS_ID = 7;
    const std::size_t separator = file.find("__to__");
    const std::string second = file.substr(separator + 6);
    const std::size_t digits = second.size() - 1 - second.find_last_not_of("0123456789");
    // A server's name ends with a letter here: only a time stamp puts digits behind it.
    const bool afterServer = second.find('_', second.find('_') + 1) == std::string::npos;
    return afterServer ? digits > 0 : digits > LONGEST_PROCESS_ID;
}

} // namespace

Leftovers FindLeftovers(const std::vector<std::string> &servers) {
    Leftovers found;
    for (const std::string &file : tarvo_test::OwnFifoFiles()) {
        if (file.find("__to__") == std::string::npos) {
            const bool whole = std::any_of(servers.begin(), servers.end(),
                                           [&](const std::string &server) { return EndsWith(file, server); });
            (whole ? found.servers : found.temporary).push_back(file);
        } else {
            (IsTemporaryOfPipe(file) ? found.temporary : found.pipes).push_back(file);
        }
    }
    return found;
}

} // namespace storm
