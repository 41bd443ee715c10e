"""The release that a rehearsal installs: the sample release, or a package from the command line with an
invented previous version."""

import hashlib
import re
import zipfile
from dataclasses import dataclass
from pathlib import Path

import sample_release
from rig import packages, programs

NAME_RULE = re.compile(r"[A-Za-z0-9._-]{1,128}")  # of a required file
MOST_REQUIRED = 64


@dataclass
class Release:
    package: Path
    sha256: str
    payload: dict[str, str]  # the SHA-256 of each file that the package installs
    payload_size: int
    installed: packages.Tree  # the installation before the update
    required: tuple[str, ...]
    note: str = ""  # what this side found wrong with the package

    @property
    def application_version(self) -> int | None:
        """The version of the rig's application that is restarted; None when it is another program."""
        if packages.APPLICATION not in self.payload:
            return 1
        own = packages.sha256_of(programs.TEST_APPLICATION_2)
        return 2 if self.payload[packages.APPLICATION] == own else None

    @property
    def expected(self) -> dict[str, str]:
        return packages.updated_tree(packages.digests(self.installed), self.payload)


def sample() -> Release:
    application = programs.TEST_APPLICATION_2.read_bytes()
    package = sample_release.package(application)
    payload = sample_release.tree_of(2, application)
    return Release(package, packages.sha256_of(package), packages.digests(payload),
                   sum(map(len, payload.values())),
                   sample_release.installation(programs.TEST_APPLICATION_1.read_bytes()),
                   (packages.APPLICATION, "qorva_updater.exe", "qorva_01.dll"))


def from_package(package: Path) -> Release:
    """A package that cannot be read here is rehearsed too: the updater must refuse it."""
    try:
        payload, size, note = *read_payload(package), ""
    except (OSError, zipfile.BadZipFile, NotImplementedError, RuntimeError, ValueError) as fault:
        payload, size, note = {}, 0, f"cannot be read as a ZIP here: {fault}"
    names = sorted(name for name in payload if "/" not in name and NAME_RULE.fullmatch(name))
    required = tuple(names[:MOST_REQUIRED])
    if packages.APPLICATION in names or not names:
        required = (packages.APPLICATION,)
    # The previous version: the application, a file of the user, retired executables, and another
    # edition of every second file of the package.
    installed = {packages.APPLICATION: programs.TEST_APPLICATION_1.read_bytes(),
                 packages.INSTALLER_MARKER: b'{"installer":"rehearsal"}\n',
                 "settings/user.json": b'{"made by":"the user"}\n'}
    for path in sorted(payload)[::2]:
        if path not in installed and is_plain(path):
            installed[path] = packages.prose(2048, "the edition before", path)
    for name in sample_release.RETIRED:
        installed[name] = packages.binary(100_000, name, 1)
    return Release(package, packages.sha256_of(package), payload, size, installed, required, note)


def read_payload(package: Path) -> tuple[dict[str, str], int]:
    """The digests of a package's files by their path in the installation, and their total size. A single
    wrapper folder is removed, and metadata that operating systems add to archives is left out."""
    files, size = {}, 0
    with zipfile.ZipFile(package) as archive:
        for info in archive.infolist():
            if info.is_dir() or is_clutter(info.filename):
                continue
            with archive.open(info) as entry:
                files[info.filename] = hashlib.file_digest(entry, "sha256").hexdigest()
            size += info.file_size
    tops = {name.partition("/")[0] for name in files if "/" in name}
    if len(tops) == 1 and all("/" in name for name in files):
        files = {name.partition("/")[2]: digest for name, digest in files.items()}
    return files, size


def is_clutter(name: str) -> bool:
    return any(part.lower() in ("__macosx", ".ds_store") or part.startswith("._")
               for part in name.split("/"))


def is_plain(name: str) -> bool:
    """True when a name of an unknown package is safe to create here."""
    return all(part not in ("", ".", "..") and not set(part) & set('\\:*?"<>|\0')
               for part in name.split("/"))
