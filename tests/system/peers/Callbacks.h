// What a peer program does with the requests that reach it.
#ifndef TARVO_SYSTEM_PEERS_CALLBACKS_H
#define TARVO_SYSTEM_PEERS_CALLBACKS_H

#include <functional>
#include <string>

#include "tarvo.h"

namespace tarvo_test {

using RequestCallback = void (*)(int fd, TarvoRequest *request);

// By name; null for "none" and for a name that is not known.
//   report   prints the request and answers nothing
//   echo     answers with the payload of the request
//   gate     prints "entered", waits for a permit, prints "left" and answers like echo
//   forward  makes a call with the same payload on another pipe and answers with what came back
//   policy   answers with the scheduling of the thread that it runs on
//   closer   closes the pipe and prints "closed"
//   reopen   for a remote that has closed, closes the pipe, connects again and prints "reopened"
// All print "gone" for a remote that has closed.
RequestCallback CallbackNamed(const std::string &name);

// How "reopen" connects again.
void ReopenWith(const std::function<int()> &connect);
// Lets so many callbacks through the gate.
void OpenGate(int permits);
// The pipe, and the time-out in ms, that "forward" uses.
void ForwardTo(int fd, int timeout);
// How many requests "echo" has seen.
int EchoCount();

} // namespace tarvo_test

#endif // TARVO_SYSTEM_PEERS_CALLBACKS_H
