// The line protocol of the peer program: one command a line in, one "= " reply for each and "! " events out.
#ifndef TARVO_SYSTEM_PEERS_LINE_H
#define TARVO_SYSTEM_PEERS_LINE_H

#include <map>
#include <string>

namespace tarvo_test {

// A command: its first word, then key=value words in which %20 and the like stand for bytes.
class Command {
public:
    explicit Command(const std::string &line);

    const std::string &Word() const { return word_; }
    bool Has(const std::string &key) const { return values_.count(key) != 0; }
    std::string Text(const std::string &key, const std::string &otherwise = "") const;
    int Number(const std::string &key, int otherwise = 0) const;
    // data=TEXT as it is, or fill=SIZE with seed=NUMBER.
    std::string Payload() const;

private:
    std::string word_;
    std::map<std::string, std::string> values_;
};

// Writes one line; lines of several threads do not mix.
void PrintLine(const std::string &line);

// An event of the callback or of a background thread: "! " and the text.
inline void PrintEvent(const std::string &text) { PrintLine("! " + text); }

} // namespace tarvo_test

#endif // TARVO_SYSTEM_PEERS_LINE_H
