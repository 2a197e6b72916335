// The statistics files that ended processes have left.
#ifndef TARVO_TARVOCTL_DEADFILES_H
#define TARVO_TARVOCTL_DEADFILES_H

#include <chrono>
#include <string>
#include <vector>

namespace tarvoctl {

// What is to happen, or has happened, to one file.
struct DeadFile {
    enum class Action { REMOVE, KEEP, FAIL };
    std::string path;
    Action action = Action::KEEP;
    std::string reason;
};

// All regular files of a directory of statistics; removes those whose process has ended when asked to. -errno when the
// directory cannot be listed.
int CleanDeadFiles(const std::string &directory, bool remove, std::chrono::seconds minAge,
                   std::vector<DeadFile> &files);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_DEADFILES_H
