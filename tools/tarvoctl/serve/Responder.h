// What a server of the tool answers.
#ifndef TARVO_TARVOCTL_RESPONDER_H
#define TARVO_TARVOCTL_RESPONDER_H

#include <memory>
#include <optional>
#include <string>

#include "shared/Duration.h"

namespace tarvoctl {

// Answers requests.
// Owns: nothing. Threads: any number at a time, one for each pipe. Locks: none. Ends: after the last callback.
class Responder {
public:
    Responder() = default;
    virtual ~Responder() = default;
    Responder(const Responder &) = delete;
    Responder &operator=(const Responder &) = delete;

    // The answer, or nothing.
    virtual std::optional<std::string> Answer(const std::string &client, const std::string &request) = 0;
};

// Answers with the request itself.
std::unique_ptr<Responder> MakeEcho();
// Answers nothing.
std::unique_ptr<Responder> MakeSink();
// For the server of that name: runs `command` with the shell for each request, which is its standard input; its
// standard output is the answer. Nothing is answered, after a line on standard error, when it fails, prints nothing or
// too much, or takes longer than `limit`. `interruptFd` becomes readable when commands that run are to be given up.
std::unique_ptr<Responder> MakeExec(const std::string &server, const std::string &command, Duration limit,
                                    int interruptFd);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_RESPONDER_H
