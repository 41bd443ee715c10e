"""Archives that an attacker makes, and unusual ones that real writers make. A row has a name, the archive,
and either the message of its refusal or the files that it contains.

tests/package/agreement.py gives every row to the native package room and to other readers,
tests/rig/test_archives.py to the package room under Wine.
"""

import os
import random
import re
import struct
from dataclasses import dataclass
from pathlib import Path

from rig.zip_builder import ALL_ONES, STREAMED, UTF8, Entry, Fields, archive, deflated, extra, unicode_path

Tree = dict[str, bytes]
Expected = str | re.Pattern | Tree

ESCAPED = "qorva_escaped"  # in every name that leads out of the destination

UNSAFE = "unsafe ZIP entry path"
NO_END = "ZIP end record not found"
COUNT = "ZIP entry count does not match central directory"
INCOMPLETE = "ZIP central directory is incomplete"
BAD_DIRECTORY = "invalid ZIP central directory: invalid format"
CUT_DIRECTORY = "invalid ZIP central directory: end of stream"
BAD_LOCAL = "cannot open ZIP local entry: invalid format"
CUT_LOCAL = "cannot open ZIP local entry: end of stream"
DISKS = "multi-disk ZIP is not supported"
ENCRYPTED = "encrypted ZIP entries are not supported"
METHOD = "unsupported ZIP compression method"
NAME_DIFFERS = "local header filename does not match central directory"
SIZES_DIFFER = "local header sizes or CRC do not match central directory"
TOO_LONG = "ZIP entry output exceeds declared uncompressed size"
TOO_SHORT = "ZIP entry output size mismatch"
WRONG_CRC = "ZIP entry CRC mismatch"
COLLISION = "ZIP entry path collision"
TWO_SPELLINGS = "ZIP directory path collision"
FILE_ABOVE = "ZIP file path conflicts with a child entry"


@dataclass(frozen=True)
class Case:
    name: str
    archive: bytes
    expected: Expected
    native: Expected | None = None  # on a file system that distinguishes upper and lower case, if it differs


X = b"x"
HELLO = b"hello, print world"
LEGACY = "Отчёт.txt".encode("cp866")
ZEROS = bytes(3_000_000)
NOISE = random.Random(1).randbytes(2_500_017)
HUGE = 1 << 62
EMPTY_ARCHIVE = archive()
OTHER = archive(Entry("other.txt", b"other"))

UNSAFE_NAMES: tuple[str | bytes, ...] = (
    # out of the folder
    f"../{ESCAPED}", f"..\\{ESCAPED}", f"a\\../../{ESCAPED}", "..", "a/..", "../", f"a/./{ESCAPED}", f".../{ESCAPED}",
    # from a root
    f"/{ESCAPED}", f"a//{ESCAPED}", f"C:{ESCAPED}", f"Z:/tmp/{ESCAPED}", f"\\\\?\\C:\\{ESCAPED}",
    f"\\??\\C:\\{ESCAPED}", "", "/",
    # devices, streams, and names that Windows reads as other names
    "NUL", "con.txt", "a/Aux", "PRN/a", "COM1.tar.gz", "lpt\u00b9", "com\u00b2", "com\u00b3.log", "nul .txt",
    "CONOUT$:", f"a.txt:{ESCAPED}", "a.txt.", "a.txt ", "a /b", "a./b", "a*b", "a?b", "a<b", "a|b", 'a"b',
    # control characters
    "a\0b", "a\nb", "a\x1b[2Jb", "a\x7fb",
)

# Unusual names that Windows does not read as another name.
SAFE_NAMES = (
    "a\u202egpj.exe", "a\u0085b", "\ufeffa", "\u200b", "\uff0e\uff0e\uff0fa", "\u2025\u2215a", "conx", "xcon",
    "com0", "com10", "com\u2074", "x__MACOSX", "__MACOSX.txt", "a.DS_Store", "a._b", ".hidden", "...a", "LONGNA~1.TXT",
    "a" * 100, "$(id)", "%TEMP%", "d/" * 30 + "a", "\u00c5.txt", "имя/жук.icc", "dir\\sub\\a",
)


def two_files(**options) -> bytes:
    return archive(Entry("a", b"first"), Entry("b", b"second"), **options)


def one(*, name: str | bytes = "a", data: bytes = HELLO, **options) -> bytes:
    return archive(Entry(name, data, **options))


