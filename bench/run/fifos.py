#!/usr/bin/python3
"""What the FIFOs of an ordinary user hold once he has many. Counts, not times. scripts/bench.sh --fifos runs this."""
import fcntl
import os
import shutil
import tempfile

from processes import raise_descriptor_limit
from tables import table

NOBODY = 65534
FIFOS = 1100
HEAD = 32  # of a frame
SIZES = (64, 4000)


def fifo_in(folder, number):
    path = os.path.join(folder, str(number))
    os.mkfifo(path)
    return os.open(path, os.O_RDWR | os.O_NONBLOCK)


def frames(fifo, payload):
    """How many frames go in before the writer would have to wait."""
    count = 0
    try:
        while True:
            os.write(fifo, bytes(HEAD + payload))
            count += 1
    except BlockingIOError:
        while True:
            try:
                os.read(fifo, 1 << 16)
            except BlockingIOError:
                return count


def main():
    raise_descriptor_limit()
    if os.geteuid() == 0:  # root may have any number of FIFOs of full size
        os.setgroups([])
        os.setgid(NOBODY)
        os.setuid(NOBODY)
    folder = tempfile.mkdtemp(dir="/dev/shm")
    try:
        made = [fifo_in(folder, number) for number in range(1, FIFOS + 1)]
        sizes = [fcntl.fcntl(fifo, fcntl.F_GETPIPE_SZ) for fifo in made]
        first = next((number for number, size in enumerate(sizes, 1) if size < sizes[0]), None)
        rows = [[name, str(sizes[index]), *(str(frames(made[index], size)) for size in SIZES)]
                for name, index in (("the first", 0), (f"from the {first}th on" if first else "all others", -1))]
        print("\n".join(table(["FIFO", "bytes", *(f"frames of {size} bytes payload" for size in SIZES)], rows)))
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    main()
