"""The release of a rehearsal without a package: a few hundred files of the kinds and sizes that a print
RIP has, about 100 MB as a package, and the previous version.

All content is derived from names, so that every machine makes the same bytes. The package takes a few
seconds to compress and is kept in build/rig/sample.
"""

import hashlib
from collections.abc import Callable
from pathlib import Path
from typing import NamedTuple

from rig import packages, places

KIB = 1024


class Kind(NamedTuple):
    folder: str
    stem: str
    extension: str
    count: int
    sizes: tuple[int, int]  # KiB, smallest and largest
    content: Callable[..., bytes]  # packages.noise, prose or binary


KINDS = (
    Kind("", "qorva_", ".dll", 22, (180, 5200), packages.binary),
    Kind("plugins", "driver_", ".dll", 16, (90, 900), packages.binary),
    Kind("resources/icc", "media_", ".icc", 72, (250, 1500), packages.noise),
    Kind("resources/halftones", "screen_", ".bin", 36, (120, 480), packages.noise),
    Kind("resources/languages", "ui_", ".json", 24, (60, 220), packages.prose),
    Kind("resources/help/pages", "topic_", ".html", 90, (5, 40), packages.prose),
    Kind("resources/help/images", "figure_", ".png", 44, (30, 320), packages.noise),
    Kind("resources/icons", "icon_", ".png", 80, (1, 12), packages.noise),
    Kind("presets/printers", "printer_", ".json", 64, (2, 22), packages.prose),
)
RETIRED = ("qorva.exe", "zul_rip_gui.exe", "zul_updater.exe", "qorva_nest_bench.exe")


def tree_of(version: int, application: bytes) -> packages.Tree:
    tree = {packages.APPLICATION: application,
            "qorva_updater.exe": packages.binary(3_400 * KIB, "updater", version),
            "release_notes.txt": packages.prose(40 * KIB, "notes", version)}
    for kind in KINDS:
        for number in range(1, kind.count + 1):
            path = f"{kind.folder}/{kind.stem}{number:02}{kind.extension}".lstrip("/")
            fate = packages.seeded("fate", path)
            is_new, changed = fate.random() < 0.08, fate.random() < 0.75
            if version == 1 and is_new:
                continue
            edition = version if changed else 1
            low, high = (size * KIB for size in kind.sizes)
            size = int(low + (high - low) * fate.random() ** 1.6) + 7 * edition
            tree[path] = kind.content(size, path, edition)
    return tree


def installation(application: bytes) -> packages.Tree:
    """Version 1 as it is on a user's disk."""
    tree = tree_of(1, application)
    tree[packages.INSTALLER_MARKER] = b'{"installer":"rehearsal"}\n'
    tree["presets/mine/banner 3 m.json"] = packages.prose(4 * KIB, "the user's own preset")
    for name in RETIRED:
        tree[name] = packages.binary(400 * KIB, name, 1)
    return tree


def package(application: bytes) -> Path:
    """The ZIP of version 2. It is made again only when its content or its recipe has changed."""
    recipe = hashlib.sha256(application)
    for source in (packages.__file__, __file__):
        recipe.update(Path(source).read_bytes())
    folder = places.RIG_HOME / "sample"
    made = folder / f"qorva-2.0-{recipe.hexdigest()[:12]}.zip"
    if not made.exists():
        folder.mkdir(parents=True, exist_ok=True)
        for old in folder.glob("qorva-*"):
            old.unlink()
        unfinished = made.with_suffix(".unfinished")
        packages.write_zip(unfinished, list(tree_of(2, application).items()), level=3)
        unfinished.rename(made)
    return made
