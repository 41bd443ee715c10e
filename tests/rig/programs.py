"""The Windows programs that the runs work with: the stand-in for the application, the reader of
message boxes and the holder of files. Their usage stands at the head of each source."""

import json
import subprocess
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import places
from sandbox import Sandbox

TEST_APPLICATION_1 = places.PROGRAMS / "test_app_v1.exe"
TEST_APPLICATION_2 = places.PROGRAMS / "test_app_v2.exe"
DIALOG_DRIVER = places.PROGRAMS / "dialog_driver.exe"
FILE_HOLDER = places.PROGRAMS / "file_holder.exe"
WINDOW_WATCH = places.PROGRAMS / "window_watch.exe"
REMOTE_CRASH = places.PROGRAMS / "remote_crash.exe"
SIGNATURE_PROBE = places.PROGRAMS / "signature_probe.exe"
MARK = "app_mark.log"  # what the stand-in writes beside itself
APPLICATION_CLASS = "ZUL_RIP_Main"
PROGRESS_CLASS = "ZULRipUpdaterProgressWindow"
BOX_TITLE = "QORVA Updater"


@dataclass(frozen=True)
class Dialog:
    """A message box that was read and dismissed."""

    title: str
    text: str
    icon: str
    buttons: tuple[str, ...]


class DialogReader:
    """Reads every box of one process from now on, and presses the same button on each. `on_box` is
    called while a box is up."""

    def __init__(self, sandbox: Sandbox, pid: int, button: str, timeout: float,
                 on_box: Callable[[], None] | None):
        self.sandbox = sandbox
        self.command = ["--title", BOX_TITLE, "--pid", str(pid),
                        "--timeout-ms", str(int(timeout * 1000))]
        self.dialogs: list[Dialog] = []
        self.lock = threading.Lock()  # guards `driver` and `over`
        self.driver: subprocess.Popen | None = None
        self.over = False
        self.on_box = on_box
        self.thread = threading.Thread(target=self.read, args=(button,), daemon=True)
        self.thread.start()

    def read(self, button: str) -> None:
        first = "none" if self.on_box else button
        press = first
        while (found := self.drive(press)) is not None:
            looked, press = press == "none", first
            if "text" not in found:
                return  # the process has ended, or its time is over
            if looked:
                self.on_box()
                press = button
            elif found["pressed"]:
                self.dialogs.append(Dialog(found["title"], found["text"], found["icon"],
                                           tuple(found["buttons"])))
            else:
                press = found["buttons"][0]  # a box of another kind: it, too, has to go

    def drive(self, press: str) -> dict | None:
        """What the driver saw, or None once there is nothing more to read."""
        with self.lock:
            if self.over:
                return None
            self.driver = start(self.sandbox, DIALOG_DRIVER, *self.command, "--press", press)
        printed, _ = self.driver.communicate()
        return json.loads(printed) if printed.strip() else None

    def finish(self) -> list[Dialog]:
        """To be called when the process has ended, with which the driver ends too."""
        with self.lock:
            self.over = True
        self.thread.join(20)
        if self.thread.is_alive() and self.driver:
            self.driver.kill()
            self.thread.join()
        return self.dialogs


class Hold:
    """A file held open by another process until the end of the `with` block. `triggers` are switches
    of the holder that say when it opens the file; without any it is held on entry."""

    def __init__(self, sandbox: Sandbox, path: Path, *triggers: str, share: str = "read"):
        self.holder = start(sandbox, FILE_HOLDER, "--file", sandbox.windows_path(path),
                            "--share", share, *triggers, stdin=subprocess.PIPE)
        self.pid = 0  # of the Windows process, once it is known to hold the file
        if not triggers:
            self.expect_held()

    def expect_held(self) -> None:
        self.pid = int(self.expect("held"))

    def expect(self, word: str) -> str:
        """What stands behind the word in the line that begins with it."""
        while line := self.holder.stdout.readline().decode().strip():
            if line.startswith(word):
                return line[len(word):]
        raise RuntimeError(f"the holder ended before it said {word!r}")

    def __enter__(self) -> "Hold":
        return self

    def __exit__(self, *_: object) -> None:
        self.holder.stdin.close()
        try:
            self.holder.wait(10)
        except subprocess.TimeoutExpired:
            self.holder.kill()
            self.holder.wait()
        self.holder.stdout.close()


def start(sandbox: Sandbox, program: Path, *arguments: str, stdin=subprocess.DEVNULL) -> subprocess.Popen:
    return subprocess.Popen(["wine", sandbox.windows_path(program), *arguments], stdin=stdin,
                            env=sandbox.environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)


def close_application(sandbox: Sandbox, pid: int) -> None:
    """Asks the application's windows of a Windows process to close."""
    sandbox.run(sandbox.windows_path(DIALOG_DRIVER), "--window-class", APPLICATION_CLASS,
                "--pid", str(pid), "--close")


def missing_marks(folder: Path, *marks: str, timeout: float = 20) -> list[str]:
    """Waits until the application in a folder has written a line that begins with each of the marks,
    in this order, and gives those that did not come."""
    end = time.monotonic() + timeout
    while True:
        missing = list(marks)
        path = folder / MARK
        for line in path.read_text("utf-8").splitlines() if path.exists() else []:
            if missing and line.startswith(missing[0]):
                missing.pop(0)
        if not missing or time.monotonic() > end:
            return missing
        time.sleep(0.02)


def marks_of_start(version: int) -> tuple[str, str]:
    """What the application writes when it comes up with its window."""
    return f"start {version}.0.0 qorva_gui.exe ", f"window QORVA {version}.0.0"
