// How often a test of threads or processes that meet repeats itself.
#ifndef TARVO_SUPPORT_ROUNDS_H
#define TARVO_SUPPORT_ROUNDS_H

#include <cstdlib>

namespace tarvo_test {

// $TARVO_STRESS_ROUNDS, for long runs, or what suits every run of the tests.
inline int StressRounds(int usual) {
    const char *const rounds = std::getenv("TARVO_STRESS_ROUNDS");
    return rounds != nullptr ? std::atoi(rounds) : usual;
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_ROUNDS_H
