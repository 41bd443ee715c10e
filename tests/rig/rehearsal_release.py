"""What a rehearsal installs: the sample release, or a package from the command line with a stand-in
for the version before it."""

import re
import zipfile
from dataclasses import dataclass
from pathlib import Path

import packages
import programs
import sample_release

NAME_RULE = re.compile(r"[A-Za-z0-9._-]{1,128}")  # of a required file
MOST_REQUIRED = 64


@dataclass
class Release:
    package: Path
    sha256: str
    payload: packages.Tree  # what the package puts into the folder
    installed: packages.Tree  # what stands there before
    required: tuple[str, ...]

    @property
    def shows_version_2(self) -> bool:
        """Whether the application in it is the rig's own, which leaves a mark."""
        return self.payload.get(packages.APPLICATION) == programs.TEST_APPLICATION_2.read_bytes()

    @property
    def expected(self) -> packages.Tree:
        return packages.updated_tree(self.installed, self.payload)


def sample() -> Release:
    application = programs.TEST_APPLICATION_2.read_bytes()
    package = sample_release.package(application)
    payload = sample_release.tree_of(2, application)
    required = (packages.APPLICATION, "qorva_updater.exe", "qorva_01.dll")
    return Release(package, packages.sha256_of(package), payload,
                   sample_release.installation(programs.TEST_APPLICATION_1.read_bytes()), required)


def from_package(package: Path) -> Release:
    """Raises ValueError with a plain text when the file cannot serve as a package."""
    payload = payload_of(package)
    names = sorted(name for name in payload if "/" not in name and NAME_RULE.fullmatch(name))
    required = (packages.APPLICATION,) if packages.APPLICATION in names else tuple(names[:MOST_REQUIRED])
    if not required:
        raise ValueError("it holds no file at its top level that a request could require")
    # The version before: the application, a user's file, what was retired, and another edition of
    # every second file of the package.
    installed = {packages.APPLICATION: programs.TEST_APPLICATION_1.read_bytes(),
                 packages.INSTALLER_MARKER: b'{"installer":"rehearsal"}\n',
                 "settings/user.json": b'{"made by":"the user"}\n'}
    for path in sorted(payload)[::2]:
        if path not in installed:
            installed[path] = packages.prose(2048, "the edition before", path)
    for name in sample_release.RETIRED:
        installed[name] = packages.binary(100_000, name, 1)
    return Release(package, packages.sha256_of(package), payload, installed, required)


def payload_of(package: Path) -> packages.Tree:
    """The files of a package by their place in the installation. A single wrapper folder is taken
    off, and what operating systems strew into archives is left out."""
    try:
        with zipfile.ZipFile(package) as archive:
            files = {info.filename: archive.read(info) for info in archive.infolist()
                     if not info.is_dir() and not is_clutter(info.filename)}
    except (OSError, zipfile.BadZipFile, NotImplementedError, RuntimeError) as fault:
        raise ValueError(f"it cannot be read as a ZIP: {fault}") from fault
    tops = {name.partition("/")[0] for name in files if "/" in name}
    if len(tops) == 1 and not any("/" not in name for name in files):
        return {name.partition("/")[2]: data for name, data in files.items()}
    return files


def is_clutter(name: str) -> bool:
    return any(part.lower() in ("__macosx", ".ds_store") or part.startswith("._")
               for part in name.split("/"))
