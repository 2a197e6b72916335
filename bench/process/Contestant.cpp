#include "Contestant.h"

#include <poll.h>

#include <algorithm>
#include <cstring>

#include "OneWayCount.h"

namespace bench {

void Server::Run(int stop) { AwaitReadable(stop); }

bool Client::Call(std::size_t, const char *data, std::size_t size, uint64_t &word) {
    std::vector<Answered> answers;
    if (!Start(0, data, size)) {
        return false;
    }
    while (answers.empty()) {
        if (!Await(answers, NO_LIMIT)) {
            return false;
        }
    }
    word = answers.front().word;
    return true;
}

bool Client::Send(const char *, std::size_t) { return false; }
bool Client::Flush() { return true; }
bool Client::Start(uint64_t, const char *, std::size_t) { return false; }
bool Client::Await(std::vector<Answered> &, int64_t) { return false; }

Answer HandleMessage(const char *data, std::size_t size) {
    if (size == 0 || data[0] == OP_ONE_WAY) {
        OneWayCount::Handled();
        return {nullptr, 0};
    }
    return {data, size};
}

uint64_t FirstWord(const char *data, std::size_t size) {
    uint64_t word = 0;
    std::memcpy(&word, data, std::min(size, sizeof(word)));
    return word;
}

void AwaitReadable(int fd) {
    pollfd event{fd, POLLIN, 0};
    while (poll(&event, 1, -1) < 0) {
    }
}

} // namespace bench
