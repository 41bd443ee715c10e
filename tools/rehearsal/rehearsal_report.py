"""The output of a rehearsal on the terminal."""

import sys
from dataclasses import dataclass, field

from rig import trace_log

COLOURS = {"green": "32", "red": "31", "bold": "1", "dim": "2"}
STAGES = (  # headline, first event, last event
    ("download", "download_start", "download_complete"),
    ("verify", "checksum_verify", "download_selected"),
    ("extract", "extract_start", "extract_ok"),
    ("apply", "apply_start", "apply_ok"),
    ("restart", "restart_start", "restart_ok"),
)
MOST_NAMES = 8


def paint(text: str, colour: str) -> str:
    return f"\x1b[{COLOURS[colour]}m{text}\x1b[0m" if sys.stdout.isatty() else text


def megabytes(size: float) -> str:
    return f"{size / 1e6:.1f} MB"


def heading(text: str) -> None:
    print("\n" + paint(text, "bold"))


def row(name: str, *texts: str) -> None:
    print(f"  {name:<14}" + "  ".join(texts))


@dataclass
class TimedEvent:
    """A line of the trace and when it appeared, in seconds after the updater's start."""

    seconds: float
    event: trace_log.Event

    @property
    def name(self) -> str:
        return self.event["stage"]


@dataclass
class Changes:
    added: list[str] = field(default_factory=list)
    replaced: list[str] = field(default_factory=list)
    removed: list[str] = field(default_factory=list)
    unchanged: list[str] = field(default_factory=list)


def changes_between(before: dict[str, str], after: dict[str, str]) -> Changes:
    changes = Changes(removed=sorted(before.keys() - after.keys()))
    for path in sorted(after):
        if path not in before:
            changes.added.append(path)
        else:
            (changes.unchanged if before[path] == after[path] else changes.replaced).append(path)
    return changes


def print_stages(events: list[TimedEvent], sizes: dict[str, int]) -> None:
    """One line for each stage: its duration, its result and its throughput."""
    heading("Stages")
    for stage, first, last in STAGES:
        start = next((event for event in events if event.name == first), None)
        end = next((event for event in reversed(events) if event.name == last), None)
        if start is None:
            row(stage, paint("not reached", "dim"))
        elif end is None:
            row(stage, paint("failed", "red"))
        else:
            took = end.seconds - start.seconds
            rate = ""
            if sizes.get(stage, 0) > 1_000_000 and took > 0:
                rate = f"  {megabytes(sizes[stage])} at {sizes[stage] / took / 1e6:.0f} MB/s"
            row(stage, f"{took:6.2f} s", paint("success", "green") + rate)


def print_changes(changes: Changes) -> None:
    heading("Installation")
    for word, paths in vars(changes).items():
        row(word, f"{len(paths):4} files")
        if word == "unchanged":
            continue
        for path in paths[:MOST_NAMES]:
            print(paint(f"                      {path}", "dim"))
        if len(paths) > MOST_NAMES:
            print(paint(f"                      and {len(paths) - MOST_NAMES} more", "dim"))


def print_promises(promises: list[tuple[str, list[str]]]) -> bool:
    """Prints each promise with what contradicts it; true when all were kept."""
    heading("Promises")
    for promise, faults in promises:
        print(f"  {paint('broken', 'red') if faults else paint('kept  ', 'green')}  {promise}")
        for fault in faults[:MOST_NAMES]:
            print(f"            {fault}")
        if len(faults) > MOST_NAMES:
            print(f"            and {len(faults) - MOST_NAMES} more")
    return not any(faults for _, faults in promises)
