// The results of all cases of one function, in words, and the file that keeps them.
#ifndef TARVO_FAULTS_FAULTTABLE_H
#define TARVO_FAULTS_FAULTTABLE_H

#include <map>
#include <string>

#include "faults/FaultCase.h"
#include "faults/ManualPages.h"

namespace tarvo_test {

class FaultTable {
public:
    explicit FaultTable(const Function &tested) : function(tested) {}

    void Add(const ManualPage &page, unsigned nth, int error, const Outcomes &seen);
    std::size_t Cases() const { return cases; }

    // One row for each call and result: neighbours with the same results share a row.
    std::string Markdown() const;

private:
    using Results = std::map<int, std::string>; // by errno

    std::string ResultText(int error, const Outcomes &seen) const;

    const Function &function;
    std::map<std::string, std::map<unsigned, Results>> calls; // by name of the call, then by its number
    std::size_t cases = 0;
};

// Fails the test when the section of the page in docs/ that `name` begins holds other rows than `rows`; with
// TARVO_FAULTS_UPDATE=1 in the environment, writes them there instead.
void CompareWithKept(const std::string &name, const std::string &rows, const std::string &page = "FAULTS.md");

} // namespace tarvo_test

#endif // TARVO_FAULTS_FAULTTABLE_H
