"""The private Wine prefix of the rig, with its own display, and what can be done in it.

tools/wine-session makes and ends it. It trusts the rig's certificate authority, and programs that
need the deployment's host names find them on loopback through libnss_wrapper; neither the machine's
trust store nor its /etc/hosts is touched.
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
    """Several processes may have it started at once; the last one to ask for its end ends it."""

    def __init__(self) -> None:
        self.prefix = places.WINE_HOME / "prefix"
        self.drive_c = self.prefix / "drive_c"
        self.environment: dict[str, str] = {}
        self.hosts_file = places.RIG_HOME / "hosts"
        self.in_use: io.TextIOWrapper | None = None

    def start(self) -> "Sandbox":
        """Idempotent."""
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
            # Wine links Desktop, Documents and the like to the home folder of whoever runs it.
            for link in filter(Path.is_symlink, self.drive_c.glob("users/*/*")):
                link.unlink()
                link.mkdir()
            # Wine's own knows no holder of any file. This one says what a run was told to have it say.
            renew(self.drive_c / "windows" / "system32" / places.RESTART_MANAGER.name,
                  places.RESTART_MANAGER.read_bytes())
            trust = places.WINE_HOME / "trust.reg"
            if renew(trust, certificates.registry_text(certificates.make_authority("trusted").root).encode()):
                self.run("regedit", "/S", self.windows_path(trust))
        return self

    def leave(self) -> None:
        """Says that this process no longer needs it."""
        if self.in_use:
            self.in_use.close()

    def stop(self) -> None:
        """Ends every program of the prefix, its server and the display, unless another process has
        them in use."""
        self.leave()
        with (places.WINE_HOME / "in-use.lock").open("w") as in_use, contextlib.suppress(BlockingIOError):
            fcntl.flock(in_use, fcntl.LOCK_EX | fcntl.LOCK_NB)
            session("stop")

    def run(self, *command: str, timeout: float = 60) -> str:
        """Runs a Windows program to its end and gives what it printed."""
        done = subprocess.run(["wine", *command], env=self.environment, stdin=subprocess.DEVNULL,
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
        """For programs that have to find the deployment's hosts, and for their children."""
        return {**self.environment, "LD_PRELOAD": "libnss_wrapper.so", "NSS_WRAPPER_HOSTS": str(self.hosts_file)}


def session(verb: str) -> str:
    environment = {**os.environ, "QORVA_WINE_HOME": str(places.WINE_HOME)}
    done = subprocess.run([places.ROOT / "tools" / "wine-session", verb], env=environment, text=True,
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=300)
    if done.returncode != 0:
        raise RuntimeError(f"tools/wine-session {verb} failed: {done.stderr.strip()}")
    return done.stdout


def renew(file: Path, content: bytes) -> bool:
    """Whether the file had to be written; programs that have the old one loaded keep it."""
    if file.exists() and file.read_bytes() == content:
        return False
    fresh = file.with_suffix(".new")
    fresh.write_bytes(content)
    fresh.replace(file)
    return True


@dataclass(frozen=True)
class Running:
    """A program of the prefix, seen from the Unix side."""

    pid: int
    command: str

    def end(self) -> None:
        with contextlib.suppress(OSError):
            os.kill(self.pid, signal.SIGKILL)
            for _ in range(500):  # until it has let go of its files; what is left then has no command
                if not Path(f"/proc/{self.pid}/cmdline").read_bytes():
                    return
                time.sleep(0.01)


def programs_from(folder: str) -> list[Running]:
    """The Windows programs that were started from a folder of drive C ("C:\\rig\\name")."""
    found = []
    for entry in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            command = (entry / "cmdline").read_bytes().replace(b"\0", b" ").decode(errors="replace")
            if command.lstrip('"').lower().startswith(folder.lower() + "\\"):
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
