// Live readings of this machine, each as one line of text.
#ifndef TELEMETRY_PROC_READINGS_H
#define TELEMETRY_PROC_READINGS_H

#include <string>

std::string ReadLoad();
std::string ReadMemory();
// "error ..." when there is no such process.
std::string ReadProcess(int pid);

#endif // TELEMETRY_PROC_READINGS_H
