"""Throw-away certificate authorities for the loopback server and for signed binaries.

The rig's prefix trusts the authority `trusted` and does not trust `stranger`. Both sign the names of
all hosts of the rig, the foreign host included: a redirect to it must be refused because of its name
and not because of its certificate. Both are made once with the openssl command and kept in
build/rig/certificates.
"""

import base64
import fcntl
import hashlib
import shutil
import struct
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

from rig import places

PUBLISHER = "Rig Tiskařství žluť s.r.o."
NAMES = ",".join(f"DNS:{host}" for host in (*places.HOSTS, *places.REPORT_HOSTS))
VALID, ENDED = "20400101000000Z", "20200201000000Z"
CERTIFICATES = (  # name, subject, digest, last day, extensions
    ("root", "Rig {} root", "sha256", VALID, ("keyUsage=critical,keyCertSign,cRLSign",
                                           "basicConstraints=critical,CA:TRUE")),
    ("server", places.PRIMARY_HOST, "sha256", VALID, (f"subjectAltName={NAMES}", "extendedKeyUsage=serverAuth")),
    # SHA-1, since Wine 8 checks the list of disallowed certificates in a buffer of 20 bytes: it accepts a
    # publisher's certificate with a longer digest without checking that its root is trusted.
    ("current", PUBLISHER, "sha1", VALID, ("extendedKeyUsage=codeSigning",)),
    ("expired", PUBLISHER, "sha1", ENDED, ("extendedKeyUsage=codeSigning",)),
)
# `openssl ca` takes dates, also past ones, in every version. The command needs a database.
SETTINGS = """[req]
distinguished_name = name
[name]
[ca]
default_ca = rig
[rig]
database = {folder}/database
new_certs_dir = {folder}
rand_serial = yes
unique_subject = no
copy_extensions = copyall
policy = name_only
[name_only]
commonName = supplied
"""
EDITION = hashlib.sha256(repr(CERTIFICATES).encode()).hexdigest()[:8]


@dataclass(frozen=True)
class Authority:
    """A root certificate, a server certificate for all names, and two publisher certificates, of which
    one is expired. Each has its key beside it."""

    folder: Path

    @property
    def root(self) -> Path:
        return self.folder / "root.pem"

    @property
    def server(self) -> tuple[Path, Path]:
        return self.folder / "server.pem", self.folder / "server.key"

    def sign(self, binary: bytes, certificate: str = "current") -> bytes:
        """Returns the Windows binary with a signature of the publisher and without a time stamp."""
        with tempfile.TemporaryDirectory() as folder:
            plain, signed = Path(folder) / "plain", Path(folder) / "signed"
            plain.write_bytes(binary)
            run("osslsigncode", "sign", "-certs", self.folder / f"{certificate}.pem", "-key",
                self.folder / f"{certificate}.key", "-ac", self.root, "-h", "sha256", "-in", plain, "-out", signed)
            return signed.read_bytes()


def run(*command: object) -> None:
    done = subprocess.run([*map(str, command)], capture_output=True, text=True, timeout=60)
    if done.returncode != 0:
        raise RuntimeError(f"{command[0]} {command[1]} failed: {(done.stdout + done.stderr).strip()}")


def make_authority(name: str) -> Authority:
    """Returns the authority of this name, which the first call makes. Several programs may call this at once."""
    folder = places.RIG_HOME / "certificates" / f"{name}-{EDITION}"
    folder.parent.mkdir(parents=True, exist_ok=True)
    with open(folder.parent / f"{name}.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not (folder / "complete").exists():
            shutil.rmtree(folder, ignore_errors=True)
            fill(folder, name)
    return Authority(folder)


def fill(folder: Path, name: str) -> None:
    """Makes the keys and certificates of an authority in a new folder."""
    folder.mkdir()
    settings = folder / "settings"
    settings.write_text(SETTINGS.format(folder=folder))  # the machine's settings would add extensions
    (folder / "database").touch()
    for title, subject, digest, last_day, extensions in CERTIFICATES:
        key, request, certificate = (folder / f"{title}.{kind}" for kind in ("key", "csr", "pem"))
        run("openssl", "req", "-new", "-config", settings, "-newkey", "rsa:2048", "-nodes", "-utf8",
            "-subj", f"/CN={subject.format(name)}", "-keyout", key, "-out", request,
            *(word for extension in extensions for word in ("-addext", extension)))
        issuer = ("-selfsign",) if title == "root" else ("-cert", folder / "root.pem")
        run("openssl", "ca", "-batch", "-config", settings, "-utf8", "-md", digest, "-notext", *issuer,
            "-keyfile", folder / "root.key", "-startdate", "20200101000000Z", "-enddate", last_day,
            "-in", request, "-out", certificate)
    (folder / "complete").touch()


def registry_text(root: Path) -> str:
    """A root certificate as an entry of the current user's root store, in the format of regedit.

    The store keeps a certificate as a sequence of properties. Each has an id, the encoding 1 and the
    length of its value as 32-bit little-endian numbers, and then the value. Property 3 is the SHA-1 of
    the certificate, property 32 the certificate.
    """
    body = root.read_text().split("-----BEGIN CERTIFICATE-----")[1]
    der = base64.b64decode(body.split("-----END CERTIFICATE-----")[0])
    thumbprint = hashlib.sha1(der).digest()
    blob = b"".join(struct.pack("<III", number, 1, len(data)) + data for number, data in ((3, thumbprint), (32, der)))
    key = r"HKEY_CURRENT_USER\Software\Microsoft\SystemCertificates\Root\Certificates"
    return f'REGEDIT4\n\n[{key}\\{thumbprint.hex().upper()}]\n"Blob"=hex:{blob.hex(",")}\n'
