"""Frames and packets, also against what the C++ receivers and the tool make of the same bytes."""

import json
import os
import struct
import subprocess

import pytest
from conftest import READER_HELPER, TARVOCTL, need
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import tarvo
from tarvo import frames, packets
from tarvo.decoder import decode

MAGIC = frames.MAGIC_BYTES
EXAMPLES = int(os.environ.get("TARVO_EXAMPLES", "40"))
quick = settings(max_examples=EXAMPLES, deadline=None, database=None, suppress_health_check=list(HealthCheck))


def frame_like():
    """Frames, most of them right, and others damaged in each field."""
    payloads = st.one_of(st.binary(min_size=1, max_size=40), st.integers(1, 4000).map(lambda n: b"\xff" * n))
    whole = st.builds(
        frames.encode,
        st.integers(0, 2**32 - 1),
        st.sampled_from([0, 1, 2, 2**32 - 1]),
        payloads,
        st.integers(-(2**31), 2**31 - 1),
        st.integers(-(2**63), 2**63 - 1),
    )
    return st.one_of(whole, whole, st.builds(damage, whole, st.integers(0, 80), st.integers(1, 255)))


def packet_like():
    """The same of packets."""
    names = st.text("abz/_.", min_size=1, max_size=110)
    whole = st.builds(packets.connect_packet, names, st.integers(0, 2**32 - 1), st.integers(-(2**31), 2**31 - 1))
    others = st.builds(
        lambda type_, size: MAGIC + struct.pack("=iIiI", type_, 1, 2, size),
        st.integers(-2, 3),
        st.sampled_from([0, 1, 109, 110, 111, 2**32 - 1]),
    )
    return st.one_of(whole, whole, st.builds(damage, whole, st.integers(0, 30), st.integers(1, 255)), others)


def damage(data, at, by):
    """One byte of it changed."""
    at %= len(data)
    return data[:at] + bytes([data[at] ^ by]) + data[at + 1 :]


def noise():
    """Bytes between the others, of which some look like the beginning of something."""
    pieces = [MAGIC, MAGIC[:3], MAGIC[:1], b"\xd9\xd9\xc8", b"x", b"\0" * 32]
    return st.one_of(st.binary(max_size=12), st.lists(st.sampled_from(pieces), max_size=3).map(b"".join))


def recordings(of):
    """Pieces one after another, and where reads cut them."""
    whole = st.lists(st.one_of(of, of, noise()), max_size=6).map(b"".join)
    return st.tuples(whole, st.lists(st.integers(0, 9000), max_size=5))


def cut(data, places):
    """The pieces of the reads."""
    places = sorted({place % (len(data) + 1) for place in places})
    return [data[a:b] for a, b in zip([0, *places], [*places, len(data)], strict=True)]


