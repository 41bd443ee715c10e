"""Puts a release together from a finished build: programs, symbols, notices, bill of materials, digests.

usage: release.py BUILD-FOLDER OUTPUT-FOLDER
"""

import hashlib
import os
import shutil
import subprocess
import sys
from datetime import datetime, timezone
from pathlib import Path

from components import ROOT, Unknown, components_of
from documents import bill_of_materials, notices

PROGRAMS = ("app/qorva_updater.exe", "app/qorva_inspect.exe")


def git(*arguments: str) -> str:
    return subprocess.run(["git", "-C", ROOT, *arguments], check=True, capture_output=True, text=True).stdout.strip()


def build_setting(build: Path, name: str) -> str:
    lines = (build / "CMakeCache.txt").read_text("utf-8").splitlines()
    return next(line.partition("=")[2] for line in lines if line.startswith(f"{name}:"))


def committed_at() -> str:
    seconds = int(git("show", "-s", "--format=%ct", "HEAD"))
    return datetime.fromtimestamp(seconds, timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def write_digests(output: Path) -> None:
    files = sorted(path for path in output.rglob("*") if path.is_file())
    lines = [f"{hashlib.sha256(path.read_bytes()).hexdigest()}  {os.path.relpath(path, output)}\n" for path in files]
    (output / "SHA256SUMS").write_text("".join(lines))


def make_release(build: Path, output: Path) -> None:
    built = [build / "src" / name for name in PROGRAMS]
    components = components_of([path.with_name(path.name + ".map") for path in built], build)
    shutil.rmtree(output, ignore_errors=True)
    (output / "symbols").mkdir(parents=True)
    programs = [Path(shutil.copy(path, output)) for path in built]
    for path in built:
        shutil.copy(path.with_name(path.name + ".debug"), output / "symbols")
    version, address = (build_setting(build, name) for name in ("QORVA_VERSION", "QORVA_PAGE_URL"))
    bill = bill_of_materials(programs, components, version, address, git("rev-parse", "HEAD"), committed_at())
    (output / "bill_of_materials.spdx.json").write_text(bill)
    (output / "third_party_notices.txt").write_text(notices(components))
    write_digests(output)


if __name__ == "__main__":
    try:
        make_release(Path(sys.argv[1]), Path(sys.argv[2]))
    except Unknown as unknown:
        sys.exit(f"release: {unknown}")
