// The two engines of tarvo, as options name them: the library's threads, and the loop of the program's own thread.
#ifndef TARVO_TARVOCTL_ENGINE_H
#define TARVO_TARVOCTL_ENGINE_H

#include <cstdint>
#include <string>

namespace tarvoctl {

constexpr char ENGINE_THREADS[] = "threads";
constexpr char ENGINE_LOOP[] = "loop";

// What a link takes, and what a pipe of the other engine does.
constexpr uint64_t MAX_OUTSTANDING = 65536;
constexpr uint64_t MAX_OUTSTANDING_OF_THREADS = 1000;

// Callbacks of a loop between two looks at the interrupt and at the commands.
constexpr int CALLBACKS_PER_ROUND = 1000;

// A loop runs at the priority of its thread. False, after a line on standard error, when another one is asked for.
bool LoopHasPriority(const std::string &priority);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_ENGINE_H
