"""A disk for one run of the benchmark: ext4 with its journal, in a file below build/bench.

The prefix and all folders that are measured are on it, so the numbers do not depend on the machine's file
system, on what was deleted there before, or on the depth of the checkout: for each open, Wine resolves the
path from the root of the machine. An ext4 without a journal does not use the inode of a removed file again
for a minute or longer, and until then each creation searches through all of them.
"""

from __future__ import annotations

import contextlib
import subprocess
import tempfile
import time
from pathlib import Path

SIZE_IN_MIB = 20 * 1024


class OwnDisk:
    """`folder` is the root of the disk, from the constructor to `remove`. Needs root and loop devices."""

    def __init__(self, image: Path):
        self.image = image
        self.remove_earlier()
        image.parent.mkdir(parents=True, exist_ok=True)
        # Every block is written now. Otherwise the machine's file system records the first write of each block
        # in its own metadata, and a flush of new files takes 1.5 times as long.
        write_zeros(image)
        output_of("mkfs.ext4", "-q", "-E", "nodiscard,lazy_itable_init=0,lazy_journal_init=0", image)
        self.folder = Path(tempfile.mkdtemp(prefix="qorva-bench-"))
        output_of("mount", "-o", "loop,nodiscard", image, self.folder)
        for device in self.devices():
            with contextlib.suppress(subprocess.CalledProcessError):  # not every file system can
                output_of("losetup", "--direct-io=on", device)  # so that each byte is cached once, not twice

    def remove(self) -> None:
        for _ in range(50):  # until the last program of the prefix has ended
            with contextlib.suppress(subprocess.CalledProcessError):
                output_of("umount", self.folder)
                break
            time.sleep(0.2)
        else:
            output_of("umount", "--lazy", self.folder)
        self.folder.rmdir()
        self.image.unlink()

    def remove_earlier(self) -> None:
        """Removes the disk of a run that was interrupted."""
        if not self.image.exists():
            return
        for device in self.devices():
            output_of("umount", "--lazy", device)
        self.image.unlink()

    def devices(self) -> list[str]:
        return output_of("losetup", "--noheadings", "--output", "NAME", "--associated", self.image).split()


def write_zeros(image: Path) -> None:
    for flag in ("oflag=direct", "conv=fsync"):  # past the cache, where the file system can
        with contextlib.suppress(subprocess.CalledProcessError):
            output_of("dd", "if=/dev/zero", f"of={image}", "bs=16M", f"count={SIZE_IN_MIB // 16}", flag)
            return
    raise OSError(f"the benchmark's disk needs {SIZE_IN_MIB} MiB at {image}")


def output_of(*command: object) -> str:
    return subprocess.run([str(part) for part in command], check=True, timeout=900, capture_output=True,
                          text=True).stdout
