#include "decode/Decoder.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "pipe/MagicReceiver.h"
#include "pipe/Message.h"
#include "server/PipeServerMessage.h"

namespace tarvoctl {
namespace {

constexpr std::size_t MAGIC_SIZE = sizeof(uint32_t);
constexpr std::size_t NAME_OFFSET = sizeof(PipeServerMsgHead) + sizeof(uint32_t);

// A frame as it lies in the recording, for the library's own checksum.
class RecordedFrame : public Message {
public:
    RecordedFrame(const MsgHead &head, const char *recorded)
        : Message(head.id, head.type, head.payloadLen), data(recorded) {}
    const char *GetData() const override { return data; }

private:
    const char *data;
};

template <typename Head>
Head HeadAt(const std::string &bytes, std::size_t offset) {
    Head head{};
    std::memcpy(&head, bytes.data() + offset, sizeof(head));
    return head;
}

std::size_t NextMagic(const std::string &bytes, std::size_t from) {
    const std::string magic(reinterpret_cast<const char *>(MagicReceiver::MAGIC_ENUM), MAGIC_SIZE);
    return std::min(bytes.find(magic, from), bytes.size());
}

Field Unsigned(const char *name, uint32_t value, const std::string &remark = "") {
    return {name, value, std::to_string(value), remark};
}

Field Signed(const char *name, int64_t value, const std::string &remark) {
    return {name, static_cast<uint64_t>(value), std::to_string(value), remark};
}

Field Hex(const char *name, uint32_t value, const std::string &remark) {
    return {name, value, fmt::format("{:#010x}", value), remark};
}

const char *FrameTypeText(uint32_t type) {
    return type == MSG_TYPE_REQUEST    ? "request"
           : type == MSG_TYPE_RESPONSE ? "response"
                                       : "unknown: receivers ignore it";
}

const char *PacketTypeText(int32_t type) {
    return type < PIPE_SERVER_MSG_TERMINATE ? "connect" : type == PIPE_SERVER_MSG_TERMINATE ? "terminate" : "unknown";
}

bool LengthValid(const MsgHead &head) { return RecordedFrame(head, nullptr).SizeValid(); }

void AddHead(Piece &piece, const MsgHead &head, const std::string &sum) {
    piece.fields = {Hex("magic", head.magic, ""),
                    Unsigned("id", head.id),
                    Unsigned("type", head.type, FrameTypeText(head.type)),
                    Unsigned("payloadLen", head.payloadLen, LengthValid(head) ? "" : "not 1 to 4000"),
                    Hex("checksum", head.checksum, sum),
                    Signed("timeout", head.timeout, "ms"),
                    Signed("writeStartTime", head.writeStartTime, "us, monotonic")};
}

// Takes apart what starts with the magic number at `offset`.
class PieceDecoder {
public:
    PieceDecoder(const std::string &recorded, std::size_t start) : bytes(recorded), offset(start) {}

    Piece Decode(Kind kind) const;

private:
    std::size_t Left() const { return bytes.size() - offset; }
    bool IsWholeFrame() const;
    bool IsWholePacket() const;
    Piece Frame() const;
    Piece Packet() const;
    void AddName(Piece &piece) const;
    // A piece whose length is not known ends where the next one begins.
    std::size_t UpToNext() const { return NextMagic(bytes, offset + MAGIC_SIZE) - offset; }

