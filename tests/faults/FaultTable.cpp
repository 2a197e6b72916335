#include "faults/FaultTable.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

namespace tarvo_test {
namespace {

std::string ReadAll(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The calls from..to of all; "each" when that is all.
std::string Range(unsigned from, unsigned to, unsigned last) {
    if (from == 1 && to == last) {
        return "each";
    }
    return from == to ? std::to_string(from) : std::to_string(from) + "–" + std::to_string(to);
}

// One line for each result, the most frequent last as "others".
std::string Rows(const std::string &call, const std::string &range, const std::map<int, std::string> &results) {
    std::map<std::string, std::string> errnosOf;
    std::map<std::string, std::size_t> count;
    std::string most;
    for (const auto &[error, result] : results) {
        errnosOf[result] += (errnosOf[result].empty() ? "" : " ") + NameOfErrno(error);
        if (++count[result] > count[most]) {
            most = result;
        }
    }
    std::ostringstream text;
    for (const auto &[result, errnos] : errnosOf) {
        if (result != most) {
            text << "| " << call << " | " << range << " | " << errnos << " | " << result << " |\n";
        }
    }
    text << "| " << call << " | " << range << " | " << (errnosOf.size() == 1 ? "each" : "others") << " | " << most
         << " |\n";
    return text.str();
}

} // namespace

std::string FaultTable::ResultText(int error, const Outcomes &seen) const {
    std::string text;
    if (function.returns == Returns::Nothing) {
        text = "done";
    } else if (seen.result == -error) {
        text = "−errno";
    } else if (seen.result < 0) {
        text = "−" + NameOfErrno(-seen.result);
    } else {
        text = function.returns == Returns::Handle ? "handle" : std::to_string(seen.result);
    }
    return text + (seen.fileStays ? ", a file stays" : "");
}

void FaultTable::Add(const ManualPage &page, unsigned nth, int error, const Outcomes &seen) {
    calls[page.name][nth][error] = ResultText(error, seen);
    ++cases;
}

std::string FaultTable::Markdown() const {
    if (calls.empty()) {
        return "No system call.\n";
    }
    std::string text = "| call | which | errno | result |\n|---|---|---|---|\n";
    for (const auto &[call, byNumber] : calls) {
        for (auto first = byNumber.begin(); first != byNumber.end();) {
            auto next = first;
            unsigned to = first->first;
            for (; next != byNumber.end() && next->second == first->second; ++next) {
                to = next->first;
            }
            text += Rows(call, Range(first->first, to, byNumber.rbegin()->first), first->second);
            first = next;
        }
    }
    return text;
}

void CompareWithKept(const std::string &name, const std::string &rows, const std::string &page) {
    const std::string path = TARVO_DOCS "/" + page;
    const std::string begin = "### " + name + "\n\n";
    std::string kept = ReadAll(path);
    std::size_t from = kept.find(begin);
    const bool update = std::getenv("TARVO_FAULTS_UPDATE") != nullptr;
    if (from == std::string::npos) {
        ASSERT_TRUE(update) << path << " has no section " << name;
        kept += "\n" + begin;
        from = kept.size() - begin.size();
    }
    from += begin.size();
    const std::size_t to = std::min(kept.find("\n#", from), kept.size());
    if (!update) {
        EXPECT_EQ(kept.substr(from, to - from), rows) << "scripts/faults-table.sh writes what was found to " << path;
        return;
    }
    std::ofstream(path) << kept.substr(0, from) << rows << kept.substr(to);
}

} // namespace tarvo_test
