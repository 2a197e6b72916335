// Failures of what only statistics files are handled with. A test program that lists FileFaults.cpp among its sources
// has these functions in front of the C library's; openat() obeys the rules for Call::Open, and pread(), whose offset
// is the call's number, those for Call::Read.
#ifndef TARVO_SUPPORT_FILEFAULTS_H
#define TARVO_SUPPORT_FILEFAULTS_H

namespace tarvo_test {

enum class FileCall {
    Fdopendir,
    Mmap, // of a file
    Readdir,
    Count,
};

// While it lives, the `nth` of these calls from here, 1 being the next, and each after it fails with `error`.
class FileFault {
public:
    FileFault(FileCall call, int error, unsigned nth = 1);
    ~FileFault();
    FileFault(const FileFault &) = delete;
    FileFault &operator=(const FileFault &) = delete;

private:
    const FileCall call;
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_FILEFAULTS_H
