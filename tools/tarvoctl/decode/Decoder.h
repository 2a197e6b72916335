// Takes recorded bytes apart: frames of pipes and packets of server FIFOs.
#ifndef TARVO_TARVOCTL_DECODER_H
#define TARVO_TARVOCTL_DECODER_H

#include <cstdint>
#include <string>
#include <vector>

namespace tarvoctl {

enum class Kind {
    ANY,     // told apart by what fits
    FRAME,   // a request or response on a pipe
    PACKET,  // a connect or terminate packet on the FIFO of a server
    GARBAGE, // bytes before the next magic number
};

struct Field {
    std::string name;
    uint64_t number = 0; // the bits as they stand; `text` has them with their sign
    std::string text;
    std::string remark; // what the value means, or what is wrong with it
};

// One piece of the bytes.
struct Piece {
    std::size_t offset = 0;
    std::size_t size = 0;
    Kind kind = Kind::GARBAGE;
    std::vector<Field> fields;
    std::string payload; // of a frame, or the name in a packet; the bytes themselves of garbage
    std::string fault;   // empty when a receiver takes it
};

// Every byte is part of exactly one piece, in order. After a piece that is wrong it goes on at the next magic number.
std::vector<Piece> Decode(const std::string &bytes, Kind kind);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_DECODER_H
