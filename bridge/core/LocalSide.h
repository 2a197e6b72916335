#ifndef TARVO_BRIDGE_CORE_LOCALSIDE_H
#define TARVO_BRIDGE_CORE_LOCALSIDE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarvo_bridge {

// A frame as it passes: who has the bytes keeps them.
struct FrameBytes {
    uint32_t id;
    uint32_t type;
    int32_t timeout;
    std::string_view payload;
};

// A client of this machine, as it has announced itself.
struct LocalClient {
    std::string name;
    uint32_t gid = 0;
    int32_t pid = -1;
};

// A pipe of this machine whose frames are not the bridge's own.
// Owns: its ends. Threads: that of the loop. Locks: none. Ends: Close().
class LocalPipe {
public:
    // Owns: nothing. Threads: that of the loop. Locks: none. Ends: after the pipe was closed.
    class Listener {
    public:
        virtual void OnPipeOpen() = 0;
        virtual void OnPipeFailed(int result) = 0;
        // Not after Pause().
        virtual void OnPipeFrame(const FrameBytes &frame) = 0;
        // Write() or Flush() may be tried again.
        virtual void OnPipeWritable() = 0;
        // The remote is gone, and all that it had sent has been told.
        virtual void OnPipeGone() = 0;

    protected:
        ~Listener() = default;
    };

    LocalPipe() = default;
    LocalPipe(const LocalPipe &) = delete;
    LocalPipe &operator=(const LocalPipe &) = delete;

    // False: there is no room; OnPipeWritable() follows. Without a remote the frame is dropped.
    virtual bool Write(const FrameBytes &frame) = 0;
    // Whether all that was written is with the remote, or never will be; otherwise OnPipeWritable() follows.
    virtual bool Flush() = 0;
    // The remote's frames stay where they are until Resume().
    virtual void Pause() = 0;
    virtual void Resume() = 0;
    // The listener hears no more, and the pipe may not be used any more.
    virtual void Close() = 0;

protected:
    ~LocalPipe() = default;
};

// What the bridge does on its machine.
// Owns: the files that it makes. Threads: that of the loop. Locks: none. Ends: after the bridge.
class LocalSide {
public:
    // Owns: nothing. Threads: that of the loop. Locks: none. Ends: after the local side, or told to nobody.
    class Listener {
    public:
        // A server of this machine has come or gone.
        virtual void OnServer(const std::string &name, bool lives) = 0;
        // A client has announced itself to a name that is offered.
        virtual void OnClient(const std::string &name, const LocalClient &client) = 0;

    protected:
        ~Listener() = default;
    };

    LocalSide() = default;
    virtual ~LocalSide() = default;
    LocalSide(const LocalSide &) = delete;
    LocalSide &operator=(const LocalSide &) = delete;

    // Tells of the server of this name from now on.
    virtual void WatchServer(const std::string &name) = 0;
    // Makes the server file of a name. 0 or a negated errno.
    virtual int Offer(const std::string &name) = 0;
    // Whether the server file of a name that is offered is still that one.
    virtual bool IsOffered(const std::string &name) const = 0;
    virtual void Withdraw(const std::string &name) = 0;
    // The pipe of a client of `service` that waits for it; null when it cannot be made.
    virtual LocalPipe *Accept(const std::string &service, const LocalClient &client, LocalPipe::Listener &listener) = 0;
    // A pipe to a server, which sees the client `self` (with the bridge's process id behind it); null as above.
    virtual LocalPipe *Connect(const std::string &service, const std::string &self, LocalPipe::Listener &listener) = 0;
    virtual int64_t NowMs() const = 0;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_LOCALSIDE_H
