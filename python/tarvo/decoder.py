"""Takes recorded bytes apart: frames of pipes and packets of servers' FIFOs. It judges as `tarvoctl decode` does."""

from __future__ import annotations

import struct
from collections.abc import Iterator
from dataclasses import dataclass, field
from typing import Literal

from .frames import HEAD, HEAD_SIZE, MAGIC_BYTES, MAX_PAYLOAD, RESPONSE, checksum
from .packets import CONNECT, MAX_ANNOUNCED, TERMINATE

Kind = Literal["frame", "packet", "garbage"]
Wanted = Literal["any", "frame", "packet"]

_PACKET_HEAD = struct.Struct("=IiIi")
_NAME_SIZE = struct.Struct("=I")
_NAME_AT = _PACKET_HEAD.size + _NAME_SIZE.size


@dataclass
class Piece:
    """One piece of the bytes. Each byte belongs to exactly one."""

    offset: int
    """Of its first byte."""
    size: int
    """In bytes."""
    kind: Kind
    """What it is."""
    fields: dict[str, int] = field(default_factory=dict)
    """Of its head, by the names of the wire format: magic, id, type, payloadLen, checksum, timeout (ms), writeStartTime
    (us, monotonic); of a packet magic, type, gid, pid, nameSize."""
    payload: bytes = b""
    """Of a frame; the name in a packet; the bytes themselves of garbage."""
    fault: str = ""
    """Why receivers do not take it; empty when they do."""

    @property
    def checksum_right(self) -> bool:
        """Whether it is a whole frame and its sum fits."""
        head = self.fields
        return (
            self.kind == "frame"
            and bool(head)
            and len(self.payload) == head["payloadLen"]
            and checksum(head["id"], head["type"], self.payload) == head["checksum"]
        )


def decode(data: bytes, kind: Wanted = "any") -> Iterator[Piece]:
    """Yields the pieces in order. After one that is wrong it goes on at the next magic number.

    `kind`: frame (recorded from a pipe), packet (from the FIFO of a server), or any: a whole frame with a right
    checksum is one, otherwise a whole packet is one.
    """
    at = 0
    while at < len(data):
        begin = _next_magic(data, at)
        if begin > at:
            piece = Piece(at, begin - at, "garbage", payload=data[at:begin], fault="no magic number")
        elif kind == "packet" or (kind == "any" and not _is_whole_frame(data, at) and _is_whole_packet(data, at)):
            piece = _packet(data, at)
        else:
            piece = _frame(data, at)
        yield piece
        at += piece.size


def _next_magic(data: bytes, start: int) -> int:
    found = data.find(MAGIC_BYTES, start)
    return len(data) if found < 0 else found


def _up_to_next(data: bytes, at: int) -> int:
    """The size of a piece whose length is not known: it ends where the next one begins."""
    return _next_magic(data, at + len(MAGIC_BYTES)) - at


def _frame_fields(data: bytes, at: int) -> dict[str, int]:
    names = ("magic", "id", "type", "payloadLen", "checksum", "timeout", "writeStartTime")
    return dict(zip(names, HEAD.unpack_from(data, at), strict=True))


def _is_length(size: int) -> bool:
    return 1 <= size <= MAX_PAYLOAD


def _is_whole_frame(data: bytes, at: int) -> bool:
    if len(data) - at < HEAD_SIZE:
        return False
    return _frame(data, at).checksum_right


def _is_whole_packet(data: bytes, at: int) -> bool:
    left = len(data) - at
    if left < _PACKET_HEAD.size:
        return False
    _, type_, _, _ = _PACKET_HEAD.unpack_from(data, at)
    if type_ == TERMINATE:
        return _up_to_next(data, at) == _PACKET_HEAD.size
    if type_ != CONNECT or left < _NAME_AT:
        return False
    (size,) = _NAME_SIZE.unpack_from(data, at + _PACKET_HEAD.size)
    return bool(1 <= size <= MAX_ANNOUNCED and left - _NAME_AT >= size)


def _frame(data: bytes, at: int) -> Piece:
    left = len(data) - at
    piece = Piece(at, _up_to_next(data, at), "frame")
    if left < HEAD_SIZE:
        piece.fault = f"cut off: {left} of the {HEAD_SIZE} bytes of a head"
        piece.payload = data[at : at + piece.size]
        return piece
    piece.fields = head = _frame_fields(data, at)
    size, begin = head["payloadLen"], at + HEAD_SIZE
    if not _is_length(size) or left - HEAD_SIZE < size:
        piece.payload = data[begin : begin + max(piece.size, HEAD_SIZE) - HEAD_SIZE]
        piece.fault = (
            f"cut off: {left - HEAD_SIZE} of {size} payload bytes"
            if _is_length(size)
            else "the payload length is not valid: receivers drop the frame"
        )
        return piece
    piece.payload = data[begin : begin + size]
    right = piece.checksum_right
    if not right:
        piece.fault = "the checksum is wrong: receivers drop the frame"
    elif head["type"] > RESPONSE:
        piece.fault = "the type is unknown: receivers ignore the frame"
    # A wrong checksum may come from a wrong length: the length is believed when something sensible follows it.
    if right or _next_magic(data, begin + size) == begin + size:
        piece.size = HEAD_SIZE + size
    return piece


def _packet(data: bytes, at: int) -> Piece:
    left = len(data) - at
    piece = Piece(at, _up_to_next(data, at), "packet")
    if left < _PACKET_HEAD.size:
        piece.fault = f"cut off: {left} of {_PACKET_HEAD.size} bytes"
        piece.payload = data[at : at + piece.size]
        return piece
    piece.fields = dict(zip(("magic", "type", "gid", "pid"), _PACKET_HEAD.unpack_from(data, at), strict=True))
    type_ = piece.fields["type"]
    if type_ < TERMINATE:
        _add_name(piece, data)
    elif type_ == TERMINATE:
        piece.size = _PACKET_HEAD.size
    else:
        piece.fault = "the type is unknown: servers skip the packet"
    return piece


def _add_name(piece: Piece, data: bytes) -> None:
    if len(data) - piece.offset < _NAME_AT:
        piece.fault = "cut off before the size of the name"
        return
    (size,) = _NAME_SIZE.unpack_from(data, piece.offset + _PACKET_HEAD.size)
    piece.fields["nameSize"] = size
    if not 1 <= size <= MAX_ANNOUNCED:
        piece.fault = "the size of the name is not valid: servers refuse the packet"
        return
    begin = piece.offset + _NAME_AT
    piece.payload = data[begin : begin + size]
    if len(piece.payload) < size:
        piece.fault = f"cut off: {len(piece.payload)} of {size} bytes of the name"
    piece.size = _NAME_AT + len(piece.payload)
