"""The bytes on a pipe: a head of 32 bytes and a payload of 1 to 4000. No input or output happens here."""

from __future__ import annotations

import logging
import struct
import time
from typing import NamedTuple
from zlib import adler32

from .errors import InvalidArgument

MAGIC = 0xA6B7C8D9
MAGIC_BYTES = struct.pack("=I", MAGIC)
MAX_PAYLOAD = 4000  # with the head below PIPE_BUF (4096), so that one write is never torn: pipe(7)
REQUEST = 0
RESPONSE = 1
NO_TIMEOUT = -1
LONGEST_TIMEOUT_MS = 0x7FFFFFFF

# magic, id, type, payload length, checksum, time-out in ms, time of writing in monotonic microseconds; host byte order
HEAD = struct.Struct("=IIIIIiq")
HEAD_SIZE = HEAD.size

_log = logging.getLogger("tarvo.frames")
_pack, _unpack = HEAD.pack, HEAD.unpack_from
# The low half of an adler32 is 1 and the sum of the bytes, modulo 65521: of 256 bytes at most it is the sum itself.
_STRIDE = 256
_monotonic_ns = time.monotonic_ns

Bytes = bytes | bytearray | memoryview


class Frame(NamedTuple):
    """One message."""

    id: int
    type: int
    payload: bytes
    timeout_ms: int
    """How long the sender waits for the answer; -1: it does not say, or does not wait."""


def byte_sum(data: bytes) -> int:
    """The sum of the bytes, many times faster than sum()."""
    size = len(data)
    if size <= _STRIDE:
        return (adler32(data) & 0xFFFF) - 1
    view = memoryview(data)
    total = 0
    for at in range(0, size, _STRIDE):
        total += (adler32(view[at : at + _STRIDE]) & 0xFFFF) - 1
    return total


def checksum(id_: int, type_: int, payload: bytes) -> int:
    """The sum of the id, the type, the length, every byte and the magic, cut to 32 bits."""
    return (id_ + type_ + len(payload) + byte_sum(payload) + MAGIC) & 0xFFFFFFFF


def payload_of(data: Bytes) -> bytes:
    """The bytes, if a frame may carry them. InvalidArgument (EINVAL) for a wrong size, TypeError for a wrong type."""
    payload = data if type(data) is bytes else _bytes_of(data)
    if not 1 <= len(payload) <= MAX_PAYLOAD:
        raise InvalidArgument.of(f"a payload has 1 to {MAX_PAYLOAD} bytes, not {len(payload)}")
    return payload


def _bytes_of(data: Bytes) -> bytes:
    if not isinstance(data, (bytes, bytearray, memoryview)):
        raise TypeError(f"a payload is bytes, not {type(data).__name__}")
    return bytes(data)


def milliseconds(timeout: float | None) -> int:
    """A time-out in seconds as a frame tells it: whole ms, never less; -1 for none."""
    if timeout is None:
        return NO_TIMEOUT
    return min(max(0, -int(-timeout * 1000 // 1)), LONGEST_TIMEOUT_MS)


def encode(id_: int, type_: int, data: Bytes, timeout_ms: int = NO_TIMEOUT, written_us: int | None = None) -> bytes:
    """The bytes of a frame. `written_us`: now, unless it is given."""
    payload = payload_of(data)
    size = len(payload)
    summed = (adler32(payload) & 0xFFFF) - 1 if size <= _STRIDE else byte_sum(payload)
    total = (id_ + type_ + size + summed + MAGIC) & 0xFFFFFFFF
    now = _monotonic_ns() // 1000 if written_us is None else written_us
    return _pack(MAGIC, id_, type_, size, total, timeout_ms, now) + payload


class FrameReader:
    """Makes frames of what is read from a pipe, in pieces of any size. What is damaged is dropped, as receivers do:

    32 bytes that are no head; or, when the sum is wrong or the type unknown, the head and its payload.
    """

    __slots__ = ("_rest", "_remote")

    def __init__(self, remote: str = "") -> None:
        self._rest = b""
        self._remote = remote

    @property
    def pending(self) -> int:
        """Bytes of a frame that is not whole yet."""
        return len(self._rest)

    def feed(self, data: bytes) -> list[Frame]:
        """The frames that are whole now."""
        if self._rest:
            data = self._rest + data
            self._rest = b""
        found: list[Frame] = []
        at, end = 0, len(data)
        while end - at >= HEAD_SIZE:
            magic, id_, type_, size, total, timeout_ms, _ = _unpack(data, at)
            if magic != MAGIC or not 0 < size <= MAX_PAYLOAD:
                self._warn("no head: magic %#x, length %u", magic, size)
                at += HEAD_SIZE
                continue
            begin = at + HEAD_SIZE
            stop = begin + size
            if stop > end:
                break
            at = stop
            payload = data[begin:stop]
            summed = (adler32(payload) & 0xFFFF) - 1 if size <= _STRIDE else byte_sum(payload)
            if (id_ + type_ + size + summed + MAGIC) & 0xFFFFFFFF != total:
                self._warn("wrong checksum %#x of %u bytes", total, size)
            elif type_ <= RESPONSE:
                found.append(Frame(id_, type_, payload, timeout_ms))
        if at < end:
            self._rest = data[at:]
        return found

    def _warn(self, text: str, *values: int) -> None:
        _log.warning("dropped what came from %s: " + text, self._remote, *values)
