// Checks of names and paths, and the loading of small text files.
#ifndef TARVO_FIFO_VELM_CHECK_H
#define TARVO_FIFO_VELM_CHECK_H

#include <climits>
#include <cstddef>
#include <sstream>
#include <string>

// 0 when `name` is a string of exactly `length` characters, 1 to `maxLength`; else -EINVAL and a log line. `name` may
// be null. Any thread.
int CheckInputName(const char *name, std::size_t length, std::size_t maxLength);

using RealPathBuffer = char[PATH_MAX];

// Writes the real path of the existing file `path` into `resolved`, without allocating: openers poll. 0, -EINVAL for an
// empty result, -ENAMETOOLONG, or the negated errno of realpath; `resolved` is then of no use. Any thread.
int ResolveRealPath(const char *path, RealPathBuffer &resolved);

// Replaces `path` by its real path. Results as ResolveRealPath; `path` is untouched on failure. Any thread.
int TransferToRealPath(std::string &path);

// Appends the text of a small file to `out`. An empty file is an error, and zero bytes hide what follows them in their
// chunk of 1023 bytes. 0; -1 when it cannot be opened or read, with `out` holding what was read before; or the negated
// errno of the path resolution. Blocks as reading does. Any thread.
int LoadFile(const std::string &path, std::stringstream &out);

#endif // TARVO_FIFO_VELM_CHECK_H