def names() -> list[Case]:
    cases = [Case(f"name {name!r}", archive(Entry("before.txt"), Entry(name)), UNSAFE) for name in UNSAFE_NAMES]
    cases += [Case("odd names in UTF-8", archive(*(Entry(name, name.encode(), both={"flags": UTF8})
                                                  for name in SAFE_NAMES)),
                   {name.replace("\\", "/"): name.encode() for name in SAFE_NAMES}),
              Case("UTF-8 without its flag", one(name="жук.txt"), {"жук.txt": HELLO}),
              Case("CP866", one(name=LEGACY), {"Отчёт.txt": HELLO}),
              Case("Windows-1251", one(name="Отчёт.txt".encode("cp1251")), {"Отчёт.txt": HELLO}),
              Case("Windows-1251 with the flag of UTF-8", one(name="Отчёт.txt".encode("cp1251"), both={"flags": UTF8}),
                   {"Отчёт.txt": HELLO}),
              Case("climbing in a legacy code page", one(name=b"../" + LEGACY), UNSAFE)]
    # Overlong forms of "." and "/" are not valid UTF-8. In a legacy code page they are letters.
    for name, raw in (("dots", b"\xc0\xae\xc0\xae/a"), ("slash", b"..\xc0\xafa"), ("long slash", b"..\xe0\x80\xafa"),
                      ("surrogate", b"\xed\xa0\x80"), ("beyond Unicode", b"\xf4\x90\x80\x80")):
        cases.append(Case(f"overlong {name}", one(name=raw), {read_as_legacy(raw): HELLO}))
    good, bad = unicode_path(LEGACY, "имя.txt"), unicode_path(LEGACY, f"../../{ESCAPED}")
    folder = unicode_path(LEGACY, "имя/")
    legacy_name = {"Отчёт.txt": HELLO}
    for name, options, expected in (
            ("in both headers", {"extra": good}, {"имя.txt": HELLO}),
            ("in the directory only", {"central_extra": good}, {"имя.txt": HELLO}),
            ("in the local header only", {"local_extra": good}, {"имя.txt": HELLO}),
            ("that climbs", {"extra": bad}, UNSAFE),
            ("that climbs in the local header only", {"local_extra": bad}, NAME_DIFFERS),
            ("that differs", {"central_extra": good, "local_extra": unicode_path(LEGACY, "jiné")}, NAME_DIFFERS),
            ("that is a folder in the local header", {"local_extra": folder}, NAME_DIFFERS),
            ("of other bytes", {"extra": unicode_path(b"other", f"../{ESCAPED}")}, legacy_name),
            ("of another version", {"extra": unicode_path(LEGACY, f"../{ESCAPED}", 2)}, legacy_name),
            ("with a NUL", {"extra": unicode_path(LEGACY, "a\0b")}, legacy_name)):
        cases.append(Case(f"Unicode path {name}", one(name=LEGACY, **options), expected))
    cases.append(Case("Unicode path for a name that is UTF-8",
                      one(name="a", extra=unicode_path(b"a", f"../{ESCAPED}")), {"a": HELLO}))
    return cases


def read_as_legacy(raw: bytes) -> str:
    """The name in the code page that the product chooses for the rows above."""
    return raw.decode("cp866" if b"\x80" in raw else "cp1251")


def local_against_central() -> list[Case]:
    stream = {"flags": STREAMED}
    cases = [Case(f"local {name}", one(**options), expected) for name, options, expected in (
        ("method", {"local": {"method": 8}}, "local header compression method does not match central directory"),
        ("flags", {"local": {"flags": UTF8}}, "local header flags do not match central directory"),
        ("name that climbs", {"local_name": f"../{ESCAPED}"}, NAME_DIFFERS),
        ("name in another case", {"local_name": "A"}, NAME_DIFFERS),
        ("name of a folder", {"local_name": "a/"}, NAME_DIFFERS),
        ("name length", {"local": {"name_length": 0}}, NAME_DIFFERS),
        ("name beyond the file", {"local": {"name_length": 0xFFFF}}, CUT_LOCAL),
        ("extra field beyond the directory", {"local": {"extra_length": 40}}, BAD_LOCAL),
        ("CRC", {"local": {"crc": 1}}, SIZES_DIFFER),
        ("compressed size", {"local": {"packed": 4}}, SIZES_DIFFER),
        ("size", {"local": {"size": 4}}, SIZES_DIFFER),
        ("Zip64 size", {"zip64": True, "local": {"size": 1 << 33}}, SIZES_DIFFER),
        ("zeros without a descriptor", {"local": {"crc": 0, "packed": 0, "size": 0}}, SIZES_DIFFER),
        # Writers that cannot go back to the header and know some of the values.
        ("zeros but for the size, with a descriptor", {"streamed": True, "local": {"size": 18}}, SIZES_DIFFER),
        ("zeros but for the CRC, with a descriptor", {"streamed": True, "local": {"crc": 1}}, SIZES_DIFFER),
        ("signature", {"local": {"signature": b"PK\1\2"}}, BAD_LOCAL),
        ("version and time", {"local": {"version": 63, "time": 1, "date": 1}}, {"a": HELLO}),
        ("descriptor of a deflated entry", {"streamed": True, "deflate": True, "zip64": True}, {"a": HELLO}),
        ("descriptor's flag and true values", {"both": stream}, {"a": HELLO}))]
    lying = bytearray(one(streamed=True))
    at = lying.index(b"PK\7\b")
    lying[at + 4:at + 16] = struct.pack("<3I", 1, 2, 3)
    cases += [Case("descriptor with wrong values", bytes(lying), {"a": HELLO}),
              Case("descriptor without its signature",
                   archive(Entry("a", HELLO, both=stream, local={"crc": 0, "packed": 0, "size": 0}),
                           gap=struct.pack("<3I", 0, len(HELLO), len(HELLO))), {"a": HELLO})]
    return cases


