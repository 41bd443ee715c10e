"""One run of the real updater in a scene of its own: an installation, a configuration folder and a
temporary folder below C:\\rig\\<name>."""

import os
import shutil
import subprocess
import tempfile
import time
import zlib
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

import packages
import places
import trace_log
from programs import Dialog, DialogReader
from sandbox import Running, Sandbox, programs_from

# With a blank and letters beyond ASCII, as folders of users have them.
INSTALL_FOLDER = "QORVA RIP žluť"


@dataclass
class Outcome:
    exit_code: int | str  # all 32 bits, or "timeout"
    output: bytes
    dialogs: list[Dialog]
    seconds: float
    trace: list[trace_log.Event] = field(default_factory=list)


class Scene:
    """Fresh at creation; `clear` ends what runs from it and deletes it, on disk it stays until then."""

    def __init__(self, sandbox: Sandbox, name: str):
        self.sandbox = sandbox
        self.folder = sandbox.drive_c / "rig" / name
        # A user of its own, since crash evidence and reports lie in the user's profile.
        self.user = f"rig-{zlib.crc32(name.encode()):08x}"
        self.profile = sandbox.user_folder(self.user)
        self.runs: list[UpdaterRun] = []
        self.failures = 0  # runs that had to leave a report
        self.started_inside = False  # whether one was started from the installation
        self.clear()
        self.install = self.folder / INSTALL_FOLDER
        self.config = self.folder / "config"
        self.temp = self.folder / "temp"
        self.notes = self.folder / "notes"  # the rig's own
        self.holders = self.notes / "holders"  # what the Restart Manager is to say
        self.roaming = self.profile / "AppData" / "Roaming"
        for made in (self.install, self.config, self.temp, self.notes, self.folder / "updater",
                     self.roaming):
            made.mkdir(parents=True)
        self.updater = self.folder / "updater" / "qorva_updater.exe"
        shutil.copyfile(places.UPDATER, self.updater)

    @property
    def trace_path(self) -> Path:
        return self.config / "QORVA" / "logs" / "update_trace.log"

    @property
    def crashes(self) -> Path:
        return self.roaming / "QORVA" / "crashes"

    @property
    def reports(self) -> Path:
        return self.crashes / "pending_reports"

    def windows(self, path: Path) -> str:
        return self.sandbox.windows_path(path)

    def running(self) -> list[Running]:
        return programs_from(self.windows(self.folder))

    def end(self) -> None:
        """Ends whatever still runs of it."""
        for program in self.running():
            program.end()
        for run in list(self.runs):
            run.finish()

    def clear(self) -> None:
        self.end()
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.rmtree(self.profile, ignore_errors=True)

    def arguments(self, *, url: str, sha256: str, fallback: str = "", pid: int = 0,
                  required: tuple[str, ...] = (packages.APPLICATION,),
                  restart: str = packages.APPLICATION) -> list[str]:
        """The switches as the application writes them."""
        switches = [f"--pid={pid}", f"--download-url={url}"]
        if fallback:
            switches.append(f"--fallback-download-url={fallback}")
        return [*switches, f"--sha256={sha256}", f"--target-dir={self.windows(self.install)}",
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
    """The updater at work. `finish` waits for it, reading and dismissing every box that it shows;
    without `dialogs` nobody looks for one, and a run that shows one lasts until its time-out."""

    def __init__(self, scene: Scene, program: Path, arguments: list[str], *, button: str = "ok",
                 output: str = "pipe", timeout: float = 90, on_box: Callable[[], None] | None = None,
                 dialogs: bool = True, folder: Path | None = None):
        self.scene = scene
        self.timeout = timeout
        self.started = time.monotonic()
        self.notes = Path(tempfile.mkdtemp(prefix="run.", dir=scene.notes))
        command = subprocess.list2cmdline([scene.windows(program), *arguments])
        current = scene.windows(folder or program.parent)
        lines = [f"command={command}", f"folder={current}", f"timeout_ms={int(timeout * 1000)}",
                 f"env=TEMP={scene.windows(scene.temp)}", f"env=TMP={scene.windows(scene.temp)}",
                 f"env=QORVA_CONFIG_HOME={scene.windows(scene.config)}",
                 f"env=QORVA_RIG_HOLDERS={scene.windows(scene.holders)}"]
        if output == "none":
            lines.append("output=none")
        (self.notes / "job").write_text("\n".join(lines) + "\n", "utf-8")
        self.output_file = (self.notes / "output").open("w+b")
        windows = scene.sandbox.windows_path
        self.launcher = subprocess.Popen(
            ["wine", windows(places.LAUNCHER), windows(self.notes / "job"), windows(self.notes / "report")],
            env={**scene.sandbox.environment_with_hosts(), "USER": scene.user},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE if output == "pipe" else self.output_file,
            stderr=subprocess.DEVNULL)
        self.pid = int(self.report("pid"))
        self.asked_for_update = any(argument.startswith("--target-dir=") for argument in arguments)
        self.reader = DialogReader(scene.sandbox, self.pid, button, timeout, on_box) if dialogs else None

    def report(self, key: str) -> str:
        """What the launcher noted under a key, once it is there."""
        end = time.monotonic() + self.timeout + 20
        while time.monotonic() < end:
            path = self.notes / "report"
            for line in path.read_text().splitlines() if path.exists() else []:
                name, _, value = line.partition("=")
                if name == key:
                    return value
                if name == "failed":
                    raise RuntimeError(f"the updater could not be started: error {value}")
            time.sleep(0.02)
        raise TimeoutError(f"the launcher noted no {key}")

    def running(self) -> bool:
        return self.launcher.poll() is None

    def finish(self) -> Outcome:
        self.scene.runs.remove(self)
        self.launcher.wait(self.timeout + 20)
        seconds = time.monotonic() - self.started
        output = self.take_output()
        code = self.report("exit")
        dialogs = self.reader.finish() if self.reader else []
        self.await_observer()
        if self.asked_for_update and code in ("2", "18"):
            self.scene.failures += 1
        shutil.rmtree(self.notes)
        return Outcome(int(code) if code.isdigit() else code, output, dialogs, seconds,
                       trace_log.read(self.scene.trace_path))

    def await_observer(self) -> None:
        """An observer outlives its run by the moment that it takes to write down how it ended."""
        end = time.monotonic() + 10
        while True:
            updaters = [program.command for program in self.scene.running() if "_updater.exe" in program.command]
            observers = [command for command in updaters if " --observe " in command]
            if 2 * len(observers) <= len(updaters):
                return
            if time.monotonic() > end:
                raise TimeoutError(f"an observer stays: {self.scene.running()}")
            time.sleep(0.01)

    def take_output(self) -> bytes:
        with self.output_file:
            if self.launcher.stdout is None:
                self.output_file.seek(0)
                return self.output_file.read()
        with self.launcher.stdout as pipe:
            # Not to the end: the restarted application may hold the other end open.
            os.set_blocking(pipe.fileno(), False)
            return pipe.read() or b""
