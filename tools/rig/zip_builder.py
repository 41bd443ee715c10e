"""Builds archives that are correct except for the fields that the caller sets.

    archive(Entry("a.txt", b"hello", deflate=True, local={"crc": 0}), end={"entries": 2})

A length that the caller sets changes the field and not the bytes that it describes.
"""

import struct
import zlib
from dataclasses import dataclass, field

LOCAL = ("<4s5H3I2H", "signature version flags method time date crc packed size name_length extra_length")
CENTRAL = ("<4s6H3I5H2I", "signature made_by version flags method time date crc packed size name_length "
           "extra_length comment_length disk internal external offset")
END = ("<4s4H2IH", "signature disk directory_disk entries_on_disk entries directory_size "
       "directory_offset comment_length")
END64 = ("<4sQ2H2I4Q", "signature rest made_by version disk directory_disk entries_on_disk entries "
         "directory_size directory_offset")
LOCATOR = ("<4sIQI", "signature disk offset disks")
ALL_ONES = 0xFFFFFFFF
STREAMED = 8  # bit 3: the sizes and the CRC are in a descriptor after the data
UTF8 = 0x800

Fields = dict[str, object]


def pack(layout: tuple[str, str], fields: Fields) -> bytes:
    unknown = fields.keys() - set(layout[1].split())
    assert not unknown, unknown
    return struct.pack(layout[0], *(fields.get(name, 0) for name in layout[1].split()))


def extra(kind: int, data: bytes) -> bytes:
    return struct.pack("<2H", kind, len(data)) + data


def unicode_path(raw: bytes, name: str, version: int = 1) -> bytes:
    """The Info-ZIP record with the Unicode path of an entry whose name has these bytes."""
    return extra(0x7075, struct.pack("<BI", version, zlib.crc32(raw)) + name.encode())


def deflated(data: bytes) -> bytes:
    press = zlib.compressobj(9, zlib.DEFLATED, -15)
    return press.compress(data) + press.flush()


@dataclass
class Entry:
    """`packed` replaces the compressed bytes and their size; the CRC and the uncompressed size remain
    those of `data`. `both`, `local` and `central` set header fields."""

    name: str | bytes
    data: bytes = b"x"
    deflate: bool = False
    streamed: bool = False
    zip64: bool = False
    packed: bytes | None = None
    local_name: str | bytes | None = None
    extra: bytes = b""
    local_extra: bytes = b""
    central_extra: bytes = b""
    both: Fields = field(default_factory=dict)
    local: Fields = field(default_factory=dict)
    central: Fields = field(default_factory=dict)

    def __post_init__(self) -> None:
        if self.packed is None:
            self.packed = deflated(self.data) if self.deflate else self.data
        self.right = {"version": 45 if self.zip64 else 20, "flags": STREAMED if self.streamed else 0,
                      "method": 8 if self.deflate else 0, "crc": zlib.crc32(self.data),
                      "packed": len(self.packed), "size": len(self.data)}

    def header(self, layout: tuple[str, str], name: str | bytes, more: bytes, fields: Fields,
               wide: tuple[str, ...]) -> bytes:
        raw = name.encode() if isinstance(name, str) else name
        if self.zip64:
            more += extra(1, b"".join(struct.pack("<Q", fields[key]) for key in wide))
            fields = {**fields, **dict.fromkeys(wide, ALL_ONES)}
        return pack(layout, {"name_length": len(raw), "extra_length": len(more), **fields}) + raw + more

    def local_part(self) -> bytes:
        zeros = dict.fromkeys(("crc", "packed", "size"), 0) if self.streamed else {}
        fields = {"signature": b"PK\3\4", **self.right, **zeros, **self.both, **self.local}
        header = self.header(LOCAL, self.name if self.local_name is None else self.local_name,
                             self.extra + self.local_extra, fields, ("size", "packed"))
        descriptor = struct.pack("<4sIQQ" if self.zip64 else "<4s3I", b"PK\7\b", self.right["crc"],
                                 self.right["packed"], self.right["size"])
        return header + self.packed + (descriptor if self.streamed else b"")

    def central_part(self, offset: int) -> bytes:
        fields = {"signature": b"PK\1\2", "made_by": 3 << 8 | 20, "offset": offset,
                  **self.right, **self.both, **self.central}
        return self.header(CENTRAL, self.name, self.extra + self.central_extra, fields, ("size", "packed", "offset"))


def archive(*entries: Entry, prefix: bytes = b"", gap: bytes = b"", after_directory: bytes = b"",
            comment: bytes = b"", suffix: bytes = b"", end: Fields | None = None,
            end64: Fields | None = None, locator: Fields | None = None) -> bytes:
    """Offsets do not count `prefix`, as in a program with an appended archive. `gap` is put before the
    directory. `end64` adds the Zip64 records; the fields of the end record are then all ones, unless
    `end` sets them."""
    locals_, directory = b"", b""
    for entry in entries:
        directory += entry.central_part(len(locals_))
        locals_ += entry.local_part()
    locals_ += gap
    right = {"entries_on_disk": len(entries), "entries": len(entries),
             "directory_size": len(directory), "directory_offset": len(locals_)}
    end = end or {}
    body = prefix + locals_ + directory + after_directory
    if end64 is not None:
        offset = len(body) - len(prefix)
        body += pack(END64, {"signature": b"PK\6\6", "rest": 44, "made_by": 45, "version": 45, **right, **end64})
        body += pack(LOCATOR, {"signature": b"PK\6\7", "offset": offset, "disks": 1, **(locator or {})})
        right = {"entries_on_disk": 0xFFFF, "entries": 0xFFFF, "directory_size": ALL_ONES,
                 "directory_offset": ALL_ONES}
    return body + pack(END, {"signature": b"PK\5\6", "comment_length": len(comment), **right, **end}) \
        + comment + suffix
