#ifndef TARVO_SERVER_PIPESERVER_H
#define TARVO_SERVER_PIPESERVER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "base/LockOrder.h"
#include "base/Mutex.h"
#include "pipe/MagicReceiver.h"
#include "server/TerminateWatch.h"
#include "stats/StatsSlot.h"
#include "tarvo.h"
#include "worker/tarvo_thread.h"

class TarvoTable;

// Makes this process reachable under its name: reads the connect packets of clients from its monitor FIFO and opens a
// pipe back to each.
// Owns: the monitor FIFO, both its descriptors, an epoll descriptor and the thread "tarvo_server". Threads: any may
// start and close it; Recv, the packet loop and the open callback belong to the server thread. Locks: mutex serialises
// starting and closing and is held while the server thread is waited for, so that thread never takes it; attrMutex is
// a leaf. Ends: the destructor closes it; the table outlives it.
class PipeServer : public MagicReceiver {
public:
    // The server of this process, made on first use; empty once the pipe table or the server itself has gone down with
    // the process. Whoever holds the reference keeps the table alive as well.
    static std::shared_ptr<PipeServer> GetInstance();

    // For GetInstance; a process has one.
    explicit PipeServer(TarvoTable &pipeTable);
    ~PipeServer() override;

    // Starts the server: 0, -EEXIST while it runs, or the negated errno of the step that failed, undone up to there.
    // May be called by an open callback (and is refused there).
    int Init(const TarvoServerAttr &serverAttr) EXCLUDES(mutex);

    // Serves the clients that have announced themselves, ends the thread, also in the middle of a packet that never
    // ends, and closes the descriptors. The FIFO file stays. In an open callback it only has the thread end after that
    // callback.
    void Close() EXCLUDES(mutex);

    // Removes the monitor FIFO; takes no lock, for the handler of a fatal signal.
    void ExceptionHandler() const;

    std::string GetFifoNameForDFX() const;
    TarvoServerAttr GetServerAttr() const EXCLUDES(attrMutex);

    // Reads up to `len` bytes once there are any. Server thread only.
    int Recv(void *buf, unsigned long len) override;

    // The server thread.
    void MonitorRoutine();
    void MonitorRoutineLinux();
    void CallTarvoOpenAsync(const std::unique_ptr<char[]> &clientName, uint32_t gid, int pid) const;

    // Writes the packet that ends the server thread: 0 or a negated errno.
    int SendMsgToServer(int fd) const;

private:
    int RefuseSecondInit() const;
    void StoreAttr(const TarvoServerAttr &serverAttr) REQUIRES(mutex);
    // The steps of Init. Each leaves nothing behind when it fails, and errno as the failure set it.
    int InitServer() REQUIRES(mutex);
    int PreparaFifoFile() REQUIRES(mutex);
    // One attempt of it: 0, also when HoldsBothEnds does not hold.
    int PublishFifo() REQUIRES(mutex);
    int OpenWriteEnd() REQUIRES(mutex);
    // Whether both ends are those of one file, which still has the name.
    bool HoldsBothEnds() const REQUIRES(mutex);
    int LoseFile(int error) const REQUIRES(mutex);
    int GetFifoName() REQUIRES(mutex);
    int PrepareEpoll() REQUIRES(mutex);
    int StartThread() REQUIRES(mutex);

    void CloseLocked() REQUIRES(mutex);
    // What is left of a run whose thread has ended by itself.
    void ReleaseEndedRun() REQUIRES(mutex);
    void WakeThread() REQUIRES(mutex);
    void JoinThread() REQUIRES(mutex);
    bool IsServerThread() const;
    void CloseDescriptors() REQUIRES(mutex);
    const std::string &FifoName() const { return *fifoName.load(std::memory_order_acquire); }

    // False when the loop is to end.
    bool ServePacket();
    int ReadFifo(void *buf, unsigned long len, bool woken);
    // Whether the `count` bytes just read have come after Close: as much was read since as the FIFO can hold.
    bool HasComeAfterClose(std::size_t count);
    void ServeConnectPacket();
    std::unique_ptr<char[]> ReadClientName(uint32_t size);
    void LetBlockedWritersGo();
    int OpenPipe(const char *clientName, uint32_t gid, int pid) const;
    void CountBad() const;
    void CountOpen(bool opened, uint64_t announcedAt) const;

    Mutex mutex ACQUIRED_BEFORE(lock_order::pipe);
    // True while a server is being set up or runs; cleared by the thread when it ends by itself.
    std::atomic<bool> running{false};
    // Tells the thread to end after the packet that it serves.
    std::atomic<bool> stopping{false};
    // Set before Close writes its packet: the thread ends once there is nothing more to read, whether it comes across
    // that packet or not.
    std::atomic<bool> closing{false};
    TarvoThread monitorThread GUARDED_BY(mutex);

    // Every path served so far. Its nodes neither move nor go before the server does, so that fifoName, which points
    // at one of them, may be read without a lock in a signal handler.
    std::set<std::string> fifoNames GUARDED_BY(mutex);
    std::atomic<const std::string *> fifoName;

    // Written under `mutex` while no server thread exists, and constant while it runs.
    int monitorFd = -1;
    int writeFd = -1;
    std::function<void(int, const std::string &)> openCallback;
    int epollFd = -1;

    // The server thread's. Once it has ended, nothing is read any more.
    bool ended = false;
    std::optional<std::size_t> leftToRead; // while closing: in bytes, of what may have been there before
    TerminateWatch watch;
    bool garbled = false; // what was read last is no packet

    // Taken before the thread starts, which counts.
    StatsSlot counted;

    const char *threadName = "tarvo_server";
    TarvoTable &table;
    mutable Mutex attrMutex ACQUIRED_AFTER(lock_order::leaves) ACQUIRED_BEFORE(lock_order::logging);
    TarvoServerAttr attr GUARDED_BY(attrMutex);
};

#endif // TARVO_SERVER_PIPESERVER_H
