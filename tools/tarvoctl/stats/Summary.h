// Servers and processes in short, below the table of pipes.
#ifndef TARVO_TARVOCTL_SUMMARY_H
#define TARVO_TARVOCTL_SUMMARY_H

#include <string>

#include "stats/Readings.h"

namespace tarvoctl {

// The servers that match; empty without one.
std::string ServersText(const Readings &readings, const std::string &pattern);
// Processes of which something matches: their opens and their callback threads.
std::string ProcessesText(const Readings &readings, const std::string &pattern);

// On standard error: files that cannot be read, and sums that may be wrong.
void DiagnoseReadings(const Readings &readings);
// A line that says what is wrong with the directory itself.
void DiagnoseStatsDirectory(const std::string &directory, int error);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_SUMMARY_H
