"""The Windows programs that the runs work with: the stand-in for the application, and the rig's tool,
which holds files, reads and fills the clipboard and looks at windows. Their usage stands at the head
of each source."""

import re
import shutil
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

from rig import places
from rig.sandbox import Sandbox

TEST_APPLICATION_1 = places.PROGRAMS / "test_app_v1.exe"
TEST_APPLICATION_2 = places.PROGRAMS / "test_app_v2.exe"
MARK = "app_mark.log"  # what the stand-in writes beside itself
APPLICATION_CLASS = "ZUL_RIP_Main"
PROGRESS_CLASS = "ZULRipUpdaterProgressWindow"


def tool(sandbox: Sandbox, *arguments: str) -> str:
    """Runs a verb of the rig's tool and gives what it printed."""
    return sandbox.run(sandbox.windows_path(places.TOOL), *arguments)


def close_application(sandbox: Sandbox, pid: int) -> None:
    """Asks the application's windows of a Windows process to close."""
    tool(sandbox, "close", APPLICATION_CLASS, str(pid))


class Helper:
    """A verb of the rig's tool that works until the end of the `with` block."""

    def __init__(self, sandbox: Sandbox, *arguments: str):
        self.sandbox = sandbox
        self.process = subprocess.Popen(
            ["wine", sandbox.windows_path(places.TOOL), *arguments], stdin=subprocess.PIPE,
            env=sandbox.environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def expect(self, word: str) -> str:
        """What stands behind the word in the line that begins with it."""
        while line := self.process.stdout.readline().decode().strip():
            if line.startswith(word):
                return line[len(word):]
        raise RuntimeError(f"the helper ended before it said {word!r}")

    def tell(self) -> None:
        """Has it do what it waits with."""
        self.process.stdin.write(b"\n")
        self.process.stdin.flush()

    def output(self) -> str:
        """What it prints until its end, which it now comes to."""
        return self.process.communicate(timeout=30)[0].decode()

    def __enter__(self):
        return self

    def __exit__(self, *_: object) -> None:
        if not self.process.stdin.closed:
            self.output()


class Hold(Helper):
    """A file held open by another process; with `when_told` only once it is told so."""

    def __init__(self, sandbox: Sandbox, path: Path, *options: str):
        super().__init__(sandbox, "hold", sandbox.windows_path(path), *options)
        self.parent = int(self.expect("parent")) if "--from-child" in options else 0
        self.pid = 0 if "--when-told" in options else int(self.expect("held"))


class Clipboard(Helper):
    """Holds a text at first. While it is not in reach nobody else can open it."""

    def __init__(self, sandbox: Sandbox, text: str, in_reach: bool):
        super().__init__(sandbox, "copy", text, *([] if in_reach else ["--keep-open"]))
        self.expect("written")

    def read(self) -> str:
        """Through a process of its own, as whoever pastes has one. Back in reach from here on."""
        self.tell()
        return tool(self.sandbox, "paste").removesuffix("\n")


class Browser:
    """A program that leaves a mark for each address that it is given, as the prefix's only browser."""

    COMMAND = (r"HKLM\Software\Classes\https\shell\open\command", "/ve")

    def __init__(self, sandbox: Sandbox, folder: Path, add_cleanup: Callable[..., None]):
        self.sandbox = sandbox
        self.folder = folder
        shutil.copyfile(TEST_APPLICATION_1, folder / "browser.exe")
        queried = sandbox.run("reg", "query", *self.COMMAND)
        add_cleanup(self.choose, re.search(r"REG_SZ\s+(.*?)\s*$", queried, re.M)[1])

    def choose(self, command: str) -> None:
        """Sets what the system starts for a secure address."""
        self.sandbox.run("reg", "add", *self.COMMAND, "/f", "/d", command)

    def set_up(self, in_reach: bool) -> None:
        name = "browser.exe" if in_reach else "no such browser.exe"
        self.choose(f'"{self.sandbox.windows_path(self.folder / name)}" "%1"')

    def opened(self, expected: int) -> list[str]:
        """The addresses since the last call, once there are as many as expected."""
        missing_marks(self.folder, *["start "] * expected)
        opened = [line.split('"')[3] for line in marks(self.folder) if line.startswith("start ")]
        (self.folder / MARK).unlink(missing_ok=True)
        return opened


def marks(folder: Path) -> list[str]:
    """The lines that the application in a folder has written."""
    path = folder / MARK
    return path.read_text("utf-8").splitlines() if path.exists() else []


def missing_marks(folder: Path, *starts: str, timeout: float = 20) -> list[str]:
    """Waits until the application in a folder has written a line that begins with each of the starts,
    in this order, and gives those that did not come."""
    end = time.monotonic() + timeout
    while True:
        missing = list(starts)
        for line in marks(folder):
            if missing and line.startswith(missing[0]):
                missing.pop(0)
        if not missing or time.monotonic() > end:
            return missing
        time.sleep(0.02)


def marks_of_start(version: int) -> tuple[str, str]:
    """What the application writes when it comes up with its window."""
    return f"start {version}.0.0 qorva_gui.exe ", f"window QORVA {version}.0.0"