    const std::string &bytes;
    const std::size_t offset;
};

bool PieceDecoder::IsWholeFrame() const {
    if (Left() < sizeof(MsgHead)) {
        return false;
    }
    const auto head = HeadAt<MsgHead>(bytes, offset);
    return LengthValid(head) && Left() >= sizeof(head) + head.payloadLen &&
           RecordedFrame(head, bytes.data() + offset + sizeof(head)).Checksum() == head.checksum;
}

bool PieceDecoder::IsWholePacket() const {
    if (Left() < sizeof(PipeServerMsgHead)) {
        return false;
    }
    const auto head = HeadAt<PipeServerMsgHead>(bytes, offset);
    if (head.type == PIPE_SERVER_MSG_TERMINATE) {
        return UpToNext() == sizeof(head);
    }
    if (head.type != PIPE_SERVER_MSG_CONNECT || Left() < NAME_OFFSET) {
        return false;
    }
    const auto size = HeadAt<uint32_t>(bytes, offset + sizeof(head));
    return size >= 1 && size <= PIPE_SERVER_MAX_CLIENT_NAME && Left() - NAME_OFFSET >= size;
}

Piece PieceDecoder::Frame() const {
    Piece piece;
    piece.offset = offset;
    piece.kind = Kind::FRAME;
    piece.size = UpToNext();
    if (Left() < sizeof(MsgHead)) {
        piece.fault = fmt::format("cut off: {} of the {} bytes of a head", Left(), sizeof(MsgHead));
        piece.payload = bytes.substr(offset, piece.size);
        return piece;
    }
    const auto head = HeadAt<MsgHead>(bytes, offset);
    const bool whole = LengthValid(head) && Left() - sizeof(head) >= head.payloadLen;
    if (!whole) {
        AddHead(piece, head, "not verified");
        piece.payload = bytes.substr(offset + sizeof(head), std::max(piece.size, sizeof(head)) - sizeof(head));
        piece.fault = LengthValid(head)
                          ? fmt::format("cut off: {} of {} payload bytes", Left() - sizeof(head), head.payloadLen)
                          : "the payload length is not valid: receivers drop the frame";
        return piece;
    }
    piece.payload = bytes.substr(offset + sizeof(head), head.payloadLen);
    const uint32_t expected = RecordedFrame(head, piece.payload.data()).Checksum();
    const bool right = expected == head.checksum;
    AddHead(piece, head, right ? "right" : fmt::format("wrong, should be {:#010x}", expected));
    if (!right) {
        piece.fault = "the checksum is wrong: receivers drop the frame";
    } else if (head.type > MSG_TYPE_RESPONSE) {
        piece.fault = "the type is unknown: receivers ignore the frame";
    }
    // A wrong checksum may come from a wrong length: the length is believed when something sensible follows it.
    const std::size_t end = offset + sizeof(head) + head.payloadLen;
    if (right || NextMagic(bytes, end) == end) {
        piece.size = sizeof(head) + head.payloadLen;
    }
    return piece;
}

void PieceDecoder::AddName(Piece &piece) const {
    if (Left() < NAME_OFFSET) {
        piece.fault = "cut off before the size of the name";
        return;
    }
    const auto size = HeadAt<uint32_t>(bytes, offset + sizeof(PipeServerMsgHead));
    const bool valid = size >= 1 && size <= PIPE_SERVER_MAX_CLIENT_NAME;
    piece.fields.push_back(Unsigned("nameSize", size, valid ? "" : "not 1 to 110"));
    if (!valid) {
        piece.fault = "the size of the name is not valid: servers refuse the packet";
        return;
    }
    piece.payload = bytes.substr(offset + NAME_OFFSET, size);
    if (piece.payload.size() < size) {
        piece.fault = fmt::format("cut off: {} of {} bytes of the name", piece.payload.size(), size);
    }
    piece.size = NAME_OFFSET + piece.payload.size();
}

Piece PieceDecoder::Packet() const {
    Piece piece;
    piece.offset = offset;
    piece.kind = Kind::PACKET;
    piece.size = UpToNext();
    if (Left() < sizeof(PipeServerMsgHead)) {
        piece.fault = fmt::format("cut off: {} of {} bytes", Left(), sizeof(PipeServerMsgHead));
        piece.payload = bytes.substr(offset, piece.size);
        return piece;
    }
    const auto head = HeadAt<PipeServerMsgHead>(bytes, offset);
    piece.fields = {Hex("magic", head.magic, ""), Signed("type", head.type, PacketTypeText(head.type)),
                    Unsigned("gid", head.gid), Signed("pid", head.pid, "")};
    if (head.type < PIPE_SERVER_MSG_TERMINATE) {
        AddName(piece);
    } else if (head.type == PIPE_SERVER_MSG_TERMINATE) {
        piece.size = sizeof(head);
    } else {
        piece.fault = "the type is unknown: servers skip the packet";
    }
    return piece;
}

Piece PieceDecoder::Decode(Kind kind) const {
    // The checksum makes a whole frame all but certain, so it goes first.
    const bool packet = kind == Kind::PACKET || (kind == Kind::ANY && !IsWholeFrame() && IsWholePacket());
    return packet ? Packet() : Frame();
}

} // namespace

std::vector<Piece> Decode(const std::string &bytes, Kind kind) {
    std::vector<Piece> pieces;
    std::size_t offset = 0;
    while (offset < bytes.size()) {
        const std::size_t magic = NextMagic(bytes, offset);
        if (magic > offset) {
            Piece garbage;
            garbage.offset = offset;
            garbage.size = magic - offset;
            garbage.payload = bytes.substr(offset, garbage.size);
            garbage.fault = "no magic number";
            pieces.push_back(garbage);
        } else {
            pieces.push_back(PieceDecoder(bytes, offset).Decode(kind));
        }
        offset += pieces.back().size;
    }
    return pieces;
}

} // namespace tarvoctl
