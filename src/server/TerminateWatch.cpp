#include "server/TerminateWatch.h"

#include <unistd.h>

#include <cstring>

#include "pipe/MagicReceiver.h"
#include "server/PipeServerMessage.h"

void TerminateWatch::Note(const char *bytes, std::size_t count) {
    const PipeServerMsgHead packet{MagicReceiver::MAGIC, PIPE_SERVER_MSG_TERMINATE, getgid(), getpid()};
    static_assert(sizeof(packet) == SIZE, "the terminate packet is a head and nothing else");
    for (std::size_t i = 0; i < count; ++i) {
        std::memmove(last.data(), last.data() + 1, SIZE - 1);
        last[SIZE - 1] = bytes[i];
        seenAll = seenAll || std::memcmp(last.data(), &packet, SIZE) == 0;
    }
    seenBegin = false;
    for (std::size_t length = 1; length < SIZE && !seenBegin; ++length) {
        seenBegin = std::memcmp(last.data() + (SIZE - length), &packet, length) == 0;
    }
}
