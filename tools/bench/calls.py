"""Prints what each file call of an update costs under Wine, on one thread and on three. ./bench --calls

usage: PYTHONPATH=tools calls.py [FILES]      files per row; 3,200 when there is no argument
"""

import shutil
import sys

import workloads
from rig import places
from rig.sandbox import Sandbox


def main() -> None:
    files = sys.argv[1] if len(sys.argv) > 1 else "3200"
    places.WINE_HOME = workloads.HOME / "wine"
    places.RIG_HOME.mkdir(parents=True, exist_ok=True)
    sandbox = Sandbox().start()
    folder = sandbox.drive_c / "rig" / "bench-calls"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    try:
        program = places.BUILD / "tools" / "bench" / "file_costs.exe"
        print(sandbox.run(*map(sandbox.windows_path, (program, folder)), files, timeout=1800), end="")
    finally:
        shutil.rmtree(folder, ignore_errors=True)
        sandbox.stop()


if __name__ == "__main__":
    main()
