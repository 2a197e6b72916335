#include "faults/Outside.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "support/Names.h"

namespace tarvo_test {

Outside::Outside()
    : directory("/dev/shm/" + UniqueName("outside")), file(directory + "/file"), fifo(directory + "/fifo"),
      nothing(directory + "/nothing") {
    mkdir(directory.c_str(), 0700);
    std::ofstream(file) << "untouched";
    ::chmod(file.c_str(), 0600);
    ::mkfifo(fifo.c_str(), 0600);
    before = State();
    watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    for (const std::string *watched : {&file, &fifo}) {
        inotify_add_watch(watch, watched->c_str(), IN_OPEN | IN_ACCESS | IN_MODIFY);
    }
}

Outside::~Outside() {
    ::close(watch);
    for (const std::string *made : {&file, &fifo, &nothing}) {
        ::unlink(made->c_str());
    }
    rmdir(directory.c_str());
}

std::string Outside::State() const {
    std::ostringstream text;
    for (const std::string *path : {&file, &fifo, &nothing}) {
        struct stat state {};
        if (::lstat(path->c_str(), &state) == 0) {
            text << *path << " mode " << std::oct << state.st_mode << std::dec << " owner " << state.st_uid << ':'
                 << state.st_gid << " size " << state.st_size << " modified " << state.st_mtim.tv_sec << '.'
                 << state.st_mtim.tv_nsec << '\n';
        }
    }
    return text.str();
}

std::string Outside::Touched(bool mayBeOpened) const {
    alignas(inotify_event) char events[16 * sizeof(inotify_event)];
    if (!mayBeOpened && ::read(watch, events, sizeof(events)) > 0) {
        return "opened";
    }
    const std::string now = State();
    if (now != before) {
        return before + "became\n" + now;
    }
    std::ifstream content(file);
    const std::string text{std::istreambuf_iterator<char>(content), std::istreambuf_iterator<char>()};
    content.close();
    while (::read(watch, events, sizeof(events)) > 0) {
        // That was this look.
    }
    return text == "untouched" ? "" : "the file says " + text;
}

} // namespace tarvo_test
