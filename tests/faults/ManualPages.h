// The system calls of the library and how each may fail, from the manual pages (Linux man-pages 6.03).
#ifndef TARVO_FAULTS_MANUALPAGES_H
#define TARVO_FAULTS_MANUALPAGES_H

#include <set>
#include <string>
#include <vector>

#include "support/Interpose.h"

namespace tarvo_test {

struct ManualPage {
    Call call;
    std::string name; // with its section
    std::vector<int> errnos;
    // False for waits: whether a function has to wait at all depends on what the other threads have done so far.
    bool always = true;
};

// Every system call that the library makes. Of a page that describes several functions, what concerns this one.
const std::vector<ManualPage> &ManualPages();

// Functions of the C library that the library imports and that have no row.
const std::set<std::string> &FunctionsWithoutErrors();

// "EACCES"
std::string NameOfErrno(int value);

} // namespace tarvo_test

#endif // TARVO_FAULTS_MANUALPAGES_H
