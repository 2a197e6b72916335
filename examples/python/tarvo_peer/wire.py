"""The bytes: frames on a pipe, packets on a server's FIFO. No input or output happens here."""

import struct
import time
from typing import NamedTuple

MAGIC = 0xA6B7C8D9
MAX_PAYLOAD = 4000  # with the head below PIPE_BUF (4096), so that one write is never torn: pipe(7)

REQUEST = 0
RESPONSE = 1

# magic, id, type, payload length, checksum, time-out in ms, time of writing in monotonic microseconds; host byte order
HEAD = struct.Struct("=IIIIIiq")
NO_TIMEOUT = -1

CONNECT = 0
TERMINATE = 1
PACKET_HEAD = struct.Struct("=IIIi")  # magic, type, group id, process id
NAME_SIZE = struct.Struct("=I")
MAX_ANNOUNCED_NAME = 110

FORBIDDEN = ("|", ";", ">", "<", "`", "&", "(", ")", "$", "..", "\0")
MAX_NAME = 100


class Frame(NamedTuple):
    """One message."""

    id: int
    type: int
    payload: bytes
    timeout_ms: int = NO_TIMEOUT


class Head(NamedTuple):
    """The 32 bytes in front of a payload."""

    magic: int
    id: int
    type: int
    length: int
    checksum: int
    timeout_ms: int
    written_us: int


def checksum(id_, type_, payload):
    """The sum of the id, the type, the length, every byte and the magic, cut to 32 bits."""
    return (id_ + type_ + len(payload) + sum(payload) + MAGIC) & 0xFFFFFFFF


def encode(frame):
    """The bytes of a frame, for one write. Raises ValueError for a payload that no frame may carry."""
    if not 1 <= len(frame.payload) <= MAX_PAYLOAD:
        raise ValueError(f"a payload has 1 to {MAX_PAYLOAD} bytes, not {len(frame.payload)}")
    now_us = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000
    return (
        HEAD.pack(
            MAGIC,
            frame.id,
            frame.type,
            len(frame.payload),
            checksum(frame.id, frame.type, frame.payload),
            frame.timeout_ms,
            now_us,
        )
        + frame.payload
    )


def decode_head(data):
    """The head in 32 bytes, or None when no frame begins there or it announces an impossible payload."""
    if len(data) != HEAD.size:
        return None
    head = Head._make(HEAD.unpack(data))
    return head if head.magic == MAGIC and 1 <= head.length <= MAX_PAYLOAD else None


def finish(head, payload):
    """The frame of a head and its payload, or None when it is short or damaged."""
    if len(payload) != head.length or checksum(head.id, head.type, payload) != head.checksum:
        return None
    return Frame(head.id, head.type, payload, head.timeout_ms)


def connect_packet(name, gid, pid):
    """What a client writes into the FIFO of a server to announce itself under `name`."""
    encoded = name.encode()
    return PACKET_HEAD.pack(MAGIC, CONNECT, gid, pid) + NAME_SIZE.pack(len(encoded)) + encoded


def connect_packets(data):
    """Yields (name, gid, pid) for each connect packet in `data`; skips whatever else is there.

    Writers put a packet in with one write, so a packet that is cut off is damaged and will not become whole.
    """
    magic = struct.pack("=I", MAGIC)
    at = data.find(magic)
    while at >= 0:
        end = at + len(magic)
        head = data[at : at + PACKET_HEAD.size + NAME_SIZE.size]
        if len(head) == PACKET_HEAD.size + NAME_SIZE.size:
            _, type_, gid, pid = PACKET_HEAD.unpack_from(head)
            (size,) = NAME_SIZE.unpack_from(head, PACKET_HEAD.size)
            name = data[at + len(head) : at + len(head) + size] if size <= MAX_ANNOUNCED_NAME else b""
            if type_ == CONNECT and size >= 1 and len(name) == size:
                yield name.decode(errors="replace"), gid, pid
                end = at + len(head) + size
        at = data.find(magic, end)


def check_name(name, longest=MAX_NAME):
    """Raises ValueError for a name that may not be used."""
    if not 1 <= len(name.encode()) <= longest or any(part in name for part in FORBIDDEN):
        raise ValueError(f"not a valid name: {name!r}")
