"""Prints what each file call of an update costs under Wine, on one thread and on six. ./bench --calls

usage: PYTHONPATH=tools calls.py [FILES]      files per row; 3,200 when there is no argument
"""

import sys

import workloads
from own_disk import OwnDisk
from rig import places
from rig.sandbox import Sandbox


def main() -> None:
    files = sys.argv[1] if len(sys.argv) > 1 else "3200"
    disk = OwnDisk(workloads.HOME / "disk.img")
    places.WINE_HOME = disk.folder / "wine"
    places.RIG_HOME.mkdir(parents=True, exist_ok=True)
    sandbox = Sandbox().start()
    folder = sandbox.drive_c / "rig" / "bench-calls"
    folder.mkdir(parents=True)
    try:
        program = places.BUILD / "tools" / "bench" / "file_costs.exe"
        print(sandbox.run(*map(sandbox.windows_path, (program, folder)), files, timeout=1800), end="")
    finally:
        sandbox.stop()
        disk.remove()


if __name__ == "__main__":
    main()
