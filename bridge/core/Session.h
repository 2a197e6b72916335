#ifndef TARVO_BRIDGE_CORE_SESSION_H
#define TARVO_BRIDGE_CORE_SESSION_H

#include <cstdint>
#include <deque>
#include <string>

#include "core/LocalSide.h"
#include "core/Protocol.h"

namespace tarvo_bridge {

// One side of a client's pipe to a server of another machine: a pipe of this machine, and what the other side has been
// told of it. It takes no frame from its pipe that the other side has not given credit for, so that what waits anywhere
// on the way is bounded by the windows of the two.
// Owns: its pipe, and the frames that wait for room in it. Threads: that of the loop. Locks: none. Ends: it tells its
// owner, once, or is freed.
class Session final : public LocalPipe::Listener {
public:
    // Owns: nothing. Threads: that of the loop. Locks: none. Ends: after its sessions.
    class Owner {
    public:
        // False: no more frames before OnRoom().
        virtual bool SendItem(Session &session, Item &&item) = 0;
        // The pipe of the client; null when it cannot be made.
        virtual LocalPipe *MakeClientPipe(Session &session) = 0;
        // Nothing more comes of it. Must not free it before it returns.
        virtual void OnSessionOver(Session &session) = 0;

    protected:
        ~Owner() = default;
    };

    Session(uint32_t sessionNumber, bool isOpener, uint32_t mostFrames, Owner &sessionOwner)
        : number(sessionNumber), opener(isOpener), window(mostFrames), owner(sessionOwner) {}
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    uint32_t Number() const { return number; }
    bool IsOpener() const { return opener; }

    // At the client's side: asks the other for its pipe.
    void Ask(const std::string &service, const std::string &client);
    // At the server's side: null when the pipe cannot be made.
    void Take(LocalPipe *serverPipe, uint32_t credit);

    void OnItem(Item &item);
    // More frames may be sent.
    void OnRoom();
    // The link is down: as if the other side had closed.
    void OnLinkDown();

    void OnPipeOpen() override;
    void OnPipeFailed(int result) override;
    void OnPipeFrame(const FrameBytes &frame) override;
    void OnPipeWritable() override;
    void OnPipeGone() override;

    // As it is shown.
    std::size_t Waiting() const { return frames.size(); }
    uint32_t Credit() const { return credit; }
    bool IsOpening() const { return state == State::NEW || state == State::ASKED || state == State::OPENING; }
    bool IsDraining() const { return state == State::DRAINING; }
    // What tells the other side that there is nothing here.
    Item Closing() const { return Make(ItemKind::CLOSE, 0); }

    static constexpr uint32_t LARGEST_WINDOW = 4096;

private:
    // ASKED: the other side was asked. OPENING: the pipe here is. DRAINING: the other side is gone, what it sent is not
    // delivered yet.
    enum class State { NEW, ASKED, OPENING, OPEN, DRAINING, OVER };

    Item Make(ItemKind kind, uint32_t count) const;
    void OnOpened(const Item &item);
    void OnFrame(Item &item);
    void OnCredit(uint32_t count);
    void Deliver();
    void GrantWhatIsDue();
    void Drain();
    void Refuse();
    void Finish();

    const uint32_t number;
    const bool opener;
    const uint32_t window;
    Owner &owner;
    LocalPipe *pipe = nullptr;
    State state = State::NEW;
    uint32_t credit = 0;    // frames that may still be sent
    uint32_t delivered = 0; // frames whose room has not been given back
    std::deque<Item> frames;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_SESSION_H
