#ifndef TARVO_BRIDGE_PROGRAM_NAMELOCKS_H
#define TARVO_BRIDGE_PROGRAM_NAMELOCKS_H

#include <string>
#include <vector>

#include "base/UniqueFd.h"

namespace tarvo_bridge {

// Keeps each name of this machine to one bridge, so that nothing goes in circles: a file for each name, locked as long
// as the process lives.
// Owns: the locks. The files stay. Threads: one. Locks: none. Ends: any time.
class NameLocks {
public:
    // Takes a name for `purpose`. Empty, or why not.
    std::string Take(const std::string &folder, const std::string &name, const std::string &purpose);

private:
    std::vector<UniqueFd> files;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_PROGRAM_NAMELOCKS_H
