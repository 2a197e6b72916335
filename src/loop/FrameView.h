#ifndef TARVO_LOOP_FRAMEVIEW_H
#define TARVO_LOOP_FRAMEVIEW_H

#include "pipe/Message.h"

// A message whose payload lies elsewhere, to hold it against the rules that all messages follow.
// Owns: nothing. Threads, Locks, Ends: as Message.
class FrameView final : public Message {
public:
    FrameView(uint32_t msgId, uint32_t msgType, const char *bytes, uint32_t size)
        : Message(msgId, msgType, size), payload(bytes) {}

    const char *GetData() const override { return payload; }

private:
    const char *payload;
};

#endif // TARVO_LOOP_FRAMEVIEW_H
