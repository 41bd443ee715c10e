"""One run of the real updater, timed from outside.

The time stamps in the trace are whole seconds. So a watcher process records when the trace file has
grown, with an error of about 2 ms."""

import json
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

from rig import programs, trace_log
from rig.updater_run import Scene

WATCH = Path(__file__).with_name("trace_watch.py")


class Watcher:
    def __init__(self, scene: Scene):
        self.scene = scene
        self.growth: list[tuple[int, float]] = []  # size of the trace, time of its first observation
        self.peak_kib = 0
        self.process: subprocess.Popen[str] | None = None

    def start(self) -> None:
        self.process = subprocess.Popen(
            [sys.executable, "-B", WATCH, self.scene.trace_path, self.scene.windows(self.scene.folder)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def finish(self) -> None:
        output, _ = self.process.communicate(timeout=30)
        for word, value, *seconds in map(str.split, output.splitlines()):
            if word == "peak":
                self.peak_kib = int(value)
            else:
                self.growth.append((int(value), float(seconds[0])))

    def moments(self) -> list[tuple[float, trace_log.Event]]:
        """The time at which each event of the trace was written."""
        text = self.scene.trace_path.read_bytes()
        growth, end, timed = iter(self.growth), 0, []
        size, seen = next(growth)
        for line, event in zip(text.splitlines(keepends=True), trace_log.read(self.scene.trace_path)):
            end += len(line)
            while size < end:
                size, seen = next(growth)
            timed.append((seen, event))
        return timed


@dataclass
class Measured:
    """Seconds of each stage. `download` is taken from the trace, with a resolution of 1 ms."""

    download: float
    checksum: float
    extract: float
    apply: float
    until_restart: float  # from the start of the process
    whole: float  # until its end, after the removal of the workspace
    peak_kib: int


def measure(scene: Scene, url: str, sha256: str, timeout: float = 280) -> Measured:
    watcher = Watcher(scene)
    watcher.start()
    run = scene.begin(scene.arguments(url=url, sha256=sha256), dialogs=False, timeout=timeout)
    outcome = run.finish()
    watcher.finish()
    if outcome.exit_code != 0:
        raise RuntimeError(f"the updater ended with {outcome.exit_code}: {outcome.trace[-1:]}")
    timed = watcher.moments()

    def at(name: str, **fields: str) -> float:
        return next(moment for moment, event in timed if event["stage"] == name and
                    fields.items() <= event.items())

    complete = next(event for event in outcome.trace if event["stage"] == "download_complete")
    return Measured(
        download=int(complete["elapsed_ms"]) / 1000,
        checksum=at("checksum_verify", phase="ok") - at("checksum_verify", phase="start"),
        extract=at("extract_ok") - at("extract_start"),
        apply=at("apply_ok") - at("apply_start"),
        until_restart=at("restart_ok") - run.started,
        whole=outcome.seconds,
        peak_kib=watcher.peak_kib)


def idle_peak_kib(scene: Scene, silent_url: str) -> int:
    """Peak memory of a run that shows its window and waits for a server that never answers."""
    watcher = Watcher(scene)
    watcher.start()
    scene.begin(scene.arguments(url=silent_url, sha256="0" * 64), dialogs=False, timeout=60)
    time.sleep(3)
    watcher.finish()
    scene.end()
    return watcher.peak_kib


def longest_wait_ms(scene: Scene, url: str, sha256: str) -> int:
    """The longest time in which the progress window did not answer a message of another process. The
    messages, one every 5 ms, slow the run down, so a run with them is not measured."""
    run = scene.begin(scene.arguments(url=url, sha256=sha256), dialogs=False, timeout=900)
    watch = programs.Helper(scene.sandbox, "watch", programs.PROGRESS_CLASS, str(run.pid))
    outcome = run.finish()
    seen = json.loads(watch.output())
    scene.end()
    if outcome.exit_code != 0 or not seen["answers"]:
        raise RuntimeError(f"the updater ended with {outcome.exit_code} after {seen['answers']} answers")
    return seen["longest_ms"]
