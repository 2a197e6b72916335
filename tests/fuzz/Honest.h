// The honest client that lives beside the garbage, and must not notice it.
#ifndef TARVO_FUZZ_HONEST_H
#define TARVO_FUZZ_HONEST_H

#include <functional>
#include <string>

namespace tarvo_test {

// Makes calls on a pipe of its own that is read by the same receive thread as the pipe under test.
// Owns: nothing. Threads: one. Locks: none. Ends: never, like the pipe.
class HonestClient {
public:
    // `handle` is a pipe whose other end answers each request with its own bytes.
    explicit HonestClient(int handle) : pipe(handle) {}

    // One call; a wrong answer, or none in 30 s, ends the process.
    void Call();
    // Calls again and again as long as bytes lie unread in the FIFO, one of whose ends is `fifo`. More than `most`
    // calls, or 60 s, end the process: the reader does not get its turn.
    void CallWhileUnread(int fifo, std::size_t most);

private:
    const int pipe;
    unsigned calls = 0;
};

// With a pipe between two names of its own.
HonestClient &TheHonestClient();

// Hands `bytes` to `feed` in up to 8 pieces of the same size.
void InPieces(unsigned pieces, const std::string &bytes, const std::function<void(const std::string &)> &feed);

} // namespace tarvo_test

#endif // TARVO_FUZZ_HONEST_H
