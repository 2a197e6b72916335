// The ways in which the peer program can end while its threads are inside the library.
#ifndef TARVO_SYSTEM_PEERS_ENDING_H
#define TARVO_SYSTEM_PEERS_ENDING_H

#include <string>

#include "system/peers/Line.h"

namespace tarvo_test {

// The command that makes main return at once.
constexpr char RETURN_COMMAND[] = "end how=return";

// Ends the process from the main thread: exit, quick_exit, _exit, abort, or pthread_exit. With the last, another thread
// makes ten more calls on the pipe `fd` once the main thread is gone, and then calls exit, with code 5 when one of them
// got no answer.
std::string End(const Command &command);

} // namespace tarvo_test

#endif // TARVO_SYSTEM_PEERS_ENDING_H
