// What the parts of the reader share.
#ifndef TARVO_STATS_READER_STATS_FILE_H
#define TARVO_STATS_READER_STATS_FILE_H

#include <stddef.h>

#include "tarvo_stats.h"

struct TarvoStatsFile {
    int fd;
    uint32_t owner;
};

// Reads exactly so many bytes from that offset on; -EBADMSG when the file ends before. With pread and not from a
// mapping, in which a file that is cut off meanwhile would raise SIGBUS.
int TarvoStatsReadAt(const TarvoStatsFile *file, void *data, size_t size, uint64_t offset);

// Reads and checks the header: what it says of the file's size is true.
int TarvoStatsReadHeader(const TarvoStatsFile *file, TarvoStatsHeader *header);

#endif // TARVO_STATS_READER_STATS_FILE_H
