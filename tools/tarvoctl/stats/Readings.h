// The statistics files of a directory, read again and again.
#ifndef TARVO_TARVOCTL_READINGS_H
#define TARVO_TARVOCTL_READINGS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "shared/CommandLine.h"
#include "tarvo_stats.h"

namespace tarvoctl {

// Each statistics file of a process, held open between its readings.
// Owns: the file and the memory of two readings. Threads: one. Locks: none. Ends: any time.
class ProcessReading {
public:
    ProcessReading(std::string name, TarvoStatsFile *file);
    ~ProcessReading();
    ProcessReading(const ProcessReading &) = delete;
    ProcessReading &operator=(const ProcessReading &) = delete;

    // 0, or a negated errno value.
    int Read();

    const std::string &File() const { return name; }
    const TarvoStatsReading &Now() const { return readings[current]; }
    // What the same place held at the reading before; null when that was another pipe, or there was none.
    const TarvoStatsSlot *Before(uint32_t index) const;
    const TarvoStatsHeader *HeaderBefore() const { return count > 1 ? &readings[1 - current].header : nullptr; }
    // Pipes that it had open when it ended: it was killed, or left without a word. 0 while it lives.
    uint32_t LeftOpen() const;
    // "alive", "ended", or "died" with pipes open.
    const char *StateText() const;
    // Between both readings; 0 when there was none before.
    double Seconds() const;

private:
    std::string name;
    TarvoStatsFile *file;
    TarvoStatsReading readings[2] = {};
    unsigned current = 0;
    unsigned count = 0; // up to 2
};

// A file that cannot be read.
struct Unreadable {
    std::string file;
    int error; // negated errno
};

// All files of a directory.
// Owns: them. Threads: one. Locks: none. Ends: any time.
class Readings {
public:
    explicit Readings(const std::string &statsDirectory);

    // Reads every file once more. 0, or a negated errno value when the directory cannot be listed.
    int Read();
    const std::string &Directory() const { return directory; }
    // By the names of their files.
    std::vector<const ProcessReading *> Processes() const;
    const std::vector<Unreadable> &Problems() const { return problems; }

private:
    static int Each(void *context, int descriptor, const char *name);
    void ReadOne(int descriptor, const char *name);

    // With what the kernel knows the file by: under one name another may come.
    struct Entry {
        std::unique_ptr<ProcessReading> reading;
        dev_t device = 0;
        ino_t inode = 0;
        bool seen = false;
    };

    std::string directory;
    std::map<std::string, Entry> entries;
    std::vector<Unreadable> problems;
};

// What is wrong with a file, in words.
std::string ProblemText(int error);

// --stats-directory; where the library has it unless it is named.
void AddStatsDirectoryOption(CommandLine &sub, std::string &statsDirectory);
// The directory to use beside a FIFO directory that may have been named: the library's belongs to the library's. Empty
// when none was named for another.
std::string StatsDirectoryBeside(const std::string &fifoDirectory, const std::string &named);

// Text from a file that anybody in the group may have written: nothing in it reaches the terminal but characters.
std::string Printable(const char *text);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_READINGS_H
