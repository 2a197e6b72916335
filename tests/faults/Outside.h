// Files outside the FIFO directory that nobody has any business with.
#ifndef TARVO_FAULTS_OUTSIDE_H
#define TARVO_FAULTS_OUTSIDE_H

#include <sys/types.h>

#include <string>

namespace tarvo_test {

// A directory with a file and a FIFO, on the file system of the FIFO directory so that hard links are possible.
class Outside {
public:
    Outside();
    ~Outside();
    Outside(const Outside &) = delete;
    Outside &operator=(const Outside &) = delete;

    const std::string &File() const { return file; }
    const std::string &Fifo() const { return fifo; }
    // A name at which there is nothing.
    const std::string &Nothing() const { return nothing; }

    // What has happened to them: "" when nothing has. Not even that one was opened, unless `mayBeOpened`.
    std::string Touched(bool mayBeOpened = false) const;

private:
    std::string State() const;

    std::string directory;
    std::string file;
    std::string fifo;
    std::string nothing;
    std::string before;
    int watch = -1;
};

} // namespace tarvo_test

#endif // TARVO_FAULTS_OUTSIDE_H
