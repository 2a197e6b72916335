// The loop of the targets, and the honest link on it that lives beside the garbage and must not notice it.
#ifndef TARVO_FUZZ_LOOPSIDE_H
#define TARVO_FUZZ_LOOPSIDE_H

#include <functional>
#include <string>

#include "tarvo_loop.h"

namespace tarvo_test {

TarvoLoop *TheLoop();

// Dispatches until `done`, sleeping on the loop's descriptor; 60 s end the process.
void DispatchUntil(const std::function<bool()> &done);
// Dispatches until the descriptor is not readable any more.
void DispatchAll();

TarvoLink *OpenLink(TarvoLinkKind kind, const std::string &target, const std::string &self,
                    const TarvoLinkCallbacks &callbacks, void *context);

// Makes calls to a service of the same loop. Owns: nothing. Threads: one. Ends: never, like its link.
class HonestLink {
public:
    HonestLink();
    // One call; a wrong answer, or none in 60 s, ends the process.
    void Call();

private:
    static void Opened(void *context, TarvoLink *link, int result);
    static void Done(void *context, int result, TarvoBytes answer);

    TarvoLink *link = nullptr;
    unsigned calls = 0;
    std::string text;
    bool ended = false;
    bool open = false;
};

HonestLink &TheHonestLink();

} // namespace tarvo_test

#endif // TARVO_FUZZ_LOOPSIDE_H
