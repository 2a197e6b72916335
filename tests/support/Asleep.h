// Whether a thread waits for something: what a test looks for that wants to see it not go on.
#ifndef TARVO_SUPPORT_ASLEEP_H
#define TARVO_SUPPORT_ASLEEP_H

#include <filesystem>
#include <fstream>
#include <string>

namespace tarvo_test {

// `task` is the thread's folder below /proc/PID/task (proc(5)).
inline bool IsAsleep(const std::filesystem::path &task) {
    std::string stat;
    std::getline(std::ifstream(task / "stat"), stat);
    // The state follows the name of the thread, which stands in parentheses.
    const std::size_t state = stat.rfind(')') + 2;
    return state < stat.size() && stat[state] == 'S';
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_ASLEEP_H
