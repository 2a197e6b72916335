#ifndef TARVO_SUPPORT_COVERAGE_H
#define TARVO_SUPPORT_COVERAGE_H

// Writes the counts of what the tests reach of the library. Absent where it does not count.
extern "C" __attribute__((weak)) void TarvoDumpCoverage(void);

namespace tarvo_test {

// What counts adds a variable to the environment of each process.
inline bool LibraryCounts() { return TarvoDumpCoverage != nullptr; }

} // namespace tarvo_test

#endif // TARVO_SUPPORT_COVERAGE_H
