// The files of a directory.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "tarvo_stats.h"

int TarvoStatsEach(const char *directory, int (*each)(void *context, int descriptor, const char *name), void *context) {
    const int fd = open(directory, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return -errno;
    }
    DIR *const stream = fdopendir(fd);
    if (stream == NULL) {
        const int error = errno;
        close(fd);
        return -error;
    }
    int result = 0;
    while (result == 0) {
        errno = 0;
        const struct dirent *const entry = readdir(stream); // the stream is this thread's alone
        if (entry == NULL) {
            result = -errno;
            break;
        }
        if (entry->d_name[0] != '.') {
            result = each(context, fd, entry->d_name);
        }
    }
    closedir(stream);
    return result;
}
