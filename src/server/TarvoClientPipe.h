#ifndef TARVO_SERVER_TARVOCLIENTPIPE_H
#define TARVO_SERVER_TARVOCLIENTPIPE_H

#include <string>

#include "pipe/TarvoPipeImpl.h"

// A pipe to another process's server: announces itself there before it opens like any other pipe, under a name of its
// own for each process.
// Owns, Threads, Locks, Ends: as TarvoPipeImpl.
class TarvoClientPipe : public TarvoPipeImpl {
public:
    // Extends the own name by "_" and the process id, so that every instance of a program has FIFOs of its own.
    TarvoClientPipe(const TarvoAttr &attr, PipeObserver &pipeObserver);
    ~TarvoClientPipe() override;

    // Announces the pipe to the server, then opens it as the base does. A failed announcement is reported to the
    // observer and returned: -ENXIO when no server runs, -EAGAIN when its FIFO is full.
    int TimedOpen(int timeoutMs) override;

    // The path of the server's monitor FIFO; "" when it cannot be formed.
    std::string MonitorPipeNameGen();
    // Its write end, or a negated errno; does not wait for a server.
    int OpenServerMonitorPipe(const std::string &name) const;
    // Writes one connect packet: 0 or a negated errno.
    int SendMsgToServer(int serverMonitorFd);

private:
    int Announce(int timeoutMs);
    int FindServer(const std::string &name) const;
    // Files under the pipe's own names, which hold the process id, can only be those of an earlier pipe of this process
    // that the server is about to remove. Announced before that, the new pipe would open them, or have its own removed.
    void AwaitLeftoversGone(int timeoutMs) const;
};

#endif // TARVO_SERVER_TARVOCLIENTPIPE_H
