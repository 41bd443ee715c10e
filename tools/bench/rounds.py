"""One round of one package. The updater and the programs that it is compared with each do the work once, in
new folders."""

from __future__ import annotations

import os
from pathlib import Path
from typing import TYPE_CHECKING

from measured_run import Measured, measure
from native_tools import NativeTools, copy_tree, settle, timed
from rig import places
from rig.https_server import Reply
from workloads import BIG_FILE, Workload

if TYPE_CHECKING:
    from bench import Bench

SMALL_BYTES = 64 << 10  # files up to this size keep their space


class Round:
    """`run` does the work. After it `updater` has the times of the updater, and `beside` the seconds of
    the other programs by their names."""

    def __init__(self, bench: Bench, work: Workload, number: int):
        self.bench, self.work, self.number = bench, work, number
        self.url = bench.server.on(places.PRIMARY_HOST, f"/{work.name}.zip", Reply(body=work.package))
        self.tools = NativeTools(work, bench.runs / f"{work.name}-{number}")
        self.scene = bench.scene(f"{work.name}-{number}")
        self.installed = bench.scene(f"{work.name}-{number}-installer").folder / "installed"  # has no blanks
        self.installed.mkdir()
        for folder in (self.scene.install, self.installed):
            copy_tree(work.installed, folder)
        self.updater: Measured | None = None
        self.beside: dict[str, float] = {}

    def run(self) -> None:
        sides = [self.run_updater, self.run_tools, self.run_minimal_apply, self.run_installer]
        if self.number % 2:  # the updater and the installer take turns in being first
            sides[0], sides[-1] = sides[-1], sides[0]
        for side in sides:
            settle()
            side()
        settle()
        for folder in (self.scene.install, self.tools.install, self.installed):
            self.work.assert_installed(folder)

    def run_updater(self) -> None:
        self.updater = measure(self.scene, self.url, self.work.sha256())
        self.scene.end()

    def run_tools(self) -> None:
        tools, took = self.tools, self.beside
        took["curl"] = tools.download(self.url, self.bench.authority)
        took["sha256sum"] = tools.sha256sum()
        took["openssl"] = tools.openssl()
        took["list"] = tools.list_entries()
        took["unzip"] = tools.unzip()
        took["unzip and fsync"] = took["unzip"] + tools.sync_stage()
        took["series"] = (took["curl"] + took["openssl"] + took["unzip and fsync"] + tools.back_up() +
                          tools.install_over())

    def run_minimal_apply(self) -> None:
        """A minimal apply of the stage that `unzip` made."""
        install, backup = self.tools.folder / "minimal-install", self.tools.folder / "minimal-backup"
        copy_tree(self.work.installed, install)
        files = self.tools.folder / "files"
        files.write_text("".join(path.replace("/", "\\") + "\n" for path in self.work.files()))
        for path in {Path(path).parent for path in self.work.files()}:
            (backup / path).mkdir(parents=True, exist_ok=True)
        settle()
        (self.beside["minimal apply"],) = self.bench.run_windows("apply_floor.exe", *map(
            self.bench.sandbox.windows_path, (files, self.tools.stage, install, backup)))

    def run_installer(self) -> None:
        self.beside["installer"] = run_installer(self.bench, self.work.installer, self.installed)

    def give_back_space(self) -> None:
        for folder in (self.scene.folder, self.tools.folder, self.installed):
            give_back_space(folder)

    def extract_rival(self) -> float:
        """The seconds of `unzip`, with an fsync for each file of a package that has many."""
        return self.beside["unzip" if self.work is BIG_FILE else "unzip and fsync"]


def run_installer(bench: Bench, installer: Path, folder: Path) -> float:
    """The seconds of a silent installation into `folder`, with the start of the installer's process."""
    windows = bench.sandbox.windows_path
    return timed("wine", windows(installer), "/S", f"/D={windows(folder)}", env=bench.sandbox.environment)


def give_back_space(folder: Path) -> None:
    """Truncates the large files below `folder`. Removing them would slow down the next round: for some
    minutes a file system without a journal does not use the inode of a removed file again."""
    for path in folder.rglob("*"):
        if path.is_file() and path.stat().st_size > SMALL_BYTES:
            os.truncate(path, 0)
