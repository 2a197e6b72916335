#include "system/peers/Line.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "system/Payload.h"

namespace tarvo_test {
namespace {

std::string Unescape(const std::string &text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            bytes.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            bytes.push_back(text[i]);
        }
    }
    return bytes;
}

} // namespace

Command::Command(const std::string &line) {
    std::istringstream words(line);
    words >> word_;
    for (std::string word; words >> word;) {
        const std::size_t equals = word.find('=');
        values_[word.substr(0, equals)] = equals == std::string::npos ? "" : Unescape(word.substr(equals + 1));
    }
}

std::string Command::Text(const std::string &key, const std::string &otherwise) const {
    const auto value = values_.find(key);
    return value == values_.end() ? otherwise : value->second;
}

int Command::Number(const std::string &key, int otherwise) const { return Has(key) ? std::stoi(Text(key)) : otherwise; }

std::string Command::Payload() const {
    if (Has("fill")) {
        return Fill(static_cast<std::size_t>(Number("fill")), static_cast<unsigned>(Number("seed")));
    }
    return Text("data");
}

void PrintLine(const std::string &line) {
    // One write below the atomic size of a pipe: no lock that a handler of a signal could find taken.
    const std::string whole = line + "\n";
    if (write(STDOUT_FILENO, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size())) {
        _exit(3);
    }
}

} // namespace tarvo_test
