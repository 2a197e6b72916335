// The files of links and servers, as those know them that hold one of their ends.
#ifndef TARVO_LOOP_FILES_H
#define TARVO_LOOP_FILES_H

#include <string>

// Opens the FIFO that stands under `name` itself, never through a link, without blocking and closed by exec. `flags` is
// O_RDONLY or O_WRONLY. The descriptor; -EACCES for anything but a FIFO, which is not opened unless it takes the place
// of one in this very moment; or a negated errno: -ENXIO as long as nobody reads, -ENOENT when it is not there.
int OpenEnd(const std::string &name, int flags);

// Whether `fd` is open and its file stands under `name` itself.
bool StandsUnder(int fd, const std::string &name);

// Removes the file of `fd`, unless it is seen that another one has its name by now.
void RemoveOwnFile(int fd, const std::string &name);

#endif // TARVO_LOOP_FILES_H
