// The security label of a FIFO file that is about to be published.
#ifndef TARVO_FIFO_FIFO_LABEL_H
#define TARVO_FIFO_FIFO_LABEL_H

#include <cstdint>
#include <string>

#include "tarvo.h"

// Labels the file `path` so that the peer may open it: with `targetCon`, or with the context of process `targetPid`
// when that is empty and the peer lives in this domain (`domain` local or that of this host). `targetCon` is a full
// context, but a type-only one when the peer of a host that is not orla lives in another domain. A file that cannot be
// labelled stays usable, so failures are only logged. Any thread.
void LabelFifo(const std::string &path, int32_t targetPid, TarvoDomain domain, const std::string &targetCon);

#endif // TARVO_FIFO_FIFO_LABEL_H
