// What the exit status of every subcommand says; also in the manual page and in each --help.
#ifndef TARVO_TARVOCTL_EXITCODE_H
#define TARVO_TARVOCTL_EXITCODE_H

namespace tarvoctl {

constexpr int EXIT_DONE = 0;
constexpr int EXIT_FAILED = 1;        // anything without a code of its own
constexpr int EXIT_USAGE = 2;         // the command line or its data cannot be used; nothing was done
constexpr int EXIT_NO_SERVER = 3;     // nobody serves under that name
constexpr int EXIT_NO_ANSWER = 4;     // the other side did not answer, or did not open its end, in time
constexpr int EXIT_FINDINGS = 5;      // the command itself worked and found something wrong
constexpr int EXIT_INTERRUPTED = 130; // ended by a signal before the work was done

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_EXITCODE_H
