"""Compares what the package room extracts with what other readers extract from the same archives.

usage: PYTHONPATH=tests/rig:tools agreement.py EXTRACT_PACKAGES [FOLDER...]

The archives are the rows of hostile_archives.py, the seeds and findings of the fuzzer, packages of up to a
few thousand real files made by the writers of this machine, and those in further folders. At least two of
Python, bsdtar, 7z and unzip must read the same names and bytes from each archive that we accept.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import zipfile
from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass
from itertools import islice
from pathlib import Path

import hostile_archives
from hostile_archives import Expected, Tree, files_below

ROOT = Path(__file__).resolve().parents[2]
# Names without the flag of UTF-8 are read in each of these; one of the results must be ours.
CHARSETS = {"utf-8": "65001", "cp866": "866", "cp1251": "1251"}

# Archives that we read in our own way, with the reason. Their rows say what comes out.
OWN_READING = {
    "Windows-1251 with the flag of UTF-8": "a name that is not valid UTF-8 is a legacy name",
    "Unicode path in the local header only": "a Unicode path counts in either header",
    "Unicode path for a name that is UTF-8": "a valid UTF-8 name needs no Unicode path, so the path is ignored",
    "corpus names": "one archive with names in three encodings",
}


@dataclass
class Archive:
    name: str
    path: Path
    expected: Expected | None = None  # None: nothing but agreement is expected


# -- readers: the files of an archive, or None when the reader refuses it

def python_reads(path: Path, charset: str, _scratch: Path) -> Tree | None:
    try:
        with zipfile.ZipFile(path, metadata_encoding=charset) as archive:
            return {info.filename: archive.read(info) for info in archive.infolist()
                    if not info.filename.endswith(("/", "\\"))}
    except (zipfile.BadZipFile, UnicodeError, NotImplementedError, ValueError, OSError, EOFError):
        return None


def bsdtar_reads(path: Path, charset: str, scratch: Path) -> Tree | None:
    return extracted_by(scratch, "bsdtar", "-xf", path, "-C", scratch, "--options", f"zip:hdrcharset={charset}")


def seven_zip_reads(path: Path, charset: str, scratch: Path) -> Tree | None:
    return extracted_by(scratch, "7z", "x", "-y", f"-mcp={CHARSETS[charset]}", f"-o{scratch}", path)


def extracted_by(scratch: Path, *command: object) -> Tree | None:
    done = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=120, env={**os.environ, "LC_ALL": "C.UTF-8"})
    return files_below(scratch) if done.returncode in (0, 1) else None  # 1 is a warning


def unzip_reads(path: Path, _charset: str, scratch: Path) -> Tree | None:
    return extracted_by(scratch, "unzip", "-qq", path, "-d", scratch)


Reader = Callable[[Path, str, Path], Tree | None]
READERS: tuple[Reader, ...] = (python_reads, bsdtar_reads, seven_zip_reads, unzip_reads)


def without_clutter(tree: Tree) -> Tree:
    def is_clutter(part: str) -> bool:
        return part.startswith("._") or part.lower() in ("__macosx", ".ds_store")

    plain = {name.replace("\\", "/"): data for name, data in tree.items()}
    return {name: data for name, data in plain.items() if not any(map(is_clutter, name.split("/")))}


def agrees(reads: Reader, archive: Archive, ours: Tree) -> bool:
    for charset in CHARSETS:
        with tempfile.TemporaryDirectory() as scratch:
            theirs = reads(archive.path, charset, Path(scratch))
        if theirs is not None and without_clutter(theirs) == ours:
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


REAL_FILES = "/usr/share/cmake-*"  # about 3,000 files on every machine that builds this
WRITERS = {  # each runs in the folder that holds "tree"
    "zip": "zip -qr ARCHIVE tree",
    "zip, stored": "zip -qr -0 ARCHIVE tree",
    "zip, Zip64": "zip -qr -fz ARCHIVE tree",
    "7z": "7z a -bd -tzip ARCHIVE tree",
    "7z, UTF-8 throughout": "7z a -bd -tzip -mcu=on -mx=1 ARCHIVE tree",
    "Python": "python3 -m zipfile -c ARCHIVE tree",
    "Python to a pipe": "python3 -c \"import pathlib,sys,zipfile; z=zipfile.ZipFile(sys.stdout.buffer,'w',8);"
                        "[z.write(p) for p in sorted(pathlib.Path('tree').rglob('*'))]; z.close()\" | cat > ARCHIVE",
}


def plant_tree(tree: Path, count: int) -> None:
    """Copies real files, some of them also under names that are long, Cyrillic or deep."""
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


def made_by_writers(folder: Path, count: int, writers: Iterable[str]) -> Iterator[Archive]:
    plant_tree(folder / "tree", count)
    for number, name in enumerate(writers):
        path = folder / f"{number}.zip"
        subprocess.run(["sh", "-c", WRITERS[name].replace("ARCHIVE", path.name)], cwd=folder, check=True, timeout=300,
                       stdout=subprocess.DEVNULL, env={**os.environ, "LC_ALL": "C.UTF-8"})
        yield Archive(f"{count} files by {name}", path)


# -- the comparison

def extract(program: str, archives: list[Archive]) -> list[tuple[Archive, str, Tree]]:
    """For each archive our message and the files that we extract."""
    lines = "".join(f"{archive.path}\t{archive.path.with_suffix('.out')}\n" for archive in archives)
    done = subprocess.run([program], input=lines, capture_output=True, text=True, timeout=300)
    if done.returncode != 0:
        raise RuntimeError(f"{program} ended with {done.returncode}: {done.stderr}")
    return [(archive, message, files_below(archive.path.with_suffix(".out")))
            for archive, message in zip(archives, done.stdout.splitlines(), strict=True)]


def main(program: str, *folders: str) -> int:
    faults = []
    with tempfile.TemporaryDirectory() as name:
        work = Path(name)
        few = [*made_by_hand(work / "hand"), *of_the_fuzzer(work / "fuzzer", *map(Path, folders)),
               *made_by_writers(work / "few", 40, WRITERS)]
        accepted = 0
        for archive, message, tree in extract(program, few):
            if not hostile_archives.meets(archive.expected, message or tree):
                faults.append(f"{archive.name}: {message or tree} instead of {archive.expected}")
            if message or archive.name in OWN_READING:
                continue
            accepted += 1
            readers = [reads.__name__ for reads in islice((r for r in READERS if agrees(r, archive, tree)), 2)]
            if len(readers) < 2:
                faults.append(f"{archive.name}: agrees with {readers or 'no other reader'}")
        many = list(made_by_writers(work / "many", 4000, ("zip", "7z", "Python")))
        planted = {f"tree/{name}": data for name, data in files_below(work / "many" / "tree").items()}
        for archive, message, tree in extract(program, many):
            if message or tree != planted:
                faults.append(f"{archive.name}: {message or 'not the files that were packed'}")
    print(*faults, sep="\n")
    print(f"{len(few)} archives, of which {accepted} are accepted and compared; "
          f"{len(many)} packages of {len(planted)} files")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
