"""Throw-away certificate authorities for the loopback server and for signed binaries.

`trusted` signs every host of the rig, the foreign one included: a redirect there has to be refused
by name and not for its certificate. `stranger` signs the same names and nobody trusts it. Both are
made once by the openssl command and kept in build/rig/certificates.
"""

import base64
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
CERTIFICATES = (  # name, subject, digest, days, extensions
    ("root", "Rig {} root", "sha256", 3650, ("keyUsage=critical,keyCertSign,cRLSign",
                                          "basicConstraints=critical,CA:TRUE")),
    ("server", places.PRIMARY_HOST, "sha256", 3650, (f"subjectAltName={NAMES}", "extendedKeyUsage=serverAuth")),
    # Wine 8 has room for a digest of this length only when it looks whether a publisher's certificate
    # was disallowed, and passes any longer one without asking whether its root is trusted.
    ("current", PUBLISHER, "sha1", 3650, ("extendedKeyUsage=codeSigning",)),
    ("expired", PUBLISHER, "sha1", -1, ("extendedKeyUsage=codeSigning",)),
)
EDITION = hashlib.sha256(repr(CERTIFICATES).encode()).hexdigest()[:8]


@dataclass(frozen=True)
class Authority:
    """A root certificate, a server's certificate for all names, and two publisher's certificates, one
    of them expired, each with its key beside it."""

    folder: Path

    @property
    def root(self) -> Path:
        return self.folder / "root.pem"

    @property
    def server(self) -> tuple[Path, Path]:
        return self.folder / "server.pem", self.folder / "server.key"

    def sign(self, binary: bytes, certificate: str = "current") -> bytes:
        """A Windows binary with a signature of the publisher, and no time stamp."""
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
    folder = places.RIG_HOME / "certificates" / f"{name}-{EDITION}"
    if (folder / "complete").exists():
        return Authority(folder)
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    settings = folder / "settings"
    settings.write_text("[req]\ndistinguished_name=name\n[name]\n")  # the machine's own would add extensions
    for title, subject, digest, days, extensions in CERTIFICATES:
        key, request, certificate = (folder / f"{title}.{kind}" for kind in ("key", "csr", "pem"))
        run("openssl", "req", "-new", "-config", settings, "-newkey", "rsa:2048", "-nodes", "-utf8",
            "-subj", f"/CN={subject.format(name)}", "-keyout", key, "-out", request,
            *(word for extension in extensions for word in ("-addext", extension)))
        issuer = ("-signkey", key) if title == "root" else (
            "-CA", folder / "root.pem", "-CAkey", folder / "root.key", "-CAcreateserial")
        run("openssl", "x509", "-req", "-in", request, "-copy_extensions", "copyall", f"-{digest}",
            "-days", days, *issuer, "-out", certificate)
    (folder / "complete").touch()
    return Authority(folder)


def registry_text(root: Path) -> str:
    """A root certificate as an entry of the current user's root store, for regedit.

    The store keeps a certificate as a run of properties, each an id, the encoding 1 and a length in
    32-bit little-endian before its bytes: 3 is the SHA-1 of the certificate, 32 the certificate.
    """
    body = root.read_text().split("-----BEGIN CERTIFICATE-----")[1]
    der = base64.b64decode(body.split("-----END CERTIFICATE-----")[0])
    thumbprint = hashlib.sha1(der).digest()
    blob = b"".join(struct.pack("<III", number, 1, len(data)) + data for number, data in ((3, thumbprint), (32, der)))
    key = r"HKEY_CURRENT_USER\Software\Microsoft\SystemCertificates\Root\Certificates"
    return f'REGEDIT4\n\n[{key}\\{thumbprint.hex().upper()}]\n"Blob"=hex:{blob.hex(",")}\n'