def positions() -> list[Case]:
    inner = archive(Entry("inner.txt", b"inner"))
    cases = [Case(f"local header {name}", archive(Entry("a", X, central=fields)), expected)
             for name, fields, expected in (
        ("in the directory", {"offset": 32}, BAD_LOCAL), ("beyond the end", {"offset": 0x7FFFFFFF}, CUT_LOCAL),
        ("in its own data", {"offset": 31}, BAD_LOCAL))]
    return cases + [
        Case("local header beyond 2^62", archive(Entry("a", X, zip64=True, central={"offset": HUGE}), prefix=b"MZ"),
             CUT_LOCAL),
        Case("data that overlaps the directory", one(both={"packed": 60}), BAD_LOCAL),
        Case("data of 2^62 bytes", one(zip64=True, both={"packed": HUGE}), BAD_LOCAL),
        Case("one local header for two records", archive(Entry("a"), Entry("b", central={"offset": 0})), NAME_DIFFERS),
        Case("one local header twice", archive(Entry("a"), Entry("a", central={"offset": 0})), BAD_DIRECTORY),
        Case("an entry in another's data, out of order",
             archive(Entry("a", inner, packed=inner), Entry("b"), Entry("inner.txt", b"inner", central={"offset": 31})),
             BAD_DIRECTORY),
        Case("local headers in another order",
             archive(Entry("a", local_name="b", central={"offset": 32}),
                     Entry("b", local_name="a", central={"offset": 0})), {"a": X, "b": X}),
        Case("a gap before the directory", two_files(gap=b"gap" * 9), {"a": b"first", "b": b"second"}),
    ]


