// The first word of the command line: which subcommand it names, or was meant to name.
#ifndef TARVO_TARVOCTL_VERBS_H
#define TARVO_TARVOCTL_VERBS_H

#include <string>
#include <vector>

namespace tarvoctl {

// Those of `known` that somebody who typed `word` may have meant, the nearest first; empty when none is near.
std::vector<std::string> Suggestions(const std::string &word, const std::vector<std::string> &known);

// Turns "help" and "help VERB" into the option that shows the same.
void TurnHelpIntoOption(std::vector<std::string> &words);

// Takes off what belongs to the command that a subcommand runs: everything from the first word on that is no option, or
// after "--". The subcommand itself is the first of `words`.
std::vector<std::string> TakeRest(std::vector<std::string> &words);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_VERBS_H
