"""Compares what the package room extracts with what other readers extract from the same archives.

usage: agreement.py EXTRACT_PACKAGES [FOLDER...]      also the archives in these folders

Archives: the rows of hostile_archives.py, the seeds and findings of the fuzzer, and packages of real
files by the writers on this machine. At least two of Python, bsdtar, 7z and unzip must read the same
names and bytes from each archive that we accept.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import zipfile
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from itertools import islice
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "rig"))

import hostile_archives  # noqa: E402
from hostile_archives import Expected, Tree  # noqa: E402

# Readers decode names without the UTF-8 flag by one of these. Our reading must equal one of theirs.
CHARSETS = {"utf-8": "65001", "cp866": "866", "cp1251": "1251"}

# Archives that we deliberately read in another way, with the reason. Their rows check the result.
OWN_READING = {
    "Windows-1251 said to be UTF-8": "bytes that are not UTF-8 are a legacy name, also with the flag",
    "Unicode path in the local header only": "a Unicode path counts in either header",
    "Unicode path for a name that is UTF-8": "a Unicode path does not replace a name that is UTF-8",
    "corpus names": "one archive with names in three encodings",
}


@dataclass
class Archive:
    name: str
    path: Path
    expected: Expected | None = None  # None: only the other readers decide


# -- readers: the files of an archive, or None when the reader refuses it

Reader = Callable[[Path, str, Path], Tree | None]


def python(path: Path, charset: str, _scratch: Path) -> Tree | None:
    try:
        with zipfile.ZipFile(path, metadata_encoding=charset) as archive:
            return {info.filename: archive.read(info) for info in archive.infolist()
                    if not info.filename.endswith(("/", "\\"))}
    except (zipfile.BadZipFile, UnicodeError, NotImplementedError, ValueError, OSError, EOFError):
        return None


def program(*command: str) -> Reader:
    def reads(path: Path, charset: str, scratch: Path) -> Tree | None:
        words = {"PATH": path, "TO": scratch, "CHARSET": charset, "PAGE": CHARSETS[charset]}
        done = subprocess.run([part.format(**words) for part in command], stdin=subprocess.DEVNULL,
                              capture_output=True, timeout=120, env={**os.environ, "LC_ALL": "C.UTF-8"})
        return files_below(scratch) if done.returncode in (0, 1) else None  # 1 is a warning
    return reads


READERS = {"Python": python,
           "bsdtar": program("bsdtar", "-xf", "{PATH}", "-C", "{TO}", "--options", "zip:hdrcharset={CHARSET}"),
           "7z": program("7z", "x", "-y", "-mcp={PAGE}", "-o{TO}", "{PATH}"),
           "unzip": program("unzip", "-qq", "{PATH}", "-d", "{TO}")}


def files_below(folder: Path) -> Tree:
    """A link counts as a file that holds the path of its target, which is what an archive stores."""
    return {str(path.relative_to(folder)): os.fsencode(path.readlink()) if path.is_symlink() else path.read_bytes()
            for path in folder.rglob("*") if path.is_symlink() or path.is_file()}


def without_macos_files(tree: Tree) -> Tree:
    def is_macos(part: str) -> bool:
        return part.startswith("._") or part.lower() in ("__macosx", ".ds_store")

    plain = {name.replace("\\", "/"): data for name, data in tree.items()}
    return {name: data for name, data in plain.items() if not any(map(is_macos, name.split("/")))}


def agrees(reads: Reader, archive: Archive, ours: Tree) -> bool:
    for charset in CHARSETS:
        with tempfile.TemporaryDirectory() as scratch:
            theirs = reads(archive.path, charset, Path(scratch))
        if theirs is not None and without_macos_files(theirs) == ours:
            return True
    return False


# -- archives

def made_by_hand(folder: Path) -> Iterator[Archive]:
    folder.mkdir()
    for number, case in enumerate(hostile_archives.cases()):
        path = folder / f"{number:03}.zip"
        path.write_bytes(case.archive)
        yield Archive(case.name, path, case.expected if case.native is None else case.native)


def of_the_fuzzer(folder: Path, *more: Path) -> Iterator[Archive]:
    folder.mkdir()
    for place in (*((ROOT / "tests" / "fuzz" / kind / "zip_extract") for kind in ("corpus", "findings")), *more):
        kind = place.parent.name
        for seed in sorted(place.glob("*")):
            yield Archive(f"{kind} {seed.name}", Path(shutil.copyfile(seed, folder / f"{kind}-{seed.name}.zip")))


REAL_FILES = "/usr/share/cmake-*"  # some three thousand, on every machine that builds this
WRITERS = {  # each runs in the folder that holds "tree"
    "zip": "zip -qr ARCHIVE tree",
    "zip, stored": "zip -qr -0 ARCHIVE tree",
    "zip, Zip64": "zip -qr -fz ARCHIVE tree",
    "7z": "7z a -bd -tzip ARCHIVE tree",
    "7z, UTF-8 for all names": "7z a -bd -tzip -mcu=on -mx=1 ARCHIVE tree",
    "Python": "python3 -m zipfile -c ARCHIVE tree",
    "Python to a pipe": "python3 -c \"import pathlib,sys,zipfile; z=zipfile.ZipFile(sys.stdout.buffer,'w',8);"
                        "[z.write(p) for p in sorted(pathlib.Path('tree').rglob('*'))]; z.close()\" | cat > ARCHIVE",
}


def plant_tree(tree: Path, count: int) -> None:
    """Real files, and copies of some of them under long, Cyrillic and deep names."""
    sources = [path for folder in sorted(Path("/").glob(REAL_FILES[1:])) for path in sorted(folder.rglob("*"))
               if path.is_file() and not path.is_symlink()][:count]
    for number, source in enumerate(sources):
        names = [source.relative_to("/usr/share")]
        if number % 10 == 0:
            names += [Path("Документы", "Профили печати № 7", f"Отчёт о цветопробе {number} «ё».txt"),
                      Path("n" * 100, f"{number:03}" + "long name " * 24 + "x"),
                      Path(*(f"уровень {level}" for level in range(30)), f"{number}")]
        for name in names:
            (tree / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(source, tree / name)


def made_by_writers(folder: Path) -> Iterator[Archive]:
    plant_tree(folder / "tree", 400)  # so that a directory is longer than a window of the reader
    planted = {f"tree/{name}": data for name, data in files_below(folder / "tree").items()}
    for number, (name, command) in enumerate(WRITERS.items()):
        path = folder / f"{number}.zip"
        subprocess.run(["sh", "-c", command.replace("ARCHIVE", path.name)], cwd=folder, check=True, timeout=300,
                       stdout=subprocess.DEVNULL, env={**os.environ, "LC_ALL": "C.UTF-8"})
        yield Archive(f"made by {name}", path, planted)


# -- the comparison

def extract(tool: str, archives: list[Archive]) -> list[tuple[Archive, str, Tree]]:
    """For each archive our message, empty for success, and the files that we extracted."""
    lines = "".join(f"{archive.path}\t{archive.path.with_suffix('.out')}\n" for archive in archives)
    done = subprocess.run([tool], input=lines, capture_output=True, text=True, timeout=300)
    if done.returncode != 0:
        raise RuntimeError(f"{tool} ended with {done.returncode}: {done.stderr}")
    return [(archive, said, files_below(archive.path.with_suffix(".out")))
            for archive, said in zip(archives, done.stdout.splitlines(), strict=True)]


def main(tool: str, *folders: str) -> int:
    faults = []
    accepted = 0
    with tempfile.TemporaryDirectory() as name:
        work = Path(name)
        archives = [*made_by_hand(work / "hand"), *of_the_fuzzer(work / "fuzzer", *map(Path, folders)),
                    *made_by_writers(work / "writers")]
        for archive, said, tree in extract(tool, archives):
            if not hostile_archives.meets(archive.expected, said or tree):
                faults.append(f"{archive.name}: {said or sorted(tree)}, which is not what its row expects")
            if said or archive.name in OWN_READING:
                continue
            accepted += 1
            readers = list(islice((reader for reader, reads in READERS.items() if agrees(reads, archive, tree)), 2))
            if len(readers) < 2:
                faults.append(f"{archive.name}: only {readers} read the same")
    print(*faults, sep="\n")
    print(f"{len(archives)} archives, of which {accepted} are accepted and read alike by other readers")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
