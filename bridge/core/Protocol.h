// What bridges tell each other, apart from how the network carries it. network/tarvo_bridge.idl has the same for
// others.
#ifndef TARVO_BRIDGE_CORE_PROTOCOL_H
#define TARVO_BRIDGE_CORE_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarvo_bridge {

constexpr uint32_t PROTOCOL_VERSION = 1;
constexpr std::size_t MAX_ITEMS = 256;
// What an announcement has room for.
constexpr std::size_t MAX_SERVICES = 1024;
constexpr std::size_t MAX_NAMES = 2048;
constexpr std::size_t MAX_MACHINE_LENGTH = 40;

// One run of a bridge, from its start to its end: a number drawn at random, never 0.
using RunId = uint64_t;

// What a bridge tells all others of itself.
struct Announcement {
    RunId run = 0;
    uint32_t version = PROTOCOL_VERSION;
    std::string machine;
    std::vector<std::string> services; // that can be reached through it now
    std::vector<std::string> names;    // local names that are this bridge's alone on its machine
};

enum class ItemKind : uint32_t {
    OPEN = 0,   // a client of `service` is there; `count`: frames that may be sent to it before more are granted
    OPENED = 1, // its pipe to the server is open; `count` as in OPEN, the other way
    FRAME = 2,
    CREDIT = 3, // `count` more frames may be sent
    CLOSE = 4,  // this side has ended
};

// One thing about one session. Sessions are numbered by the side that opens them, which is what `opener` says of the
// sender.
struct Item {
    ItemKind kind = ItemKind::CLOSE;
    uint32_t session = 0;
    bool opener = false;
    uint32_t count = 0;
    std::string service; // OPEN
    std::string client;  // OPEN
    uint32_t id = 0;     // FRAME: as in the frame, to the end
    uint32_t type = 0;
    int32_t timeout = 0;
    std::string payload;
};

// What travels from one bridge to another at once. `mine` counts the sender's beginnings of this link, `theirs` is the
// receiver's count as the sender has last heard it (0: not yet). A bundle without items greets.
struct Bundle {
    RunId from = 0;
    RunId to = 0;
    uint32_t mine = 0;
    uint32_t theirs = 0;
    bool confirmed = false; // the sender knows that it is heard
    uint64_t sequence = 0;  // with items: one more than before; in a greeting: that of the last with items
    std::vector<Item> items;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_CORE_PROTOCOL_H
