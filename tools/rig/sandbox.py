"""The private Wine prefix of the rig, which has its own display.

    PYTHONPATH=tools python3 -m rig.sandbox start|stop

tools/wine-session makes and ends it. The prefix trusts the rig's certificate authority, and
libnss_wrapper resolves the deployment's host names to loopback addresses. The machine's trust store
and /etc/hosts stay unchanged.
"""

import contextlib
import fcntl
import io
import os
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

from rig import certificates, places


class Sandbox:
    """Several processes may use the prefix at once. The last one that asks for its end ends it."""

    def __init__(self) -> None:
        self.prefix = places.WINE_HOME / "prefix"
        self.drive_c = self.prefix / "drive_c"
        self.environment: dict[str, str] = {}
        self.hosts_file = places.RIG_HOME / "hosts"
        self.in_use: io.TextIOWrapper | None = None

    def start(self) -> "Sandbox":
        """Starts the prefix, or joins it when it runs already."""
        places.WINE_HOME.mkdir(parents=True, exist_ok=True)
        with (places.WINE_HOME / "rig.lock").open("w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.in_use = (places.WINE_HOME / "in-use.lock").open("w")
            fcntl.flock(self.in_use, fcntl.LOCK_SH)
            session("start")
            self.environment = {**os.environ, **dict(line.split("=", 1) for line in session("env").splitlines())}
            self.environment["WINEDLLOVERRIDES"] += f";{places.RESTART_MANAGER.stem}=native"
            hosts = (*places.HOSTS, *places.REPORT_HOSTS)
            renew(self.hosts_file, "".join(f"127.0.0.1 {host}\n" for host in hosts).encode())
            # Wine links Desktop, Documents and other folders to those of the user who started it.
            for link in filter(Path.is_symlink, self.drive_c.glob("users/*/*")):
                link.unlink()
                link.mkdir()
            # Wine's own library never names a holder of a file. This one reads the holders from a file.
            renew(self.drive_c / "windows" / "system32" / places.RESTART_MANAGER.name,
                  places.RESTART_MANAGER.read_bytes())
            trust = places.WINE_HOME / "trust.reg"
            if renew(trust, certificates.registry_text(certificates.make_authority("trusted").root).encode()):
                self.run("regedit", "/S", self.windows_path(trust))
        return self

    def leave(self) -> None:
        """This process no longer uses the prefix."""
        if self.in_use:
            self.in_use.close()

    def stop(self) -> None:
        """Ends all programs of the prefix, its server and the display, unless another process uses
        them."""
        self.leave()
        with (places.WINE_HOME / "in-use.lock").open("w") as in_use, contextlib.suppress(BlockingIOError):
            fcntl.flock(in_use, fcntl.LOCK_EX | fcntl.LOCK_NB)
            session("stop")

    def run(self, *command: str, given: str = "", timeout: float = 60) -> str:
        """Runs a Windows program to its end, with `given` as its standard input, and returns its output.
        An exit code other than 0 raises RuntimeError."""
        done = subprocess.run(["wine", *command], env=self.environment, input=given.encode(),
                              capture_output=True, timeout=timeout)
        if done.returncode != 0:
            raise RuntimeError(f"{command[:2]} ended with {done.returncode}: "
                               f"{(done.stdout + done.stderr).decode(errors='replace').strip()}")
        return done.stdout.decode(errors="replace").replace("\r\n", "\n")

    def windows_path(self, path: Path) -> str:
        if path.is_relative_to(self.drive_c):
            return "C:\\" + str(path.relative_to(self.drive_c)).replace("/", "\\")
        return "Z:" + str(path.resolve()).replace("/", "\\")

    def environment_with_hosts(self) -> dict[str, str]:
        """The environment of a program that must resolve the deployment's hosts."""
        return {**self.environment, "LD_PRELOAD": "libnss_wrapper.so", "NSS_WRAPPER_HOSTS": str(self.hosts_file)}


def session(verb: str) -> str:
    environment = {**os.environ, "QORVA_WINE_HOME": str(places.WINE_HOME)}
    done = subprocess.run([places.ROOT / "tools" / "wine-session", verb], env=environment, text=True,
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=300)
    if done.returncode != 0:
        raise RuntimeError(f"tools/wine-session {verb} failed: {done.stderr.strip()}")
    return done.stdout


def renew(file: Path, content: bytes) -> bool:
    """Replaces the file unless it has this content; true when it was replaced. Programs that loaded the
    old file keep it."""
    if file.exists() and file.read_bytes() == content:
        return False
    fresh = file.with_suffix(".new")
    fresh.write_bytes(content)
    fresh.replace(file)
    return True


@dataclass(frozen=True)
class Running:
    """A running program of the prefix, as a process of Linux."""

    pid: int
    command: str

    def end(self) -> None:
        with contextlib.suppress(OSError):
            os.kill(self.pid, signal.SIGKILL)
            for _ in range(500):  # until its files are closed: a process without memory has no command line
                if not Path(f"/proc/{self.pid}/cmdline").read_bytes():
                    return
                time.sleep(0.01)


def programs_from(folder: str, prefix: Path | None = None) -> list[Running]:
    """The running programs whose executable is in a folder of drive C ("C:\\rig\\name"), of that prefix or of
    all: another checkout may run the same scene in its own."""
    variable = f"WINEPREFIX={prefix}".encode()
    found = []
    for entry in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            command = (entry / "cmdline").read_bytes().replace(b"\0", b" ").decode(errors="replace")
            of_folder = command.lstrip('"').lower().startswith(folder.lower() + "\\")
            if of_folder and (not prefix or variable in (entry / "environ").read_bytes().split(b"\0")):
                found.append(Running(int(entry.name), command.strip()))
    return found


if __name__ == "__main__":
    match sys.argv[1:]:
        case ["start"]:
            Sandbox().start()
        case ["stop"]:
            Sandbox().stop()
        case _:
            sys.exit("usage: python3 -m rig.sandbox start|stop")
