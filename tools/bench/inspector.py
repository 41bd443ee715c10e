"""Compares the native qorva_inspect with unzip -t and sha256sum, on a package of 20,000 small files.
./bench --inspector

usage: PYTHONPATH=tools inspector.py PROGRAM [--rounds N]

The tools take turns, so that both meet the same state of the machine. Ends with 1 when the inspection
takes longer than the two tools together.
"""

import argparse
import statistics
import sys
import tempfile
import zipfile
from pathlib import Path

from native_tools import timed
from rig import packages
from workloads import small_files, zip_entry


def write_package(package: Path) -> None:
    with zipfile.ZipFile(package, "w", zipfile.ZIP_DEFLATED, compresslevel=6) as archive:
        archive.writestr(zip_entry(packages.APPLICATION), packages.binary(60_000, "application"))
        for path, pieces in small_files():
            archive.writestr(zip_entry(path), b"".join(pieces))


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("program", type=Path)
    parser.add_argument("--rounds", type=int, default=5)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        package = Path(folder, "package.zip")
        print("making the package of 20,000 files", flush=True)
        write_package(package)
        inspected, tools = [], []
        print(f"{'qorva_inspect':>15}{'unzip -t':>11}{'sha256sum':>11}")
        for _ in range(options.rounds):
            inspected.append(timed(options.program, "package", package,
                                   f"--required-payload-file={packages.APPLICATION}"))
            each = timed("unzip", "-tq", package), timed("sha256sum", package)
            tools.append(sum(each))
            print(f"{inspected[-1]:13.2f} s{each[0]:9.2f} s{each[1]:9.2f} s", flush=True)
    ratio = statistics.median(inspected) / statistics.median(tools)
    print(f"qorva_inspect takes {ratio:.2f} times as long as both tools (medians).")
    return 0 if ratio <= 1 else 1


if __name__ == "__main__":
    sys.exit(main())
