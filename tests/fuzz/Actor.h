#ifndef TARVO_FUZZ_ACTOR_H
#define TARVO_FUZZ_ACTOR_H

#include <array>
#include <string>

#include "fuzz/Target.h"
#include "tarvo.h"

namespace tarvo_test {

// Turns bytes into calls of the exported functions: a byte chooses the function, the following ones its arguments. Ends
// the process when a result is none that the function may have.
// Owns: nothing; whoever lets it act closes the pipes that it has opened. Threads: one. Locks: none. Ends: any time.
class Actor {
public:
    // `server` is the name of a server of this process.
    Actor(Bytes bytes, std::string serverName) : input(bytes), server(std::move(serverName)) {}

    // False when the bytes are used up.
    bool ActOnce();

private:
    void OpenByName();
    void OpenBothEnds();
    void OpenInShort();
    void ConnectToServer();
    void StartServer();
    void Send();
    void Answer();
    void Call();
    void Close();
    void Clean();
    void CleanUpAfterSignal();
    void Ask();

    TarvoAttr SomeAttr();
    const char *SomeName();
    void Remember(int handle);
    int SomeHandle();
    uint32_t SomeSize();
    // Bytes to send; null now and then.
    char *SomeData();

    Bytes input;
    const std::string server;
    std::array<int, 4> handles{};
    unsigned next = 0;
    std::array<char, 5000> data{};
};

} // namespace tarvo_test

#endif // TARVO_FUZZ_ACTOR_H
