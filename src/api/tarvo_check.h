// Checks of the arguments of the exported functions. Names end up in file names and log lines, and some come from other
// processes: nothing is used before it passed here. Each check logs the first failure it finds. Any thread; none
// throws.
#ifndef TARVO_API_TARVO_CHECK_H
#define TARVO_API_TARVO_CHECK_H

#include <cstddef>

#include "tarvo.h"

// Of a name that is good for a pipe or a server; packets hold longer ones.
constexpr std::size_t MAX_NAME_LENGTH = 100;

// Whether `name`, which must not be null, holds a shell metacharacter or climbs in the path.
bool BlackListCheck(const char *name);

// 0 when both may be used, else -EINVAL. A null `selfName` stands for the process name.
int CheckInputSelfNameAndPriority(const char *selfName, TarvoPriority priority);

// 0 or -EINVAL. Checks the names, the mode and the priority; everything else is taken as given.
int CheckInputPipeAttr(const TarvoAttr &attr);

// 0 or -EINVAL. Checks the name and the priority; the callbacks may be null.
int CheckInputServerAttr(const TarvoServerAttr &attr);

#endif // TARVO_API_TARVO_CHECK_H
