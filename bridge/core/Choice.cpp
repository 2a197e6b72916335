#include "core/Choice.h"

#include <algorithm>

namespace tarvo_bridge {
namespace {

bool Has(const std::vector<std::string> &names, const std::string &name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool Suits(const ImportRule &rule, const Announcement &announcement) {
    return (rule.machine.empty() || rule.machine == announcement.machine) && Has(announcement.services, rule.service);
}

} // namespace

RunId ChooseExporter(const ImportRule &rule, const std::vector<const Announcement *> &oldestFirst, RunId now) {
    const Announcement *best = nullptr;
    for (const Announcement *const announcement : oldestFirst) {
        if (!Suits(rule, *announcement)) {
            continue;
        }
        if (announcement->run == now) {
            return now;
        }
        if (best == nullptr || announcement->machine <= best->machine) {
            best = announcement;
        }
    }
    return best == nullptr ? 0 : best->run;
}

bool TakesPlaceOf(const Announcement &newer, const Announcement &older) {
    return newer.run != older.run && newer.machine == older.machine &&
           std::any_of(newer.names.begin(), newer.names.end(),
                       [&older](const std::string &name) { return Has(older.names, name); });
}

} // namespace tarvo_bridge
