"""The private Wine prefix of the rig, with its own display, and what can be done in it.

tools/wine-session makes and ends it. It trusts the rig's certificate authority, and programs that
need the deployment's host names find them on loopback through libnss_wrapper; neither the machine's
trust store nor its /etc/hosts is touched.
"""

import fcntl
import io
import os
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

import certificates
import places


HOSTS_FILE = places.RIG_HOME / "hosts"


class Sandbox:
    """Several processes may have it started at once; the last one to ask for its end ends it."""

    def __init__(self) -> None:
        self.prefix = places.WINE_HOME / "prefix"
        self.drive_c = self.prefix / "drive_c"
        self.environment: dict[str, str] = {}
        self.hosts_file = HOSTS_FILE
        self.in_use: io.TextIOWrapper | None = None

    def start(self) -> "Sandbox":
        """Idempotent."""
        places.WINE_HOME.mkdir(parents=True, exist_ok=True)
        with (places.WINE_HOME / "rig.lock").open("w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.in_use = (places.WINE_HOME / "in-use.lock").open("w")
            fcntl.flock(self.in_use, fcntl.LOCK_SH)
            session("start")
            self.install_caption_font()
            hosts = "".join(f"127.0.0.1 {host}\n" for host in (*places.HOSTS, *places.REPORT_HOSTS))
            if not HOSTS_FILE.exists() or HOSTS_FILE.read_text() != hosts:
                HOSTS_FILE.write_text(hosts)
            self.load_environment()
            self.keep_out_of_the_home_folder()
            self.install_restart_manager()
            self.trust(certificates.make_authority("trusted").root,
                       certificates.make_code_authority("trusted").root)
        return self

    def leave(self) -> None:
        """Says that this process no longer needs it."""
        if self.in_use:
            self.in_use.close()

    def stop(self) -> None:
        """Ends every program of the prefix, its server and the display, unless another process has
        them in use."""
        self.leave()
        with (places.WINE_HOME / "in-use.lock").open("w") as in_use:
            try:
                fcntl.flock(in_use, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                return
            session("stop")

    def load_environment(self) -> None:
        lines = session("env").splitlines()
        self.environment = {**os.environ, "LC_ALL": "C.UTF-8",
                            **dict(line.split("=", 1) for line in lines)}
        self.environment["WINEDLLOVERRIDES"] += f";{places.RESTART_MANAGER.stem}=native"

    def install_caption_font(self) -> None:
        # The font that draws the buttons of a caption is Wine's own, but Debian keeps it where Wine
        # does not look. It is read when a session begins.
        font = Path("/usr/share/wine/fonts/marlett.ttf")
        installed = self.drive_c / "windows" / "Fonts" / font.name
        if font.exists() and not installed.exists():
            shutil.copyfile(font, installed)
            session("stop")
            session("start")

    def keep_out_of_the_home_folder(self) -> None:
        # Wine links Desktop, Documents and the like to the home folder of whoever runs it.
        for link in self.drive_c.glob("users/*/*"):
            if link.is_symlink():
                link.unlink()
                link.mkdir()

    def user_folder(self, user: str) -> Path:
        """The profile of a user; a program that runs with USER set to the name has it for its own."""
        return self.drive_c / "users" / user

    def install_restart_manager(self) -> None:
        # Wine's own knows no holder of any file. This one says what a run was told to have it say.
        installed = self.drive_c / "windows" / "system32" / places.RESTART_MANAGER.name
        library = places.RESTART_MANAGER.read_bytes()
        if not installed.exists() or installed.read_bytes() != library:
            fresh = installed.with_suffix(".new")
            fresh.write_bytes(library)
            fresh.replace(installed)  # programs that have the old one loaded keep it

    def trust(self, *roots: Path) -> None:
        text = certificates.registry_text(*roots)
        imported = places.WINE_HOME / "trusted.reg"
        if imported.exists() and imported.read_text() == text:
            return
        entry = places.WINE_HOME / "trust.reg"
        entry.write_text(text)
        self.run("regedit", "/S", self.windows_path(entry))
        entry.rename(imported)

    def run(self, *command: str, timeout: float = 60) -> str:
        """Runs a Windows program to its end and gives what it printed."""
        done = subprocess.run(["wine", *command], env=self.environment, stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=timeout)
        if done.returncode != 0:
            raise RuntimeError(f"{command[0]} ended with {done.returncode}: "
                               f"{(done.stdout + done.stderr).decode(errors='replace').strip()}")
        return done.stdout.decode(errors="replace").replace("\r\n", "\n")

    def windows_path(self, path: Path) -> str:
        if path.is_relative_to(self.drive_c):
            return "C:\\" + str(path.relative_to(self.drive_c)).replace("/", "\\")
        return "Z:" + str(path.resolve()).replace("/", "\\")

    def unix_path(self, path: str) -> Path:
        assert path.lower().startswith("c:\\"), path
        return self.drive_c / path[3:].replace("\\", "/")

    def environment_with_hosts(self) -> dict[str, str]:
        """For programs that have to find the deployment's hosts, and for their children."""
        return {**self.environment, "LD_PRELOAD": "libnss_wrapper.so",
                "NSS_WRAPPER_HOSTS": str(self.hosts_file)}

    def paint_desktop(self) -> None:
        """A quiet background for screenshots. The tool says that it failed when it did not."""
        subprocess.run(["display", "-size", "1280x800", "-window", "root", "gradient:#34495e-#22303f"],
                       env=self.environment, timeout=30, capture_output=True)

    def screenshot(self, path: Path) -> None:
        subprocess.run(["import", "-window", "root", str(path)], env=self.environment, check=True,
                       timeout=30, capture_output=True)


def session(verb: str) -> str:
    environment = {**os.environ, "QORVA_WINE_HOME": str(places.WINE_HOME)}
    done = subprocess.run([places.ROOT / "tools" / "wine-session", verb], env=environment, text=True,
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=300)
    if done.returncode != 0:
        raise RuntimeError(f"tools/wine-session {verb} failed: {done.stderr.strip()}")
    return done.stdout


@dataclass(frozen=True)
class Running:
    """A program of the prefix, seen from the Unix side."""

    pid: int
    command: str

    def end(self) -> None:
        try:
            os.kill(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            return
        command = Path(f"/proc/{self.pid}/cmdline")
        for _ in range(500):  # until it has let go of its files; what is left then has no command
            if not command.exists() or not command.read_bytes():
                return
            time.sleep(0.01)


def programs_from(folder: str) -> list[Running]:
    """The Windows programs that were started from a folder of drive C ("C:\\rig\\name")."""
    found = []
    for entry in Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            command = (entry / "cmdline").read_bytes().replace(b"\0", b" ").decode(errors="replace")
        except OSError:
            continue
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
            sys.exit("usage: sandbox.py start|stop")
