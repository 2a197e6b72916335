#ifndef TARVO_SUPPORT_COVERAGE_H
#define TARVO_SUPPORT_COVERAGE_H

// Write the counts of what the tests reach of a library. Absent where it does not count, or is not there.
extern "C" __attribute__((weak)) void TarvoDumpCoverage(void);
extern "C" __attribute__((weak)) void TarvoDumpLoopCoverage(void);

namespace tarvo_test {

// What counts adds a variable to the environment of each process.
inline bool LibraryCounts() { return TarvoDumpCoverage != nullptr; }

// Before a process ends without the handlers of its exit.
inline void DumpCoverage() {
    if (TarvoDumpCoverage != nullptr) {
        TarvoDumpCoverage();
    }
    if (TarvoDumpLoopCoverage != nullptr) {
        TarvoDumpLoopCoverage();
    }
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_COVERAGE_H
