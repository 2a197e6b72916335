// Names that no other test process uses, and the directory that all of them share.
#ifndef TARVO_SUPPORT_NAMES_H
#define TARVO_SUPPORT_NAMES_H

#include <string>
#include <vector>

namespace tarvo_test {

// Begins every name of this process; children forked from it keep it.
const std::string &NameTag();
// For a forked process that is none of the test's, but runs one itself. Files of that tag are removed.
void RenewNameTag();

// A new name, such as "t4711_srv3".
std::string UniqueName(const std::string &purpose);

// The directory of the FIFO files with its final slash; made with mode 0777 when it is missing.
std::string FifoDirectory();

// The FIFO through which `from` writes to `to`.
std::string FifoPath(const std::string &from, const std::string &to);

// The entries of the FIFO directory that carry this process's tag.
std::vector<std::string> OwnFifoFiles();
void RemoveOwnFifoFiles();

} // namespace tarvo_test

#endif // TARVO_SUPPORT_NAMES_H
