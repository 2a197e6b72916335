// FIFO files and epoll sets. Every function logs its failures and returns them as negated errno values; all may be
// called from any thread.
#ifndef TARVO_FIFO_VELM_FIFO_H
#define TARVO_FIFO_VELM_FIFO_H

#include <cstdint>
#include <string>

#include "tarvo.h"

// Creates the FIFO `name` (a full path), mode 0660, group `gid` (0xFFFFFFFF: the creator's) and labelled for the peer,
// see LabelFifo. It appears under its name only when it is complete. What has that name before the call is replaced; a
// FIFO that another process publishes meanwhile is adopted; anything else that appears there meanwhile is removed.
// 0; -EACCES when a file that is no FIFO appeared, -EINVAL when that was a symbolic link, or the errno of the system
// call that failed. Leaves no other file behind. Does not block. Throws std::bad_alloc before it has created anything.
int CreateFifo(const std::string &name, uint32_t gid, int32_t targetPid, TarvoDomain domain,
               const std::string &targetCon);

// Opens the existing FIFO `name` by its real path with exactly `flags` (see open(2)). The descriptor, or a negated
// errno. Without O_NONBLOCK it blocks until the other end is opened, and is then a cancellation point whatever the
// caller's cancel state. -ENXIO is not logged: pollers get it until there is a reader.
int OpenFifo(const std::string &name, int flags);

// OpenFifo for a file that others may have tampered with: the descriptor only when it is that of the FIFO which stands
// under `name` itself, so that nothing is ever read from or written to a file that a link leads to. -EACCES for any
// other kind of file; -ENOENT, without a line of its own, for a FIFO that is gone or another one before it was sure:
// look again as for one that is still to come.
int OpenPublishedFifo(const std::string &name, int flags);

// 0 when `path` itself is a FIFO, -EACCES when it is anything else (links are not followed), or the errno of lstat.
int IsFifoFile(const std::string &path);

// Has epoll set `epfd` report `events` of `fd` with `data` in the 32-bit member `data.fd`. 0 or a negated errno.
int AddFdToEpoll(int epfd, int fd, int data, uint32_t events);

// 0 or a negated errno.
int RemoveFdFromEpoll(int epfd, int fd);

#endif // TARVO_FIFO_VELM_FIFO_H
