"""Native tools that do the same work, each timed in a new folder."""

import os
import subprocess
import time
from pathlib import Path

from rig import certificates
from workloads import Workload

# One fsync a file, since the updater flushes each file that it writes.
SYNC_EACH = "find . -type f -print0 | xargs -0 sync"


class NativeTools:
    """Takes one package through all tools in `folder`, which must not exist. Each step returns its
    seconds and needs the steps before it. Nothing is deleted."""

    def __init__(self, workload: Workload, folder: Path):
        self.workload = workload
        self.folder = folder
        self.package = folder / "package.zip"
        self.stage = folder / "stage"
        self.backup = folder / "backup"
        self.install = folder / "install"
        folder.mkdir(parents=True)
        copy_tree(workload.installed, self.install)

    def download(self, url: str, authority: certificates.Authority) -> float:
        host, port = url.removeprefix("https://").split("/")[0].split(":")
        return timed("curl", "--silent", "--show-error", "--fail", "--cacert", authority.root,
                     "--resolve", f"{host}:{port}:127.0.0.1", "--output", self.package, url)

    def sha256sum(self) -> float:
        return timed("sha256sum", self.package)

    def openssl(self) -> float:
        return timed("openssl", "dgst", "-sha256", self.package)

    def list_entries(self) -> float:
        return timed("unzip", "-l", self.package)

    def unzip(self) -> float:
        return timed("unzip", "-q", self.package, "-d", self.stage)

    def sync_stage(self) -> float:
        return timed("sh", "-c", SYNC_EACH, cwd=self.stage)

    def back_up(self) -> float:
        return (timed("cp", "-a", self.install, self.backup) +
                timed("sh", "-c", SYNC_EACH, cwd=self.backup))

    def install_over(self) -> float:
        return timed("rsync", "-a", "--fsync", f"{self.stage}/", f"{self.install}/")


def timed(*command: object, cwd: Path | None = None, env: dict[str, str] | None = None) -> float:
    started = time.monotonic()
    subprocess.run([str(part) for part in command], cwd=cwd, env=env, check=True, timeout=300,
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    return time.monotonic() - started


def copy_tree(source: Path, target: Path) -> None:
    """Copies all bytes, without reflinks, and keeps file times."""
    subprocess.run(["cp", "-a", "--reflink=never", f"{source}/.", target], check=True, timeout=300)


def settle() -> None:
    """Writes everything to disk, so that no program waits for the writes of another."""
    os.sync()


class StolenTime:
    """The time since the constructor in which the host of a virtual machine kept its processors from it."""

    def __init__(self) -> None:
        self.start = self.read()

    def percent(self) -> float:
        spent = [now - before for now, before in zip(self.read(), self.start)]
        return 100 * spent[7] / sum(spent)

    @staticmethod
    def read() -> list[int]:
        """Ticks of all processors by state; the eighth is "steal" (proc(5))."""
        return [int(ticks) for ticks in Path("/proc/stat").read_text().splitlines()[0].split()[1:9]]
