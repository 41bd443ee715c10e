"""Records when a trace grows, and the peak memory of the updater that writes it, until standard input ends.

usage: PYTHONPATH=tools trace_watch.py TRACE FOLDER      FOLDER is the scene's folder as a Windows path

Prints "grew SIZE SECONDS" (of the monotonic clock) for each growth, with an error of about 2 ms, and at
the end "peak KIB". This is a process of its own because in the benchmark's process it would slow down
the server that the updater downloads from.
"""

import os
import re
import select
import sys
import time
from pathlib import Path

from rig.sandbox import programs_from

POLL_SECONDS = 0.002
POLLS_PER_MEMORY_LOOK = 25
UPDATER = "qorva_updater.exe"


def peak_kib(status: Path | None) -> int:
    """The peak of resident memory (VmHWM); 0 when the process does not exist."""
    try:
        found = re.search(r"VmHWM:\s+(\d+) kB", status.read_text()) if status else None
    except OSError:
        found = None
    return int(found[1]) if found else 0


def status_of_updater(folder: str) -> Path | None:
    found = [program.pid for program in programs_from(folder) if UPDATER in program.command]
    return Path(f"/proc/{found[0]}/status") if found else None


def main() -> None:
    trace, folder = sys.argv[1:]
    seen, peak, polls, status = 0, 0, 0, None
    while not select.select([sys.stdin], [], [], POLL_SECONDS)[0]:
        try:
            size = os.stat(trace).st_size
        except FileNotFoundError:
            size = 0
        if size != seen:
            print("grew", size, time.monotonic())
            seen = size
        polls += 1
        if polls % POLLS_PER_MEMORY_LOOK == 0:
            status = status or status_of_updater(folder)
            peak = max(peak, peak_kib(status))
    try:
        size = os.stat(trace).st_size
    except FileNotFoundError:
        size = 0
    if size != seen:
        print("grew", size, time.monotonic())
    print("peak", peak)


if __name__ == "__main__":
    main()
