"""What the buttons of a message box reach: the clipboard and the browser. There is one of each in the
prefix, so runs that count on them must not overlap."""

import json
import re
import shutil
import subprocess
from collections.abc import Callable
from pathlib import Path

import places
import programs
from sandbox import Sandbox

CLIPBOARD = places.PROGRAMS / "clipboard.exe"
HTTPS_COMMAND = (r"HKLM\Software\Classes\https\shell\open\command", "/ve")


class Clipboard:
    """Holds a text at first. While it is not in reach nobody else can open it."""

    def __init__(self, sandbox: Sandbox, text: str, in_reach: bool):
        self.sandbox = sandbox
        self.holder = programs.start(sandbox, CLIPBOARD, "--write", text,
                                     *([] if in_reach else ["--keep-open"]), stdin=subprocess.PIPE)
        assert self.holder.stdout.readline().strip() == b"written"

    def read(self) -> str | None:
        """Through a process of its own, as whoever pastes has one. Back in reach from here on."""
        self.holder.stdin.write(b"\n")
        self.holder.stdin.flush()
        return json.loads(self.sandbox.run(self.sandbox.windows_path(CLIPBOARD), "--read"))["text"]

    def __enter__(self) -> "Clipboard":
        return self

    def __exit__(self, *_: object) -> None:
        self.holder.communicate(timeout=20)


class Browser:
    """A program that leaves a mark for each address that it is given."""

    def __init__(self, sandbox: Sandbox, folder: Path, add_cleanup: Callable[..., None]):
        self.sandbox = sandbox
        self.folder = folder
        shutil.copyfile(programs.TEST_APPLICATION_1, folder / "browser.exe")
        queried = sandbox.run("reg", "query", *HTTPS_COMMAND)
        add_cleanup(self.choose, re.search(r"REG_SZ\s+(.*?)\s*$", queried, re.M)[1])

    def choose(self, command: str) -> None:
        """Sets what the system starts for a secure address."""
        self.sandbox.run("reg", "add", *HTTPS_COMMAND, "/f", "/d", command)

    def set_up(self, in_reach: bool) -> None:
        name = "browser.exe" if in_reach else "no such browser.exe"
        self.choose(f'"{self.sandbox.windows_path(self.folder / name)}" "%1"')

    def opened(self, expected: int) -> list[str]:
        """The addresses since the last call, once there are as many as expected."""
        programs.missing_marks(self.folder, *["start "] * expected)
        marks = self.folder / programs.MARK
        lines = marks.read_text("utf-8").splitlines() if marks.exists() else []
        marks.unlink(missing_ok=True)
        return [line.split('"')[3] for line in lines]
