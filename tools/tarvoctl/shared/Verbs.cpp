#include "shared/Verbs.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>

namespace tarvoctl {
namespace {

// Two slips of the finger.
constexpr std::size_t MAX_SLIPS = 2;

// How many letters must be put in, left out, replaced or swapped with their neighbour to make one word of the other.
std::size_t Distance(const std::string &from, const std::string &to) {
    std::vector<std::size_t> beforeLast;
    std::vector<std::size_t> last(to.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::vector<std::size_t> row = {i};
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t other = last[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            row.push_back(std::min({other, last[j] + 1, row[j - 1] + 1}));
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
            }
        }
        beforeLast = std::exchange(last, row);
    }
    return last.back();
}

bool IsOption(const std::string &word) { return word.size() > 1 && word.front() == '-'; }

} // namespace

std::vector<std::string> Suggestions(const std::string &word, const std::vector<std::string> &known) {
    std::vector<std::pair<std::size_t, std::string>> near;
    for (const std::string &candidate : known) {
        const bool begun = word.size() > 1 && candidate.compare(0, word.size(), word) == 0;
        const std::size_t slips = begun ? 0 : Distance(word, candidate);
        // More slips than letters that are right say nothing.
        if (slips <= MAX_SLIPS && 2 * slips <= candidate.size()) {
            near.emplace_back(slips, candidate);
        }
    }
    std::stable_sort(near.begin(), near.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<std::string> nearest;
    for (const auto &[slips, candidate] : near) {
        if (slips == near.front().first) {
            nearest.push_back(candidate);
        }
    }
    return nearest;
}

void TurnHelpIntoOption(std::vector<std::string> &words) {
    if (words.empty() || words.front() != "help" || (words.size() > 1 && IsOption(words[1]))) {
        return;
    }
    words.erase(words.begin());
    words.insert(words.begin() + (words.empty() ? 0 : 1), "--help");
}

std::vector<std::string> TakeRest(std::vector<std::string> &words) {
    auto rest = std::find_if_not(words.begin() + 1, words.end(),
                                 [](const std::string &word) { return IsOption(word) && word != "--"; });
    std::vector<std::string> taken(rest, words.end());
    words.erase(rest, words.end());
    if (!taken.empty() && taken.front() == "--") {
        taken.erase(taken.begin());
    }
    return taken;
}

} // namespace tarvoctl
