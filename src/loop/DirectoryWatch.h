#ifndef TARVO_LOOP_DIRECTORYWATCH_H
#define TARVO_LOOP_DIRECTORYWATCH_H

#include <cstdint>
#include <string>
#include <string_view>

#include "base/UniqueFd.h"
#include "loop/Poller.h"

struct TarvoLoop;

// Somebody who waits for files. Owns: nothing. Threads: that of the loop. Locks: none. Ends: in no DirectoryWatch.
class FileWaiter {
public:
    FileWaiter() = default;
    virtual ~FileWaiter() = default;
    FileWaiter(const FileWaiter &) = delete;
    FileWaiter &operator=(const FileWaiter &) = delete;

    // A file of this name has come into the FIFO directory; empty: some have. Takes nobody else out.
    virtual void OnFileChanged(std::string_view name) = 0;

private:
    friend class DirectoryWatch;
    FileWaiter *next = nullptr;
    FileWaiter *previous = nullptr;
    bool waits = false;
};

// Tells those who wait for files in the FIFO directory of those that come. Watches it only while there are any.
// Owns: its descriptor. Threads: that of the loop. Locks: none. Ends: before the loop's epoll set.
class DirectoryWatch final : public Watcher {
public:
    explicit DirectoryWatch(TarvoLoop &owner) : loop(owner) {}
    ~DirectoryWatch() override = default;

    // From now on `waiter` is told of files, if the system has a watch for that, and of the end of the watch as if some
    // had come. It is taken out with Remove.
    void Add(FileWaiter &waiter);
    void Remove(FileWaiter &waiter);

    // Whether those who wait are told; otherwise they have to look by themselves.
    bool IsWatching() const { return directory >= 0; }

    // Readable when there is news; -1: nobody waits.
    int Fd() const { return watch.fd; }

    void OnEvents(uint32_t what, uint32_t events) override;

private:
    void Begin();
    void Forget();
    void End();
    void Tell(std::string_view name);

    TarvoLoop &loop;
    UniqueFd fd; // once there was a first watch
    int directory = -1;
    Watch watch;
    FileWaiter *first = nullptr;
};

#endif // TARVO_LOOP_DIRECTORYWATCH_H