@pytest.fixture(scope="module")
def helper():
    with subprocess.Popen([need(READER_HELPER)], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:

        def ask(command):
            process.stdin.write(command)
            process.stdin.flush()
            return [line.split() for line in iter(process.stdout.readline, b".\n")]

        yield ask
        process.stdin.close()


def data_command(data):
    return b"D" + struct.pack("=I", len(data)) + data


class TestFrames:
    def test_known_frame_has_the_documented_bytes(self):
        assert frames.encode(1, 0, b"\xff", written_us=0).hex(" ") == (
            "d9 c8 b7 a6 01 00 00 00 00 00 00 00 01 00 00 00 da c9 b7 a6 ff ff ff ff 00 00 00 00 00 00 00 00 ff"
        )

    @given(st.one_of(st.binary(max_size=300), st.integers(0, 4000).map(lambda n: b"\xff" * n)))
    @quick
    def test_byte_sum_is_the_sum_of_the_bytes(self, data):
        assert frames.byte_sum(data) == sum(data)
        assert frames.checksum(1, 2, data) == (3 + len(data) + sum(data) + frames.MAGIC) % 2**32

    @pytest.mark.parametrize("size", [0, 4001])
    def test_payload_of_a_wrong_size_is_refused(self, size):
        with pytest.raises(tarvo.InvalidArgument, match="1 to 4000 bytes"):
            frames.encode(1, 0, bytes(size))

    def test_payload_may_be_any_bytes_but_no_text(self):
        assert frames.encode(1, 0, bytearray(b"ab"))[32:] == b"ab" == frames.encode(1, 0, memoryview(b"ab"))[32:]
        with pytest.raises(TypeError, match="bytes, not str"):
            frames.encode(1, 0, "ab")

    @pytest.mark.parametrize(
        ("seconds", "ms"), [(None, -1), (0, 0), (0.0001, 1), (0.1, 100), (2, 2000), (-1, 0), (1e9, 2**31 - 1)]
    )
    def test_timeout_is_told_in_whole_milliseconds_and_never_less(self, seconds, ms):
        assert frames.milliseconds(seconds) == ms

    @given(recordings(frame_like()))
    @quick
    def test_reads_may_cut_frames_anywhere(self, recording):
        data, places = recording
        whole, cut_up = frames.FrameReader(), frames.FrameReader()
        found = [frame for piece in cut(data, places) for frame in cut_up.feed(piece)]
        assert found == whole.feed(data)
        assert cut_up.pending == whole.pending

    @given(recordings(frame_like()))
    @quick
    def test_reader_finds_what_the_loop_of_the_library_finds(self, helper, recording):
        data, places = recording
        reader = frames.FrameReader("test")
        helper(b"F")
        for piece in cut(data, places):
            theirs = helper(data_command(piece))
            ours = [[str(f.id), str(f.type), str(f.timeout_ms), f.payload.hex()] for f in reader.feed(piece)]
            assert ours == [[word.decode() for word in line] for line in theirs]


class TestPackets:
    def test_known_packet_has_the_documented_bytes(self):
        assert packets.connect_packet("abc", 100, 4711).hex(" ") == (
            "d9 c8 b7 a6 00 00 00 00 64 00 00 00 67 12 00 00 03 00 00 00 61 62 63"
        )

    @pytest.mark.parametrize("name", ["", "n" * 111])
    def test_name_that_servers_refuse_makes_no_packet(self, name):
        with pytest.raises(tarvo.InvalidArgument):
            packets.connect_packet(name, 0, 1)

    def test_packet_cut_inside_a_field_is_dropped_when_the_fifo_is_empty(self):
        reader, whole = packets.PacketReader(), packets.connect_packet("abc", 1, 2)
        assert reader.feed(whole[:22]) == []
        reader.end_of_read()
        assert reader.feed(whole) == [packets.Packet(0, "abc", 1, 2)]

    def test_packet_cut_between_two_fields_goes_on(self):
        reader, whole = packets.PacketReader(), packets.connect_packet("abc", 1, 2)
        assert reader.feed(whole[:16]) == []
        reader.end_of_read()
        assert reader.feed(whole[16:]) == [packets.Packet(0, "abc", 1, 2)]

    @given(recordings(packet_like()), st.lists(st.booleans(), max_size=8))
    @quick
    def test_reader_finds_what_the_loop_of_the_library_finds(self, helper, recording, ends):
        data, places = recording
        reader = packets.PacketReader()
        helper(b"P")
        for index, piece in enumerate(cut(data, places)):
            theirs = helper(data_command(piece))
            ours = [
                ["terminate"] if p.type else [str(p.gid), str(p.pid), *([os.fsencode(p.name).hex()] if p.name else [])]
                for p in reader.feed(piece)
            ]
            assert ours == [[word.decode() for word in line] for line in theirs]
            if index < len(ends) and ends[index]:
                reader.end_of_read()
                helper(b"E")


class TestDecoder:
    def test_whole_frame_and_packet_are_told_apart(self):
        data = frames.encode(7, 1, b"ok", written_us=5) + b"??" + packets.connect_packet("abc", 1, 2)
        frame, garbage, packet = decode(data)
        assert (frame.kind, frame.fields["id"], frame.payload, frame.fault) == ("frame", 7, b"ok", "")
        assert frame.checksum_right
        assert (garbage.kind, garbage.payload, garbage.offset) == ("garbage", b"??", 34)
        assert (packet.kind, packet.payload, packet.fields["pid"]) == ("packet", b"abc", 2)

    @given(
        st.lists(st.one_of(frame_like(), packet_like(), noise()), min_size=1, max_size=5).map(b"".join),
        st.integers(0, 60),
        st.sampled_from(["any", "frame", "packet"]),
    )
    @quick
    def test_decoder_judges_as_the_tool_does(self, data, cut_off, kind):
        data = data[: max(len(data) - cut_off, 1)]
        words = [need(TARVOCTL), "decode", "--json", "--kind", kind]
        done = subprocess.run(words, input=data, capture_output=True, check=False)
        theirs = [json.loads(line) for line in done.stdout.splitlines()]
        ours = list(decode(data, kind))
        assert [as_json(piece) for piece in ours] == [simpler(piece) for piece in theirs]


def simpler(piece):
    """What is compared of a line of the tool."""
    piece["payload"] = piece["payload"]["hex"]
    return piece


def as_json(piece):
    """The same of a piece."""
    found = {"offset": piece.offset, "size": piece.size, "kind": piece.kind, "payload": piece.payload.hex()}
    found["fault"] = piece.fault or None
    if piece.fields:
        found["fields"] = {
            name: f"{value:#010x}" if name in ("magic", "checksum") else value for name, value in piece.fields.items()
        }
        if piece.kind == "frame":
            found["checksum_right"] = piece.checksum_right
    return found
