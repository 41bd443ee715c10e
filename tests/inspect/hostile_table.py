"""Compares the verdicts of `qorva_inspect package` with those of the updater, row by row.

usage: PYTHONPATH=tests/rig:tools hostile_table.py QORVA_INSPECT

A row that the updater unpacks is refused for its layout alone, because no required file is named.
"""

import json
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import hostile_archives

NO_REQUIRED_FILE = "Update package required file contract is empty or too large."


def verdict(program: str, archive: Path) -> tuple[int, str]:
    done = subprocess.run([program, "package", archive, "--json"], capture_output=True, timeout=60)
    reply = json.loads(done.stdout)
    if done.returncode == 2:  # this machine stopped the inspection, for example for lack of space
        return 1, reply["error"].removeprefix("the inspection stopped: ").partition(". ")[0]
    return done.returncode, reply["refusal"]["message"]


def main(program: str) -> int:
    faults = []
    cases = hostile_archives.cases()
    with tempfile.TemporaryDirectory() as folder:
        archives = [Path(folder, f"{number}.zip") for number in range(len(cases))]
        for case, archive in zip(cases, archives):
            archive.write_bytes(case.archive)
        with ThreadPoolExecutor() as pool:
            verdicts = pool.map(lambda archive: verdict(program, archive), archives)
        for case, (status, message) in zip(cases, verdicts):
            expected = NO_REQUIRED_FILE if isinstance(case.expected, dict) else case.expected
            if status != 1 or not hostile_archives.meets(expected, message):
                faults.append(f"{case.name}: {status} {message!r} instead of {expected!r}")
        left = [path.name for path in Path(tempfile.gettempdir()).glob("qorva_inspect_*")]
    print(*faults, *left, f"{len(cases)} archives", sep="\n")
    return 1 if faults or left else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
