#!/usr/bin/env python3
"""The text for Prometheus, read by the parser of that system's own client library.

    prometheus_test.py HEADER TOOL...
"""

import pathlib
import re
import struct
import subprocess
import sys
import tempfile

try:
    from prometheus_client.parser import text_string_to_metric_families
except ImportError:
    sys.exit("prometheus_test.py: python3-prometheus-client is missing (scripts/install-deps.sh)")

HEADER_SIZE, SLOT_SIZE, SLOTS = 4096, 4608, 8
PIPE, SERVER = 2, 3
EVIL = b'a"b\\c\nd\xff'


def constants(path):
    """The numbers of the header, so that this writer is of the same layout or fails."""
    found = re.findall(r"^#define TARVO_STATS_(\w+) (?:UINT64_C\()?(0x[0-9a-fA-F]+|\d+)U?\)?$", path.read_text(), re.MULTILINE)
    return {name: int(value, 0) for name, value in found}


def header(numbers):
    assert (numbers["HEADER_SIZE"], numbers["SLOT_SIZE"]) == (HEADER_SIZE, SLOT_SIZE)
    data = struct.pack("<QIIIIIIiIII", numbers["MAGIC"], numbers["VERSION"], HEADER_SIZE, SLOT_SIZE, SLOTS, 1, 0, 4711,
                       64, 8, 0)
    data += struct.pack("<QQQ", 0, 0, 0) + b"te\"st".ljust(numbers["NAME_SIZE"], b"\0")
    return data.ljust(HEADER_SIZE, b"\0")


def slot(kind, name, remote, values):
    data = struct.pack("<IIIIqQQ", 2, kind, 0, 2, 7, 1, 0) + name.ljust(104, b"\0") + remote.ljust(104, b"\0")
    return (data.ljust(256, b"\0") + struct.pack(f"<{len(values)}Q", *values)).ljust(SLOT_SIZE, b"\0")


def samples_of(text):
    """All samples by name; each name only in the family that declares it."""
    found, families = {}, set()
    for family in text_string_to_metric_families(text):
        assert family.name not in families, f"{family.name} is there twice"
        assert family.documentation and family.type in {"counter", "gauge", "histogram"}, family
        families.add(family.name)
        for sample in family.samples:
            found.setdefault(sample.name, []).append(sample)
    seen = [(name, tuple(sorted(one.labels.items()))) for name, all_ in found.items() for one in all_]
    assert len(seen) == len(set(seen)), "two samples have all their labels alike"
    return found


def check(found):
    shares = [found[f"tarvo_process_{kind}_per_time"][0].value for kind in ("calls", "one_ways")]
    assert shares == [8, 64], shares
    sent = {one.labels["kind"]: one.value for one in found["tarvo_pipe_sent_messages_total"] if one.labels["slot"] == "1"}
    assert sent == {"one_way": 5, "call": 6, "response": 7}, sent
    [first] = [one for one in found["tarvo_pipe_sends_lost_total"] if one.labels["slot"] == "1"]
    assert first.labels["remote"] == 'a"b\\c\\x0ad\\xff', first
    assert first.labels["process"] == 'te"st' and first.labels["pid"] == "4711" and first.labels["state"] == "open"
    assert [one.value for one in found["tarvo_process_alive"]] == [0]
    assert [one.value for one in found["tarvo_unreadable_files"]] == [1]
    assert [one.value for one in found["tarvo_server_opened_total"]] == [3]
    buckets = [one for one in found["tarvo_server_open_time_seconds_bucket"]]
    assert [one.value for one in buckets] == sorted(one.value for one in buckets)
    assert buckets[-1].labels["le"] == "+Inf" and buckets[-1].value == 9
    bounds = [float(one.labels["le"]) for one in buckets]
    assert bounds == sorted(set(bounds)) and bounds[0] < 2e-6 and bounds[-2] > 60, bounds
    # 9 times in bucket 2, which begins at 1024 ns
    assert next(one.value for one in buckets if float(one.labels["le"]) > 1.1e-6) == 9
    assert [one.value for one in found["tarvo_server_open_time_seconds_count"]] == [9]
    assert [one.value for one in found["tarvo_server_open_time_seconds_sum"]] == [1.5]


def main():
    numbers, tool = constants(pathlib.Path(sys.argv[1])), sys.argv[2:]
    with tempfile.TemporaryDirectory() as folder:
        places = [slot(1, b"", b"", []), slot(PIPE, b"hello", EVIL, [5, 6, 7]), slot(PIPE, b"hello", b"other", [1, 2, 3])]
        times = [1500000000, 1100] + [0, 0, 9]
        places.append(slot(SERVER, b"hello", b"", [4, 0, 3, 1, 0, 0, 0, 0] + times))
        content = header(numbers) + b"".join(places)
        pathlib.Path(folder, "4711.1").write_bytes(content.ljust(HEADER_SIZE + SLOTS * SLOT_SIZE, b"\0"))
        pathlib.Path(folder, "garbage").write_bytes(b"x")
        run = subprocess.run([*tool, "stat", "--prometheus", "--stats-directory", folder], capture_output=True, check=True)
        found = samples_of(run.stdout.decode())
        check(found)
        pathlib.Path(folder, "4711.1").unlink()
        run = subprocess.run([*tool, "stat", "--prometheus", "--stats-directory", folder], capture_output=True, check=True)
        assert samples_of(run.stdout.decode())["tarvo_unreadable_files"][0].value == 1
    print(f"{sum(map(len, found.values()))} samples of {len(found)} names")


main()
