// What lies in a FIFO directory. Nothing is opened but directories: opening a FIFO, even for a moment, is an event at
// whoever holds its other end.
#ifndef TARVO_TARVOCTL_FIFOFILES_H
#define TARVO_TARVOCTL_FIFOFILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace tarvoctl {

// What the kernel knows a file by.
struct FileId {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator<(const FileId &other) const { return std::tie(device, inode) < std::tie(other.device, other.inode); }
    bool operator==(const FileId &other) const { return device == other.device && inode == other.inode; }
};

struct FifoFile {
    std::string name; // below the directory
    FileId id;
    mode_t mode = 0; // type and permission bits
    uid_t user = 0;
    gid_t group = 0;
    int64_t changed = 0; // seconds since the epoch, of the last change of its status: creation, link, mode
    std::string label;   // security context; empty when there is none
};

struct FifoFiles {
    int error = 0;                // errno, when the directory cannot be read
    std::vector<FifoFile> fifos;  // by name
    std::vector<FifoFile> others; // anything else but directories
};

// A name may contain a slash, so folders below are looked into, too. Links are not followed.
FifoFiles ScanFifoFiles(const std::string &directory);

// One file; false when there is none of that name.
bool DescribeFile(const std::string &directory, const std::string &name, FifoFile &file);

std::string WithSlash(const std::string &directory);
// "rw-rw----"
std::string ModeText(mode_t mode);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_FIFOFILES_H
