"""The three measured packages, each with the installation that it updates and with an installer of the
same files. All content is derived from
names, so that every machine makes the same bytes. They are made once and kept below build/bench."""

import hashlib
import os
import shutil
import subprocess
import zipfile
import zlib
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path

import installers
from rehearsal.sample_release import KIB, Kind
from rig import packages, places, programs

HOME = places.ROOT / "build" / "bench"
MIB = 1024 * KIB

# 300 MB in 1,500 files of the kinds and sizes that a print RIP has.
APPLICATION_KINDS = (
    Kind("", "qorva_", ".dll", 44, (180, 7900), packages.binary),
    Kind("plugins", "driver_", ".dll", 52, (90, 1300), packages.binary),
    Kind("resources/icc", "media_", ".icc", 160, (150, 1450), packages.noise),
    Kind("resources/halftones", "screen_", ".bin", 80, (120, 700), packages.noise),
    Kind("resources/languages", "ui_", ".json", 60, (60, 220), packages.prose),
    Kind("resources/help/pages", "topic_", ".html", 300, (5, 40), packages.prose),
    Kind("resources/help/images", "figure_", ".png", 200, (30, 320), packages.noise),
    Kind("resources/icons", "icon_", ".png", 300, (1, 12), packages.noise),
    Kind("presets/printers", "printer_", ".json", 303, (2, 22), packages.prose),
)

Entries = Iterator[tuple[str, Iterator[bytes]]]


def application_files() -> Entries:
    for kind in APPLICATION_KINDS:
        low, high = (size * KIB for size in kind.sizes)
        for number in range(1, kind.count + 1):
            path = f"{kind.folder}/{kind.stem}{number:03}{kind.extension}".lstrip("/")
            size = int(low + (high - low) * packages.seeded("size", path).random() ** 1.5)
            yield path, iter([kind.content(size, path)])


def small_files() -> Entries:
    for number in range(19_999):
        path = f"swatches/book_{number // 80:03}/colour_{number:05}.json"
        yield path, iter([packages.noise(packages.seeded("size", path).randint(512, 4096), path).hex().encode()])


def one_big_file() -> Entries:
    yield "resources/media_library.dat", (
        packages.noise(MIB - 16 * KIB, "library", number) + packages.prose(16 * KIB, "library", number)
        for number in range(900))


@dataclass(frozen=True)
class Workload:
    name: str
    title: str
    entries: Callable[[], Entries]  # without the application

    @property
    def folder(self) -> Path:
        return HOME / "packages" / self.name

    @property
    def package(self) -> Path:
        return self.folder / "package.zip"

    @property
    def installed(self) -> Path:
        """The previous version: the same files, each a few bytes longer."""
        return self.folder / "installed"

    @property
    def installer(self) -> Path:
        return self.folder / "installer.exe"

    def files(self) -> list[str]:
        """Relative paths, in the order of the archive."""
        with zipfile.ZipFile(self.package) as archive:
            return archive.namelist()

    def unpacked_bytes(self) -> int:
        with zipfile.ZipFile(self.package) as archive:
            return sum(info.file_size for info in archive.infolist())

    def sha256(self) -> str:
        return packages.sha256_of(self.package)

    def assert_installed(self, folder: Path) -> None:
        """Each file of the package has the package's bytes in `folder`."""
        with zipfile.ZipFile(self.package) as archive:
            for info in archive.infolist():
                assert crc_of(folder / info.filename) == info.CRC, folder / info.filename

    def make(self) -> None:
        """Makes the package, the installation and the installer unless they exist already."""
        recipe = hashlib.sha256(programs.TEST_APPLICATION_2.read_bytes())
        for source in (__file__, packages.__file__, installers.__file__):
            recipe.update(Path(source).read_bytes())
        complete = self.folder / "complete"
        if complete.exists() and complete.read_text() == recipe.hexdigest():
            return
        print(f"making the package of {self.title}", flush=True)
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        self.write_package()
        self.write_installation()
        self.write_installer()
        complete.write_text(recipe.hexdigest())

    def write_package(self) -> None:
        with zipfile.ZipFile(self.package, "w", zipfile.ZIP_DEFLATED, compresslevel=6) as archive:
            archive.writestr(zip_entry(packages.APPLICATION), programs.TEST_APPLICATION_2.read_bytes())
            for path, pieces in self.entries():
                with archive.open(zip_entry(path), "w", force_zip64=False) as entry:
                    for piece in pieces:
                        entry.write(piece)

    def write_installation(self) -> None:
        self.installed.mkdir()
        subprocess.run(["unzip", "-q", self.package, "-d", self.installed], check=True)
        for path in self.files():
            with (self.installed / path).open("ab") as file:
                file.write(b"version 1")
            os.utime(self.installed / path, (1_700_000_000, 1_700_000_000))
        shutil.copyfile(programs.TEST_APPLICATION_1, self.installed / packages.APPLICATION)
        (self.installed / packages.INSTALLER_MARKER).write_text('{"installer":"bench"}\n')

    def write_installer(self) -> None:
        unpacked = self.folder / "unpacked"
        subprocess.run(["unzip", "-q", self.package, "-d", unpacked], check=True)
        installers.make(self.installer, unpacked, self.files())
        shutil.rmtree(unpacked)


def crc_of(file: Path) -> int:
    crc = 0
    with file.open("rb") as content:
        while piece := content.read(MIB):
            crc = zlib.crc32(piece, crc)
    return crc


def zip_entry(path: str) -> zipfile.ZipInfo:
    info = zipfile.ZipInfo(path, (2026, 1, 15, 12, 0, 0))
    info.compress_type = zipfile.ZIP_DEFLATED
    return info


APPLICATION = Workload("application", "300 MB in 1,500 files", application_files)
SMALL_FILES = Workload("small-files", "20,000 files of 1 to 8 KB", small_files)
BIG_FILE = Workload("big-file", "one file of 900 MB", one_big_file)
