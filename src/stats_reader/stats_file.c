// Opening statistics files, and the checks that make the rest safe.
#include "stats_reader/stats_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

int TarvoStatsReadAt(const TarvoStatsFile *file, void *data, size_t size, uint64_t offset) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = pread(file->fd, (char *)data + done, size - done, (off_t)(offset + done));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return -errno;
        }
        if (count == 0) {
            return -EBADMSG;
        }
        done += (size_t)count;
    }
    return 0;
}

static int CheckHeader(const TarvoStatsHeader *header, off_t size) {
    if (header->magic != TARVO_STATS_MAGIC) {
        return -EBADMSG;
    }
    if (header->version != TARVO_STATS_VERSION) {
        return -EPROTONOSUPPORT;
    }
    const int sizes = header->headerSize == TARVO_STATS_HEADER_SIZE && header->slotSize == TARVO_STATS_SLOT_SIZE &&
                      header->slots <= TARVO_STATS_MAX_SLOTS;
    // No sum of these can exceed 64 bits.
    if (!sizes || (uint64_t)size < TARVO_STATS_HEADER_SIZE + (uint64_t)header->slots * TARVO_STATS_SLOT_SIZE) {
        return -EBADMSG;
    }
    const int named = memchr(header->process, '\0', sizeof(header->process)) != NULL;
    return named && header->clock == CLOCK_MONOTONIC ? 0 : -EBADMSG;
}

int TarvoStatsReadHeader(const TarvoStatsFile *file, TarvoStatsHeader *header) {
    uint64_t magic = 0;
    int result = TarvoStatsReadAt(file, &magic, sizeof(magic), 0);
    if (result == 0 && magic != TARVO_STATS_MAGIC) {
        return -EBADMSG;
    }
    // It is written last: what is read after it is there.
    atomic_thread_fence(memory_order_acquire);
    result = result < 0 ? result : TarvoStatsReadAt(file, header, sizeof(*header), 0);
    if (result < 0) {
        return result;
    }
    struct stat state;
    // After the header: a file that grows is never shorter than what its header says.
    return fstat(file->fd, &state) < 0 ? -errno : CheckHeader(header, state.st_size);
}

// Takes the descriptor.
static int Accept(int fd, TarvoStatsFile **file) {
    struct stat state;
    TarvoStatsFile opened = {fd, 0};
    TarvoStatsHeader header;
    int result = fstat(fd, &state) < 0 ? -errno : 0;
    if (result == 0 && !S_ISREG(state.st_mode)) {
        result = -EBADMSG;
    }
    if (result == 0) {
        opened.owner = state.st_uid;
        result = TarvoStatsReadHeader(&opened, &header);
    }
    if (result == 0) {
        *file = malloc(sizeof(opened));
        result = *file == NULL ? -ENOMEM : 0;
    }
    if (result < 0) {
        close(fd);
        return result;
    }
    **file = opened;
    return 0;
}

// Not the link but a file, no FIFO whose other end could make this wait, and no terminal of ours.
#define OPEN_FLAGS (O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)

int TarvoStatsOpen(const char *path, TarvoStatsFile **file) {
    const int fd = open(path, OPEN_FLAGS);
    return fd < 0 ? -errno : Accept(fd, file);
}

int TarvoStatsOpenAt(int directory, const char *name, TarvoStatsFile **file) {
    if (*name == '\0' || strchr(name, '/') != NULL) {
        return -EINVAL;
    }
    const int fd = openat(directory, name, OPEN_FLAGS);
    return fd < 0 ? -errno : Accept(fd, file);
}

void TarvoStatsClose(TarvoStatsFile *file) {
    if (file != NULL) {
        close(file->fd);
        free(file);
    }
}

int TarvoStatsAlive(TarvoStatsFile *file) {
    // Only a lock for writing keeps one for reading out, and only who may write to the file can take it. Whoever may
    // merely read the file cannot make a dead process look alive.
    struct flock lock = {.l_type = F_RDLCK, .l_whence = SEEK_SET};
    if (fcntl(file->fd, F_OFD_GETLK, &lock) < 0) {
        return -errno;
    }
    return lock.l_type == F_WRLCK;
}
