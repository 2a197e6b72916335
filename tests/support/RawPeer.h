// A process that speaks to the library over FIFOs opened by hand.
#ifndef TARVO_SUPPORT_RAWPEER_H
#define TARVO_SUPPORT_RAWPEER_H

#include <cstddef>
#include <string>

#include "support/RawFrame.h"

namespace tarvo_test {

// Waits for the server's FIFO to have a reader and writes the bytes to it in one write.
void WriteToRawServer(const std::string &server, const std::string &bytes);

// One end of a pipe between two names, seen from `self`. All waits end after 30 s with an exception, as does every
// system call that fails unexpectedly.
class RawPeer {
public:
    RawPeer(const std::string &self, const std::string &remote);
    ~RawPeer(); // closes, and removes the files if it created them
    RawPeer(const RawPeer &) = delete;
    RawPeer &operator=(const RawPeer &) = delete;

    // The part of the side that creates the files: both FIFOs and the read end. The write end follows with OpenWrite.
    void CreateFiles();
    // Opens the read end once its file is there; does not wait for a writer.
    void OpenRead();
    // Opens the write end once its file is there and has a reader.
    void OpenWrite();
    // The part of the side that waits for the files: write end first, as the library does.
    void OpenBoth();
    void CloseRead();
    void CloseWrite();

    // One write of all the bytes; anything else throws.
    void Send(const std::string &bytes);
    // One write; 0, or the errno that it failed with.
    int TrySend(const std::string &bytes);
    // One write of as many of the bytes as the FIFO has room for; how many that were.
    std::size_t SendSome(const std::string &bytes);
    // The next message. Throws on a hang-up, and on a head whose magic or checksum is wrong.
    RawFrame Receive();
    // True when bytes wait to be read right now.
    bool HasInput() const;
    // Returns once the other side holds no write end any more and all it wrote has been read.
    void AwaitHangup();
    // Returns once the other side has closed its read end.
    void AwaitReaderGone();

    int ReadDescriptor() const { return readFd_; }
    int WriteDescriptor() const { return writeFd_; }
    const std::string &WriteFile() const { return writeFile_; }
    const std::string &ReadFile() const { return readFile_; }

private:
    std::string ReadExactly(std::size_t size);

    const std::string writeFile_;
    const std::string readFile_;
    int readFd_ = -1;
    int writeFd_ = -1;
    bool created_ = false;
};

// One that has both ends open, of a pipe whose files the other side has created.
class JoinedRawPeer : public RawPeer {
public:
    JoinedRawPeer(const std::string &self, const std::string &remote) : RawPeer(self, remote) { OpenBoth(); }
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_RAWPEER_H
