#ifndef TARVO_BRIDGE_PROGRAM_STATEFILE_H
#define TARVO_BRIDGE_PROGRAM_STATEFILE_H

#include <string>

#include "core/Bridge.h"
#include "local/Runner.h"

namespace tarvo_bridge {

// What the bridge does at the moment, as JSON in a file for people and tools: STATE_FOLDER/bridge-PID.json.
// Owns: the file, which is gone with it. Threads: that of the loop. Locks: none. Ends: before the bridge.
class StateFile {
public:
    StateFile(TarvoLoop &loop, const std::string &folder, std::string machineName, const Bridge &shownBridge);
    ~StateFile();
    StateFile(const StateFile &) = delete;
    StateFile &operator=(const StateFile &) = delete;

    // It is written soon, but only a few times a second.
    void Changed();

private:
    void Write();

    const std::string path;
    const std::string machine;
    const Bridge &bridge;
    std::string written;
    bool due = false;
    bool failing = false;
    Task writing;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_PROGRAM_STATEFILE_H
