"""Measures how time and memory grow with the largest packages, compared with native tools. ./bench --load

usage: PYTHONPATH=tools load.py [--only NAME]
       NAME is gigabyte, deep-tree, small-files-new, entries-65535 or entries-70000

Each package is taken once by the real executable and once by unzip. The table comes at the end, after
about half an hour. Needs about 10 GB below build/bench.
"""

import argparse
import os
import subprocess
import time
import zipfile
from collections.abc import Callable
from dataclasses import dataclass

from bench import Bench
from measured_run import idle_peak_kib, measure
from native_tools import SYNC_EACH, settle, timed
from rig import packages, places, programs
from rig.https_server import Reply
from workloads import MIB, Entries, Workload, small_files, zip_entry

LARGEST = 1 << 30
PARTS = 16  # of the gigabyte
TIMEOUT = 1800


@dataclass(frozen=True)
class Load(Workload):
    """A package for an installation that has only the application."""

    method: int = zipfile.ZIP_DEFLATED

    def write_package(self) -> None:
        # With its own limit the module writes 65,535 entries without Zip64 records, although this count
        # means that such records follow.
        zipfile.ZIP_FILECOUNT_LIMIT = 0xFFFE
        with zipfile.ZipFile(self.package, "w") as archive:
            archive.writestr(zip_entry(packages.APPLICATION), programs.TEST_APPLICATION_2.read_bytes())
            for path, pieces in self.entries():
                info = zip_entry(path)
                info.compress_type = self.method
                with archive.open(info, "w") as entry:
                    for piece in pieces:
                        entry.write(piece)

    def write_installation(self) -> None:
        packages.write_tree(self.installed, {
            packages.APPLICATION: programs.TEST_APPLICATION_1.read_bytes(),
            packages.INSTALLER_MARKER: b'{"installer":"bench"}\n'})

    def write_installer(self) -> None:
        """These packages are compared with unzip only."""


def gigabyte() -> Entries:
    """Stored parts that give the package exactly the largest allowed size."""
    names = [f"library/part_{number:02}.dat" for number in range(PARTS)]
    application = packages.zip_of({packages.APPLICATION: programs.TEST_APPLICATION_2.read_bytes()})
    headers = sum(30 + 46 + 2 * len(name) for name in names)
    left = LARGEST - len(application) - headers
    block = packages.noise(MIB, "library")
    for number, name in enumerate(names):
        size = left // PARTS if number else left - left // PARTS * (PARTS - 1)
        yield name, (block[:min(MIB, size - at)] for at in range(0, size, MIB))


def many(count: int) -> Callable[[], Entries]:
    """Small entries; with the application there are `count`."""
    return lambda: ((f"table/{number // 80:03}/{number:05}", iter([b"entry %d\n" % number]))
                    for number in range(count - 1))


def deep_tree() -> Entries:
    for level in range(1, 31):
        folder = "/".join(f"{depth:02}" for depth in range(level))
        for number in range(40):
            yield f"{folder}/f{number}", iter([packages.prose(4000, "deep", level, number)])


LOADS = (Load("gigabyte", "1 GiB, the largest package", gigabyte, zipfile.ZIP_STORED),
         Load("deep-tree", "30 levels of 40 files", deep_tree),
         Load("small-files-new", "20,000 files of 1 to 8 KB", small_files),
         Load("entries-65535", "65,535 entries, Zip64", many(65_535)),
         Load("entries-70000", "70,000 entries, Zip64", many(70_000)))


def peak_kib_of(*command: object) -> tuple[float, int]:
    """Runs a command. Returns its seconds and its peak of resident memory."""
    started = time.monotonic()
    process = subprocess.Popen([str(part) for part in command], stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise RuntimeError(f"{command[0]} ended with {process.returncode}")
    return time.monotonic() - started, usage.ru_maxrss


def measure_one(bench: Bench, work: Load) -> str:
    url = bench.server.on(places.PRIMARY_HOST, f"/{work.name}.zip", Reply(body=work.package))
    scene = bench.scene(work.name)
    packages.write_tree(scene.install, {str(path.relative_to(work.installed)): path.read_bytes()
                                        for path in work.installed.iterdir()})
    settle()
    run = measure(scene, url, work.sha256(), TIMEOUT)
    scene.end()
    settle()
    stage = bench.runs / work.name
    unzip, unzip_kib = peak_kib_of("unzip", "-q", work.package, "-d", stage)
    unzip += timed("sh", "-c", SYNC_EACH, cwd=stage)
    (scan,) = bench.run_windows("stage_times.exe", "scan", bench.sandbox.windows_path(work.package))
    listing = timed("unzip", "-l", work.package)
    count, size = len(work.files()), work.package.stat().st_size
    assert all((scene.install / path).stat().st_size == (stage / path).stat().st_size for path in work.files())
    return (f"| {work.title} | {count} | {size / MIB:.1f} | {scan:.2f} / {listing:.2f} "
            f"| {run.extract:.1f} / {unzip:.1f} | {1000 * run.extract / count:.2f} / {1000 * unzip / count:.2f} "
            f"| {run.apply:.1f} | {run.whole:.1f} "
            f"| {run.peak_kib / 1024:.1f} / {unzip_kib / 1024:.1f} |")


def main() -> None:
    parser = argparse.ArgumentParser(prog="bench --load")
    parser.add_argument("--only", action="append", choices=[work.name for work in LOADS])
    options = parser.parse_args()
    works = [work for work in LOADS if not options.only or work.name in options.only]
    for work in works:
        work.make()
        assert work.name != "gigabyte" or work.package.stat().st_size == LARGEST, work.package.stat().st_size
    bench = Bench()
    rows = []
    try:
        for work in works:
            rows.append(measure_one(bench, work))
            print(rows[-1], flush=True)
        silent = bench.server.on(places.PRIMARY_HOST, "/silent.zip", Reply(silent=True))
        idle = idle_peak_kib(bench.scene("idle"), silent) / 1024
    finally:
        bench.close()
    print(f"\nseconds, updater / unzip (with an fsync per file); peak MiB, of an idle updater {idle:.1f}\n")
    print("| package | entries | MiB | scan / unzip -l | extraction | ms an entry | apply | whole run | peak MiB |")
    print("|---|---:|---:|---:|---:|---:|---:|---:|---:|")
    print(*rows, sep="\n")


if __name__ == "__main__":
    main()
