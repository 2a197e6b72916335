#include "support/RawPeer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include "support/FifoWatch.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

constexpr int LIMIT_MS = 30000;

[[noreturn]] void Fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), "raw peer: " + what);
}

void CheckThat(bool condition, const std::string &what) {
    if (!condition) {
        throw std::runtime_error("raw peer: " + what);
    }
}

int OpenWithReader(const std::string &file) {
    int fd = -1;
    AwaitFifoDirectory("reader of " + file, [&] {
        fd = open(file.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0 && errno != ENOENT && errno != ENXIO) {
            Fail("open " + file);
        }
        return fd >= 0;
    });
    return fd;
}

void WriteWhole(int fd, const std::string &bytes) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0) {
        Fail("write");
    }
    CheckThat(static_cast<std::size_t>(written) == bytes.size(), "short write");
}

} // namespace

void WriteToRawServer(const std::string &server, const std::string &bytes) {
    const int fd = OpenWithReader(FifoDirectory() + server);
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    close(fd);
    CheckThat(written == static_cast<ssize_t>(bytes.size()), "short write to server " + server);
}

RawPeer::RawPeer(const std::string &self, const std::string &remote)
    : writeFile_(FifoPath(self, remote)), readFile_(FifoPath(remote, self)) {
    // A reader that goes away is part of what tests try; it must not end them.
    std::signal(SIGPIPE, SIG_IGN);
}

RawPeer::~RawPeer() {
    CloseRead();
    CloseWrite();
    if (created_) {
        unlink(readFile_.c_str());
        unlink(writeFile_.c_str());
    }
}

void RawPeer::CreateFiles() {
    created_ = true;
    for (const std::string *file : {&writeFile_, &readFile_}) {
        unlink(file->c_str());
        if (mkfifo(file->c_str(), 0660) != 0 || chmod(file->c_str(), 0660) != 0) {
            Fail("create " + *file);
        }
        if (file == &readFile_) {
            OpenRead();
        }
    }
}

void RawPeer::OpenRead() {
    AwaitFifoDirectory("file " + readFile_, [this] {
        readFd_ = open(readFile_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (readFd_ < 0 && errno != ENOENT) {
            Fail("open " + readFile_);
        }
        return readFd_ >= 0;
    });
}

void RawPeer::OpenWrite() { writeFd_ = OpenWithReader(writeFile_); }

void RawPeer::OpenBoth() {
    OpenWrite();
    OpenRead();
}

void RawPeer::CloseRead() {
    if (readFd_ >= 0) {
        close(readFd_);
    }
    readFd_ = -1;
}

void RawPeer::CloseWrite() {
    if (writeFd_ >= 0) {
        close(writeFd_);
    }
    writeFd_ = -1;
}

void RawPeer::Send(const std::string &bytes) { WriteWhole(writeFd_, bytes); }

int RawPeer::TrySend(const std::string &bytes) {
    const ssize_t written = write(writeFd_, bytes.data(), bytes.size());
    if (written < 0) {
        return errno;
    }
    CheckThat(static_cast<std::size_t>(written) == bytes.size(), "short write");
    return 0;
}

std::size_t RawPeer::SendSome(const std::string &bytes) {
    const ssize_t written = write(writeFd_, bytes.data(), bytes.size());
    if (written <= 0) {
        Fail("write to " + writeFile_);
    }
    return static_cast<std::size_t>(written);
}

std::string RawPeer::ReadExactly(std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t done = 0;
    while (done < size) {
        pollfd entry = {readFd_, POLLIN, 0};
        CheckThat(poll(&entry, 1, LIMIT_MS) > 0, "waited 30 s in vain for bytes of " + readFile_);
        const ssize_t count = read(readFd_, &bytes[done], size - done);
        if (count < 0 && errno != EAGAIN) {
            Fail("read " + readFile_);
        }
        CheckThat(count != 0, "hang-up of " + readFile_);
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return bytes;
}

RawFrame RawPeer::Receive() {
    RawFrame frame = DecodeRawHead(ReadExactly(RAW_HEAD_SIZE));
    CheckThat(frame.magic == RAW_MAGIC, "wrong magic");
    CheckThat(frame.length >= 1 && frame.length <= 4000, "wrong length");
    frame.payload = ReadExactly(frame.length);
    CheckThat(frame.checksum == RawChecksum(frame.id, frame.type, frame.payload), "wrong checksum");
    return frame;
}

bool RawPeer::HasInput() const {
    pollfd entry = {readFd_, POLLIN, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & POLLIN) != 0;
}

void RawPeer::AwaitHangup() {
    char bytes[4096];
    pollfd entry = {readFd_, POLLIN, 0};
    do {
        while (read(readFd_, bytes, sizeof(bytes)) > 0) {
        }
        CheckThat(poll(&entry, 1, LIMIT_MS) > 0, "waited 30 s in vain for the hang-up of " + readFile_);
    } while ((entry.revents & POLLIN) != 0);
}

void RawPeer::AwaitReaderGone() {
    // A write end reports an error, whatever was asked for, once nobody reads.
    pollfd entry = {writeFd_, 0, 0};
    CheckThat(poll(&entry, 1, LIMIT_MS) > 0, "waited 30 s in vain for the end of the reader of " + writeFile_);
}

} // namespace tarvo_test
