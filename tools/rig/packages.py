"""Trees of files and the ZIP packages made of them. A tree maps a relative path such as
"resources/icc/a.icc" to the file's bytes."""

import hashlib
import io
import random
import zipfile
from pathlib import Path

Tree = dict[str, bytes]

RETIRED_NAMES = ("qorva.exe", "zul_rip_gui.exe", "zul_rip.exe", "zul_updater.exe", "qorva_nest_bench.exe")
APPLICATION = "qorva_gui.exe"
INSTALLER_MARKER = "qorva_installation.json"


def seeded(*parts: object) -> random.Random:
    return random.Random("/".join(map(str, parts)))


def noise(size: int, *name: object) -> bytes:
    """Bytes that do not compress. The same name gives the same bytes."""
    return seeded("noise", *name).randbytes(size)


def prose(size: int, *name: object) -> bytes:
    """UTF-8 text that compresses well, with some letters outside ASCII."""
    pick = seeded("prose", *name)
    words = "barva tisk profil černá azurová žlutá kanál vrstva job queue nest white spot".split()
    sentence = " ".join(pick.choices(words, k=1500)).encode()
    lines = [sentence[at:at + 80] for at in range(0, len(sentence), 80)]
    text = b"\n".join(pick.choices(lines, k=size // 80 + 1))
    return text[:size].ljust(size, b".")


def binary(size: int, *name: object) -> bytes:
    """Bytes of which about half repeat, as in machine code."""
    pick = seeded("binary", *name)
    repeated = [pick.randbytes(32) for _ in range(64)]
    blocks, left = [], size
    while left > 0:
        blocks += [pick.randbytes(480), b"".join(pick.choices(repeated, k=17))]
        left -= 1024
    return b"".join(blocks)[:size]


def installed_tree(application: bytes) -> Tree:
    """A small installation of version 1, with executables that later versions retired."""
    return {
        INSTALLER_MARKER: b'{"installer":"rig"}\n',
        APPLICATION: application,
        "qorva_updater.exe": binary(60_000, "updater", 1),
        "qorva.exe": binary(20_000, "cli", 1),
        "zul_rip_gui.exe": binary(30_000, "old gui", 1),
        "qorva_nest_bench.exe": binary(9_000, "bench", 1),
        "aa_first.dat": noise(4_000, "first", 1),
        "color_engine.dll": binary(80_000, "engine", 1),
        "readme.txt": prose(3_000, "readme", 1),
        "resources/icc/coated.icc": noise(25_000, "coated", 1),
        "resources/icc/unchanged.icc": noise(12_000, "unchanged", 1),
        "resources/obsolete/old_only.dat": noise(2_000, "old only", 1),
        "settings/defaults.json": prose(5_000, "defaults", 1),
        "user_made.txt": b"The user's own file: no update may change it.\n",
        "zz_last.dat": noise(7_000, "last", 1),
    }


def package_tree(application: bytes) -> Tree:
    """Version 2 of `installed_tree`: it replaces files, adds files and repeats an unchanged one."""
    return {
        APPLICATION: application,
        "qorva_updater.exe": binary(61_000, "updater", 2),
        "aa_first.dat": noise(5_000, "first", 2),
        "color_engine.dll": binary(90_000, "engine", 2),
        "readme.txt": prose(3_500, "readme", 2),
        "empty.dat": b"",
        "resources/icc/coated.icc": noise(26_000, "coated", 2),
        "resources/icc/unchanged.icc": noise(12_000, "unchanged", 1),
        "resources/jazyky/čeština žluťoučká.json": prose(9_000, "czech", 2),
        "resources/new/deeper/still/added.bin": noise(40_000, "added", 2),
        "settings/defaults.json": prose(5_500, "defaults", 2),
        "zz_last.dat": noise(8_000, "last", 2),
    }


def updated_tree(installed: Tree, package: Tree) -> Tree:
    """The installation after the update."""
    gone = {name for name in RETIRED_NAMES if name not in package}
    return {**{path: data for path, data in installed.items() if path not in gone}, **package}


def write_tree(folder: Path, tree: Tree) -> None:
    for path, data in tree.items():
        file = folder / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(data)


def snapshot(folder: Path) -> dict[str, str]:
    """The SHA-256 of every file below a folder, by relative path. Links are not followed."""
    files = {}
    for path in sorted(folder.rglob("*")):
        relative = str(path.relative_to(folder))
        if path.is_symlink():
            files[relative] = f"link to {path.readlink()}"
        elif path.is_file():
            with path.open("rb") as file:
                files[relative] = hashlib.file_digest(file, "sha256").hexdigest()
    return files


def digests(tree: Tree) -> dict[str, str]:
    return {path: hashlib.sha256(data).hexdigest() for path, data in tree.items()}


def sha256_of(package: bytes | Path) -> str:
    if isinstance(package, bytes):
        return hashlib.sha256(package).hexdigest()
    with package.open("rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


def write_zip(target: Path | io.BytesIO, entries: list[tuple[str, bytes]], *, wrapper: str = "",
              level: int = 6) -> None:
    """Writes the entries in this order. Level 0 stores them."""
    method = zipfile.ZIP_DEFLATED if level else zipfile.ZIP_STORED
    with zipfile.ZipFile(target, "w", method, compresslevel=level or None) as archive:
        for name, data in entries:
            info = zipfile.ZipInfo(wrapper + name, (2026, 1, 15, 12, 0, 0))
            info.compress_type = method
            archive.writestr(info, data)


def zip_of(tree: Tree, wrapper: str = "", level: int = 6) -> bytes:
    buffer = io.BytesIO()
    write_zip(buffer, list(tree.items()), wrapper=wrapper, level=level)
    return buffer.getvalue()
