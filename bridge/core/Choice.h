// Which exporter carries an imported name. Pure: it looks at nothing but its arguments.
#ifndef TARVO_BRIDGE_CORE_CHOICE_H
#define TARVO_BRIDGE_CORE_CHOICE_H

#include <string>
#include <vector>

#include "core/Protocol.h"

namespace tarvo_bridge {

// What an import asks for.
struct ImportRule {
    std::string service;
    std::string machine; // empty: any
    std::string local;   // the name here
};

// The run that is to carry the name, or 0. The one of now is kept as long as it offers the name; otherwise it is that
// of the machine whose name comes first, and of several of one machine the one that was heard of last.
RunId ChooseExporter(const ImportRule &rule, const std::vector<const Announcement *> &oldestFirst, RunId now);

// Whether `newer` can only be there because `older` is not any more: both say that they are the only ones on the same
// machine with some name.
bool TakesPlaceOf(const Announcement &newer, const Announcement &older);

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_CHOICE_H
