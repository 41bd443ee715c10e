"""What a program was made of: the libraries that were linked into it and the headers of others that were
compiled into it.

The link map names every member of an archive that the linker took. The build's own records name every
header. Each file belongs to this tree, to a package of the system, or to minizip-ng, whose sources the
set-up fetches. A file of none of these is an error, so that the bill of materials is complete.
"""

import os
import re
import subprocess
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
MINIZIP = ROOT / "build" / "deps" / "minizip-ng"
MEMBER = re.compile(r"^(\S.*\.a)\(\S+\)")
OBJECT = re.compile(r"^LOAD (/\S+\.o)$")

GCC = "GPL-3.0-or-later WITH GCC-exception-3.1"
LICENCES = (  # name of the package, identifiers as SPDX lists them
    (r"gcc-mingw-w64-.*|g\+\+-mingw-w64-.*", GCC),
    (r"mingw-w64-.*", "ZPL-2.1 AND MIT AND BSD-3-Clause"),
    (r"libz-mingw-w64-dev", "Zlib"),
    (r"nlohmann-json3-dev", "MIT"),
    (r"libboost[0-9.]+-dev", "BSL-1.0"),
)


class Unknown(Exception):
    """A file of which neither package nor licence is known."""


@dataclass
class Component:
    """A library of others. `files` are the parts of it that the program was made of."""

    name: str
    version: str
    licence: str
    terms: Path  # the text of the licence
    files: list[Path] = field(default_factory=list)

    def named_files(self) -> dict[str, Path]:
        """The files by their names: paths without the part that differs between clones."""
        return {os.path.relpath(file, ROOT) if file.is_relative_to(ROOT) else str(file): file
                for file in sorted(self.files)}


def linked_files(link_map: Path, build: Path) -> set[Path]:
    """The archives of which the linker took a member, and the objects outside the build."""
    found = set()
    for line in link_map.read_text("utf-8").splitlines():
        if match := MEMBER.match(line) or OBJECT.match(line):
            found.add((build / match[1]).resolve())
    return found


def compiled_headers(build: Path) -> set[Path]:
    """Every header that the build's compilations read."""
    records = subprocess.run(["ninja", "-C", build, "-t", "deps"], check=True, capture_output=True, text=True).stdout
    names = {line.strip() for line in records.splitlines() if line.startswith(" ")}
    return {(build / name).resolve() for name in names}


def owners(files: set[Path]) -> dict[Path, str]:
    """The system's package of each file."""
    answer = subprocess.run(["dpkg", "-S", *map(str, sorted(files))], capture_output=True, text=True).stdout
    pairs = (line.rpartition(": ") for line in answer.splitlines() if not line.startswith("diversion"))
    found = {Path(path): package.split(",")[0].split(":")[0] for package, _, path in pairs}
    if left := files - found.keys():
        raise Unknown(f"no package has {sorted(map(str, left))}")
    return found


def licence_of(package: str) -> str:
    for pattern, licence in LICENCES:
        if re.fullmatch(pattern, package):
            return licence
    raise Unknown(f"the licence of the package {package} is not in the table of tools/release/components.py")


def version_of(package: str) -> str:
    return subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], check=True, capture_output=True,
                          text=True).stdout


def minizip(files: set[Path]) -> Component:
    version = re.search(r'MZ_VERSION\s+\("([^"]+)"\)', (MINIZIP / "mz.h").read_text())
    return Component("minizip-ng", version[1], "Zlib", MINIZIP / "LICENSE", sorted(files))


def components_of(link_maps: list[Path], build: Path) -> list[Component]:
    """The components of the programs with these link maps, by name. Raises Unknown."""
    linked = set().union(*(linked_files(link_map, build) for link_map in link_maps))
    headers = compiled_headers(build)
    # The sources of minizip-ng are compiled here; its headers say which of them.
    zip_files = {file for file in headers if file.is_relative_to(MINIZIP)}
    packages: dict[str, Component] = {}
    for files in (linked, headers):  # a package whose library is linked needs no list of headers
        outside = {file for file in files if not file.is_relative_to(ROOT)}
        listed = set(packages)
        for file, package in sorted(owners(outside).items()):
            if package in listed:
                continue
            if package not in packages:
                packages[package] = Component(package, version_of(package), licence_of(package),
                                              Path("/usr/share/doc") / package / "copyright")
            packages[package].files.append(file)
    return sorted([*packages.values(), minizip(zip_files)], key=lambda component: component.name)
