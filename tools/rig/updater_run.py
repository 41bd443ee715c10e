"""One run of the real updater in a scene of its own: an installation, a configuration folder and a
temporary folder below C:\\rig\\<name>."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import zlib
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from rig import packages, places, trace_log
from rig.sandbox import Running, Sandbox, programs_from

# With blanks and letters outside ASCII, as in the folders of users.
INSTALL_FOLDER = "QORVA RIP žluť"
# The report of a failed run, below the user's folder for application data.
REPORT = re.compile(r"QORVA/crashes/pending_reports/qorva_updater_error_\d{8}_\d{6}_\d+\.json")


@dataclass(frozen=True)
class Dialog:
    """A message box that the launcher read and dismissed."""

    text: str
    icon: str
    buttons: tuple[str, ...]


@dataclass
class Outcome:
    exit_code: int | str  # all 32 bits, or "timeout"
    output: bytes
    dialogs: list[Dialog]
    seconds: float
    trace: list[trace_log.Event]


class Scene:
    """The folders of one or more runs. They are empty at first and remain on disk until `clear`, which
    also ends the programs that were started from them."""

    def __init__(self, sandbox: Sandbox, name: str):
        self.sandbox = sandbox
        self.folder = sandbox.drive_c / "rig" / name
        # A user of its own, since reports and crash evidence are in the profile of the user that USER names.
        self.user = f"rig-{zlib.crc32(name.encode()):08x}"
        self.profile = sandbox.drive_c / "users" / self.user
        self.runs: list[UpdaterRun] = []
        self.failures = 0  # runs that must leave a report
        self.started_inside = False  # whether a run was started from the installation
        self.clear()
        self.install = self.folder / INSTALL_FOLDER
        self.config = self.folder / "config"
        self.temp = self.folder / "temp"
        self.notes = self.folder / "notes"  # files of the rig itself
        self.holders = self.notes / "holders"  # the answers of the Restart Manager
        self.holder_calls = self.notes / "holders.calls"  # the calls of the Restart Manager
        self.roaming = self.profile / "AppData" / "Roaming"
        self.crashes = self.roaming / "QORVA" / "crashes"
        self.reports = self.crashes / "pending_reports"
        self.trace_path = self.config / "QORVA" / "logs" / "update_trace.log"
        self.updater = self.folder / "updater" / "qorva_updater.exe"
        for made in (self.install, self.config, self.temp, self.notes, self.updater.parent, self.roaming):
            made.mkdir(parents=True)
        shutil.copyfile(places.UPDATER, self.updater)

    def windows(self, path: Path) -> str:
        """The path as Windows programs write it."""
        return self.sandbox.windows_path(path)

    def running(self) -> list[Running]:
        return programs_from(self.windows(self.folder), self.sandbox.prefix)

    def traced(self, event: str) -> bool:
        """True when the trace has this event already."""
        return self.trace_path.exists() and f'"{event}"' in self.trace_path.read_text("utf-8")

    def end(self) -> None:
        """Ends all programs that run from the scene."""
        for program in self.running():
            program.end()
        for run in list(self.runs):
            run.finish()

    def clear(self) -> None:
        self.end()
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.rmtree(self.profile, ignore_errors=True)

    def arguments(self, *, url: str, sha256: str, fallback: str = "", pid: int = 0,
                  required: tuple[str, ...] = (packages.APPLICATION,), target: str = "",
                  restart: str = packages.APPLICATION) -> list[str]:
        """The command line of an update as the application writes it."""
        mirror = [f"--fallback-download-url={fallback}"] if fallback else []
        return [f"--pid={pid}", f"--download-url={url}", *mirror, f"--sha256={sha256}",
                f"--target-dir={target or self.windows(self.install)}",
                f"--restart-exe={self.windows(self.install / restart)}",
                *(f"--required-payload-file={name}" for name in required)]

    def begin(self, arguments: list[str], *, program: Path | None = None, **options) -> "UpdaterRun":
        program = program or self.updater
        self.started_inside |= program.parent == self.install and program.name != packages.APPLICATION
        self.runs.append(UpdaterRun(self, program, arguments, **options))
        return self.runs[-1]

    def run(self, arguments: list[str], **options) -> Outcome:
        return self.begin(arguments, **options).finish()

    def workspaces(self) -> list[Path]:
        return sorted(self.temp.glob("qorva_updater_*"))


class UpdaterRun:
    """A running updater. `finish` waits for its end. The launcher reads each message box and presses
    `button`; at the first box it waits until `on_box` has returned. Without `dialogs` the launcher
    leaves boxes alone, so that a run which shows one lasts until `timeout` seconds have passed."""

    def __init__(self, scene: Scene, program: Path, arguments: list[str], *, button: str = "ok",
                 output: str = "pipe", timeout: float = 90, on_box: Callable[[], None] | None = None,
                 dialogs: bool = True, folder: Path | None = None):
        self.scene = scene
        self.timeout = timeout
        self.on_box = on_box
        self.started = time.monotonic()
        self.notes = Path(tempfile.mkdtemp(prefix="run.", dir=scene.notes))
        windows = scene.windows
        switches = [f"--report={windows(self.notes / 'report')}", f"--folder={windows(folder or program.parent)}",
                    f"--timeout-ms={int(timeout * 1000)}", *([f"--press={button}"] if dialogs else []),
                    *(["--wait-at-boxes"] if on_box else []), *(["--no-output"] if output == "none" else [])]
        self.output_file = (self.notes / "output").open("w+b")
        self.launcher = subprocess.Popen(
            ["wine", windows(places.TOOL), "run", *switches, "--", windows(program), *arguments],
            env={**scene.sandbox.environment_with_hosts(), "USER": scene.user, "RIG_TEMP": windows(scene.temp),
                 "QORVA_CONFIG_HOME": windows(scene.config), "QORVA_RIG_HOLDERS": windows(scene.holders)},
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE if output == "pipe" else self.output_file,
            stderr=subprocess.DEVNULL)
        self.asked_for_update = any(argument.startswith("--target-dir=") for argument in arguments)
        end = self.started + 30
        while not (begun := self.noted("pid")):
            if failed := self.noted("failed"):
                raise RuntimeError(f"the updater could not be started: error {failed[0]}")
            if time.monotonic() > end:
                raise TimeoutError("the launcher reported no process")
            time.sleep(0.005)
        self.pid: int = begun[0]

    def noted(self, key: str) -> list:
        """The values that the launcher has reported under a key so far."""
        path = self.notes / "report"
        lines = path.read_text("utf-8").split("\n")[:-1] if path.exists() else []
        return [event[key] for event in map(json.loads, lines) if key in event]

    def running(self) -> bool:
        return self.launcher.poll() is None

    def finish(self) -> Outcome:
        self.scene.runs.remove(self)
        if self.on_box:
            while self.running() and not self.noted("box"):
                time.sleep(0.02)
            if self.running():
                self.on_box()
            (self.notes / "report.go").touch()
        self.launcher.wait(self.timeout + 20)
        seconds = time.monotonic() - self.started
        output = self.take_output()
        (code,) = self.noted("exit")
        dialogs = [Dialog(box["text"], box["icon"], tuple(box["buttons"])) for box in self.noted("box")]
        self.await_observer()
        self.scene.failures += self.asked_for_update and code in (2, 18)
        shutil.rmtree(self.notes)
        return Outcome(code, output, dialogs, seconds, trace_log.read(self.scene.trace_path))

    def await_observer(self) -> None:
        """Waits for the end of the observer, which writes down how the updater ended."""
        end = time.monotonic() + 10
        while True:
            updaters = [program.command for program in self.scene.running() if "_updater.exe" in program.command]
            observers = [command for command in updaters if " --observe " in command]
            if 2 * len(observers) <= len(updaters):
                return
            if time.monotonic() > end:
                raise TimeoutError(f"an observer does not end: {self.scene.running()}")
            time.sleep(0.01)

    def take_output(self) -> bytes:
        with self.output_file:
            if self.launcher.stdout is None:
                self.output_file.seek(0)
                return self.output_file.read()
        with self.launcher.stdout as pipe:
            # Without waiting for the end of the pipe, which the restarted application may hold open.
            os.set_blocking(pipe.fileno(), False)
            return pipe.read() or b""
