"""The Windows programs of the rig: the stand-in for the application, and rig_tool.exe, which holds
files, uses the clipboard and examines windows. The head comment of each source describes its usage."""

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
MARK = "app_mark.log"  # the stand-in writes it into its own folder
APPLICATION_CLASS = "ZUL_RIP_Main"
PROGRESS_CLASS = "ZULRipUpdaterProgressWindow"


def tool(sandbox: Sandbox, *arguments: str) -> str:
    """Runs a verb of rig_tool.exe and returns its output."""
    return sandbox.run(sandbox.windows_path(places.TOOL), *arguments)


def close_application(sandbox: Sandbox, pid: int) -> None:
    """Sends WM_CLOSE to the application's windows in the process with this Windows process id."""
    tool(sandbox, "close", APPLICATION_CLASS, str(pid))


class Helper:
    """A verb of rig_tool.exe that runs until the end of the `with` block."""

    def __init__(self, sandbox: Sandbox, *arguments: str):
        self.sandbox = sandbox
        self.process = subprocess.Popen(
            ["wine", sandbox.windows_path(places.TOOL), *arguments], stdin=subprocess.PIPE,
            env=sandbox.environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def expect(self, word: str) -> str:
        """Waits for a line that begins with the word and returns the rest of that line."""
        while line := self.process.stdout.readline().decode().strip():
            if line.startswith(word):
                return line[len(word):]
        raise RuntimeError(f"the helper ended before it printed {word!r}")

    def go_on(self) -> None:
        """Sends the line of input that the verb waits for."""
        self.process.stdin.write(b"\n")
        self.process.stdin.flush()

    def output(self) -> str:
        """Ends the verb by closing its input and returns the rest of its output."""
        return self.process.communicate(timeout=30)[0].decode()

    def __enter__(self):
        return self

    def __exit__(self, *_: object) -> None:
        if not self.process.stdin.closed:
            self.output()


class Hold(Helper):
    """A file that another process holds open; with "--on-input" only after `go_on`."""

    def __init__(self, sandbox: Sandbox, path: Path, *options: str):
        super().__init__(sandbox, "hold", sandbox.windows_path(path), *options)
        self.parent = int(self.expect("parent")) if "--from-child" in options else 0
        self.pid = 0 if "--on-input" in options else int(self.expect("held"))


class Clipboard(Helper):
    """The clipboard, with a text in it. While it is not available, no other process can open it."""

    def __init__(self, sandbox: Sandbox, text: str, available: bool):
        super().__init__(sandbox, "copy", text, *([] if available else ["--keep-open"]))
        self.expect("written")

    def read(self) -> str:
        """The text that another process pastes. The clipboard is available from now on."""
        self.go_on()
        return tool(self.sandbox, "paste").removesuffix("\n")


class Browser:
    """The only browser of the prefix: a program that writes down each address that it is started with."""

    COMMAND = (r"HKLM\Software\Classes\https\shell\open\command", "/ve")

    def __init__(self, sandbox: Sandbox, folder: Path, add_cleanup: Callable[..., None]):
        self.sandbox = sandbox
        self.folder = folder
        shutil.copyfile(TEST_APPLICATION_1, folder / "browser.exe")
        queried = sandbox.run("reg", "query", *self.COMMAND)
        add_cleanup(self.choose, re.search(r"REG_SZ\s+(.*?)\s*$", queried, re.M)[1])

    def choose(self, command: str) -> None:
        """Sets the command that the system runs for an https address."""
        self.sandbox.run("reg", "add", *self.COMMAND, "/f", "/d", command)

    def set_up(self, available: bool) -> None:
        name = "browser.exe" if available else "no such browser.exe"
        self.choose(f'"{self.sandbox.windows_path(self.folder / name)}" "%1"')

    def opened(self, expected: int) -> list[str]:
        """Waits for this number of addresses and returns those since the last call."""
        missing_marks(self.folder, *["start "] * expected)
        opened = [line.split('"')[3] for line in marks(self.folder) if line.startswith("start ")]
        (self.folder / MARK).unlink(missing_ok=True)
        return opened


def marks(folder: Path) -> list[str]:
    """The lines that the application in this folder has written."""
    path = folder / MARK
    return path.read_text("utf-8").splitlines() if path.exists() else []


def missing_marks(folder: Path, *starts: str, timeout: float = 20) -> list[str]:
    """Waits until the application in this folder has written lines with these beginnings, in this order.
    Returns the beginnings that are missing after `timeout` seconds."""
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
    """The beginnings of the lines that the application writes when it shows its window."""
    return f"start {version}.0.0 qorva_gui.exe ", f"window QORVA {version}.0.0"