def containers() -> list[Case]:
    good = two_files()
    files = {"a": b"first", "b": b"second"}
    second = archive(Entry("a", b"FIRST"), Entry("b", b"SECOND"))

    def declare(count: int) -> Fields:
        return {"entries": count, "entries_on_disk": count}

    fake_end = struct.pack("<4s4H2IH", b"PK\5\6", 0, 0, 1, 1, 46, 0, 0)
    cases = [Case(name, data, expected) for name, data, expected in (
        ("no ZIP", b"<html>503</html>" * 5000, NO_END),
        ("cut in the middle", good[:len(good) // 2], NO_END),
        ("cut at the front", good[-60:], CUT_DIRECTORY),
        ("one entry less", two_files(end=declare(1)), COUNT),
        ("no entry", two_files(end=declare(0)), COUNT),
        ("one entry more", two_files(end=declare(3)), INCOMPLETE),
        ("two counts", two_files(end={"entries": 3}), BAD_DIRECTORY),
        ("2^40 entries", two_files(end64=declare(1 << 40)), INCOMPLETE),
        ("2^62 entries", two_files(end64=declare(HUGE)),
         "ZIP central directory has too many entries for this system"),
        ("a directory beyond the end", two_files(end={"directory_offset": 0x7FFFFFFF, "directory_size": 7}),
         CUT_DIRECTORY),
        ("a directory size of one record", two_files(end={"directory_size": 47}), INCOMPLETE),
        ("a record without its signature", archive(Entry("a"), Entry("b", central={"signature": b"PK\1\1"})),
         INCOMPLETE),
        ("a record's name beyond the file", one(central={"name_length": 0xFFFF}), INCOMPLETE),
        ("a record's comment beyond the file", one(central={"comment_length": 0xFFFF}), INCOMPLETE),
        ("bytes after the last record", two_files(after_directory=b"PK\5\5\4\0sign"), INCOMPLETE),
        ("the directory on another disk", two_files(end={"disk": 1, "directory_disk": 1}), DISKS),
        ("an entry on another disk", one(central={"disk": 1}), DISKS),
        ("a marker of split archives", b"PK00" + archive(Entry("a", central={"offset": 0})), {"a": X}),
        ("Zip64 throughout", archive(Entry("a", HELLO, zip64=True), end64={}), {"a": HELLO}),
        ("Zip64 of its own version", archive(Entry("a", HELLO), end64={"version": 63}), {"a": HELLO}),
        ("a Zip64 directory on another disk", two_files(end64={"directory_disk": 1}), DISKS),
        ("a Zip64 locator with a wrong offset", two_files(end64={}, locator={"offset": 9}), BAD_DIRECTORY),
        ("a negative Zip64 offset", two_files(end64={"directory_offset": 1 << 63}), BAD_DIRECTORY),
        ("a negative Zip64 size", one(zip64=True, central={"size": 1 << 63}), INCOMPLETE),
        ("Zip64 sizes beyond their record",
         one(both={"flags": STREAMED, "packed": ALL_ONES, "size": ALL_ONES}, central_extra=extra(1, bytes(8))),
         INCOMPLETE),
        # Two directories: readers differ in which one they use.
        ("a Zip64 count that differs", two_files(end64=declare(1), end={**declare(2), "directory_size": 94,
                                                                       "directory_offset": 73}), INCOMPLETE),
        ("a directory at the stated place and one at the end", good + second[-22 - 94:], INCOMPLETE),
        ("an archive after another", OTHER + good, files),
        ("an archive in a comment", two_files(comment=OTHER), {"other.txt": b"other"}),
        ("an end record in a comment", two_files(comment=b"see " + fake_end), INCOMPLETE),
        ("signatures in a comment", two_files(comment=b"PK\1\2PK\3\4PK\6\6PK\6\7"), files),
        ("half an end record in a comment", two_files(comment=b"PK\5\6"), CUT_DIRECTORY),
        ("an empty archive after it", good + EMPTY_ARCHIVE, INCOMPLETE),
        ("a program before it", two_files(prefix=b"MZ" + bytes(70_000)), files),
        ("bytes after the end", two_files(suffix=b"trailing"), files),
        ("a comment", two_files(comment=b"made by hand" * 5000), files),
        ("a comment longer than the file", two_files(end={"comment_length": 500}), files),
        ("an empty archive", EMPTY_ARCHIVE, {}))]
    return cases


def content() -> list[Case]:
    cases = [Case(name, one(**options), expected) for name, options, expected in (
        ("a bomb", {"data": ZEROS, "deflate": True, "both": {"size": 2000}}, TOO_LONG),
        ("a bomb that declares no size", {"data": ZEROS, "deflate": True, "both": {"size": 0}}, TOO_LONG),
        ("a bomb with its true size", {"data": X, "zip64": True, "both": {"size": 1 << 50}},
         re.compile(r"not enough disk space for ZIP extraction: required 1125899906842624 bytes, available \d+ bytes")),
        ("as much as is read at once", {"data": NOISE[:1 << 20], "deflate": True}, {"a": NOISE[:1 << 20]}),
        ("more than is read at once", {"data": NOISE}, {"a": NOISE}),
        ("zeros, a thousand to one", {"data": ZEROS, "deflate": True}, {"a": ZEROS}),
        ("one stored byte more than declared", {"both": {"size": 17}}, TOO_LONG),
        ("fewer bytes than declared", {"deflate": True, "both": {"size": 19}}, TOO_SHORT),
        ("a wrong CRC", {"both": {"crc": 1}}, WRONG_CRC),
        ("a wrong CRC of an empty file", {"data": b"", "both": {"crc": 1}}, WRONG_CRC),
        ("a wrong CRC in a descriptor", {"streamed": True, "central": {"crc": 1}}, WRONG_CRC),
        ("a wrong CRC, and a size for which libraries do not check it",
         {"data": b"a" * 100, "deflate": True, "streamed": True, "both": {"crc": 1, "packed": 8, "size": 100}},
         WRONG_CRC),
        ("invalid deflate data", {"deflate": True, "packed": b"\xff" * 9}, "ZIP inflate failed: compressed data error"),
        ("half of the deflate data", {"data": bytes(range(256)), "deflate": True,
                                      "packed": deflated(bytes(range(256)))[:40]}, re.compile("ZIP .*")),
        ("bytes after the deflate data", {"deflate": True, "packed": deflated(HELLO) + b"more"},
         "ZIP entry close failed: compressed data error"),
        ("encryption", {"both": {"flags": 1}}, ENCRYPTED),
        ("AES", {"both": {"method": 99, "flags": 1}, "extra": extra(0x9901, b"\2\0AE\3\0\0")}, ENCRYPTED),
        ("AES with the method of the content", {"central_extra": extra(0x9901, b"\2\0AE\3\0\0")}, ENCRYPTED),
        ("an encrypted directory", {"both": {"flags": 0x2000}}, "encrypted ZIP central directory is not supported"),
        *((f"method {method}", {"both": {"method": method}}, METHOD) for method in (1, 6, 9, 12, 14, 93, 95, 98)),
        ("a symbolic link", {"data": b"../../outside", "central": {"external": 0xA1FF0000}}, {"a": b"../../outside"}),
        ("a file with the attributes of a folder", {"central": {"external": 0x41ED0010}}, {"a": HELLO}),
        ("a first entry with a name that libraries reserve", {"name": "__cdcd__", "data": ZEROS, "deflate": True},
         {"__cdcd__": ZEROS}))]
    huge = [Entry(name, X, zip64=True, both={"size": (1 << 63) - 1}) for name in "abc"]
    return [*cases,
            Case("a total of more than 64 bits", archive(*huge), "ZIP total uncompressed size overflows"),
            Case("a bad entry after a good one", archive(Entry("d/a"), Entry("e/b", both={"crc": 1})), WRONG_CRC),
            Case("a folder with data", archive(Entry("d/", b"data"), Entry("d/a")), {"d/a": X})]


def collisions() -> list[Case]:
    refused = (
        (("a.txt", "A.TXT"), COLLISION), (("a", "a"), COLLISION), (("d/", "d/"), COLLISION), (("d", "D/"), COLLISION),
        (("d\\a", "d/a"), COLLISION), (("Dir/a", "dir/b"), TWO_SPELLINGS), (("x/Dir/a", "X/y/q"), TWO_SPELLINGS),
        (("Dir/", "dir/b"), TWO_SPELLINGS), (("a/b/c/d", "a/b/e/", "a/b/E/f"), TWO_SPELLINGS),
        (("a", "A/b"), FILE_ABOVE), (("a/b/c/d", "a/b/c/e", "a/b"), FILE_ABOVE),
        (("qorva_gui.exe", "QORVA_GUI.EXE"), COLLISION))
    cases = [Case(f"collision of {' and '.join(names)}", archive(*map(Entry, names)), text) for names, text in refused]
    for names, text in ((("А.txt", "а.txt"), "cannot create extracted file exclusively: path already exists"),
                        (("Д/a", "д/b"), "ZIP directory path collision on target filesystem")):
        cases.append(Case(f"collision of {' and '.join(names)}", archive(*map(Entry, names)), text,
                          native=dict.fromkeys(names, X)))
    clutter = ("__MACOSX/a", "__macosx/A", "b/._b/c", "a", ".DS_Store", "x/.ds_store/y")
    return [*cases, Case("clutter collides with nothing", archive(*map(Entry, clutter)), {"a": X}),
            Case("clutter that climbs", archive(Entry("__MACOSX/../../" + ESCAPED)), UNSAFE),
            Case("folders with similar names", archive(*map(Entry, ("a/b/c", "a/bb", "ab", "a/b/d", "a/b/"))),
                 dict.fromkeys(("a/b/c", "a/bb", "ab", "a/b/d"), X)),
            Case("two normal forms", archive(Entry("\u00c5"), Entry("A\u030a")), {"\u00c5": X, "A\u030a": X})]


def meets(expected: Expected | None, seen: str | Tree) -> bool:
    """True when the message, or the files, are what a row expects. None expects nothing."""
    if isinstance(expected, re.Pattern):
        return isinstance(seen, str) and expected.fullmatch(seen) is not None
    return expected is None or seen == expected


def files_below(folder: Path) -> Tree:
    """A link counts as a file with its target as content, as in an archive."""
    return {str(path.relative_to(folder)): os.fsencode(path.readlink()) if path.is_symlink() else path.read_bytes()
            for path in folder.rglob("*") if path.is_symlink() or path.is_file()}


def cases() -> list[Case]:
    found = [*names(), *local_against_central(), *positions(), *containers(), *content(), *collisions()]
    assert len({case.name for case in found}) == len(found)
    return found
