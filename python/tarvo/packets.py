"""The packets on a server's FIFO, by which clients announce themselves. No input or output happens here."""

from __future__ import annotations

import logging
import os
import struct
from typing import NamedTuple

from .errors import InvalidArgument
from .frames import MAGIC, MAGIC_BYTES

CONNECT = 0
TERMINATE = 1
MAX_ANNOUNCED = 110
"""Bytes of a name in a packet."""

_HEAD = struct.Struct("=IiIi")  # magic, type, group id, process id
_SIZE = struct.Struct("=I")
_NAME_AT = _HEAD.size + _SIZE.size
_TYPE_END = 8
_log = logging.getLogger("tarvo.packets")


class Packet(NamedTuple):
    """What a client has written, or (type TERMINATE, without more) what ends a server."""

    type: int
    name: str = ""
    gid: int = 0
    pid: int = 0


def connect_packet(name: str, gid: int, pid: int) -> bytes:
    """What a client writes to announce itself, in one write. InvalidArgument for a name that servers refuse."""
    encoded = os.fsencode(name)
    if not 1 <= len(encoded) <= MAX_ANNOUNCED:
        raise InvalidArgument.of(f"an announced name has 1 to {MAX_ANNOUNCED} bytes, not {len(encoded)}", name)
    return _HEAD.pack(MAGIC, CONNECT, gid, pid) + _SIZE.pack(len(encoded)) + encoded


class PacketReader:
    """Makes packets of what is read from a server's FIFO. What is none is skipped byte by byte up to the next magic."""

    __slots__ = ("_held",)

    def __init__(self) -> None:
        self._held = b""

    def feed(self, data: bytes) -> list[Packet]:
        """The packets that are whole now."""
        data = self._held + data
        found: list[Packet] = []
        at = 0
        while True:
            at = _find_magic(data, at)
            size, packet = _parse(data, at)
            if size == 0:
                self._held = data[at:]
                return found
            at += size
            if packet is not None:
                found.append(packet)

    def end_of_read(self) -> None:
        """The FIFO is empty. A packet that was cut inside one of its fields will not become whole: it is dropped."""
        held = len(self._held)
        if held > _NAME_AT or (held % 4 != 0 and held > 4):
            _log.warning("dropped a packet that ended after %d bytes", held)
            self._held = b""


def _find_magic(data: bytes, at: int) -> int:
    """Where the next packet may begin: at a magic number, or at the beginning of one that ends the data.

    A byte that does not fit is dropped with those before it and is not looked at again, as the other servers do it.
    """
    while at < len(data):
        matched = 0
        while matched < 4 and at + matched < len(data) and data[at + matched] == MAGIC_BYTES[matched]:
            matched += 1
        if matched == 4 or at + matched == len(data):
            return at
        at += matched + 1
        if matched == 0:
            # Nothing but the first byte of a magic number can begin one.
            at = data.find(MAGIC_BYTES[:1], at)
            if at < 0:
                return len(data)
    return at


def _parse(data: bytes, at: int) -> tuple[int, Packet | None]:
    """The bytes that a packet, or what is none, takes; 0: not whole yet."""
    left = len(data) - at
    if left < _TYPE_END:
        return 0, None
    (type_,) = struct.unpack_from("=i", data, at + 4)
    if type_ == TERMINATE:
        return _TYPE_END, Packet(TERMINATE)
    if type_ > TERMINATE:
        _log.warning("skipped a packet of type %d", type_)
        return _TYPE_END, None
    if left < _NAME_AT:
        return 0, None
    _, _, gid, pid = _HEAD.unpack_from(data, at)
    (size,) = _SIZE.unpack_from(data, at + _HEAD.size)
    if not 1 <= size <= MAX_ANNOUNCED:
        _log.warning("skipped a packet with a name of %d bytes", size)
        return _NAME_AT, None
    if left < _NAME_AT + size:
        return 0, None
    name = data[at + _NAME_AT : at + _NAME_AT + size].split(b"\0", 1)[0]
    return _NAME_AT + size, Packet(CONNECT, os.fsdecode(name), gid, pid)
