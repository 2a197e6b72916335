#include "fuzz/Honest.h"

#include <sys/ioctl.h>

#include <chrono>

#include "fuzz/Target.h"
#include "support/Pipes.h"

namespace tarvo_test {

namespace {

constexpr std::size_t MOST_PIECES = 8;

bool HasUnread(int fifo) {
    int unread = 0;
    Require(ioctl(fifo, FIONREAD, &unread) == 0, "a FIFO tells how much is unread");
    return unread > 0;
}

} // namespace

void HonestClient::Call() {
    ++calls;
    std::string text = "call " + std::to_string(calls) + " ";
    text.resize(1 + calls % MAX_PAYLOAD, static_cast<char>(calls));
    const std::string answer = Ask(pipe, text);
    if (answer != text) {
        Require(false, ("the honest client gets its answer, and not " + answer.substr(0, 20)).c_str());
    }
}

void HonestClient::CallWhileUnread(int fifo, std::size_t most) {
    const auto end = std::chrono::steady_clock::now() + WAIT_LIMIT;
    for (std::size_t made = 0; HasUnread(fifo); ++made) {
        Require(made < most && std::chrono::steady_clock::now() < end, "garbage is read while others are served");
        Call();
    }
}

HonestClient &TheHonestClient() {
    // Never destroyed: the process ends under them.
    static const auto *const pair = new PipePair(Echo);
    static auto *const client = new HonestClient(pair->far);
    return *client;
}

void InPieces(unsigned pieces, const std::string &bytes, const std::function<void(const std::string &)> &feed) {
    const std::size_t count = 1 + pieces % MOST_PIECES;
    const std::size_t length = (bytes.size() + count - 1) / count;
    for (std::size_t at = 0; at < bytes.size(); at += length) {
        feed(bytes.substr(at, length));
    }
}

} // namespace tarvo_test
