"""A throw-away certificate authority for the loopback server.

`trusted` signs every host of the rig, the foreign one included: a redirect there has to be refused
by name and not for its certificate. `stranger` signs the same names and nobody trusts it. Both are
made once by the openssl command and kept in build/rig/certificates.
"""

import base64
import hashlib
import struct
import subprocess
from dataclasses import dataclass
from pathlib import Path

import places

DAYS = "3650"


@dataclass(frozen=True)
class Authority:
    """A root certificate, and one server certificate with its key and all names."""

    root: Path
    server: Path
    server_key: Path

    def root_der(self) -> bytes:
        body = self.root.read_text().split("-----BEGIN CERTIFICATE-----")[1]
        return base64.b64decode(body.split("-----END CERTIFICATE-----")[0])


def openssl(*arguments: str) -> None:
    done = subprocess.run(["openssl", *arguments], capture_output=True, text=True, timeout=60)
    if done.returncode != 0:
        raise RuntimeError(f"openssl {arguments[0]} failed: {done.stderr.strip()}")


def make_authority(name: str) -> Authority:
    names = ",".join(f"DNS:{host}" for host in places.HOSTS)
    edition = hashlib.sha256(names.encode()).hexdigest()[:8]
    folder = places.RIG_HOME / "certificates" / f"{name}-{edition}"
    authority = Authority(folder / "root.pem", folder / "server.pem", folder / "server.key")
    complete = folder / "complete"
    if complete.exists():
        return authority
    folder.mkdir(parents=True, exist_ok=True)
    root_key, request, extensions = folder / "root.key", folder / "server.csr", folder / "server.ext"
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-sha256", "-days", DAYS,
            "-subj", f"/CN=Rig {name} root", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
            "-keyout", str(root_key), "-out", str(authority.root))
    openssl("req", "-newkey", "rsa:2048", "-nodes", "-sha256",
            "-subj", f"/CN={places.PRIMARY_HOST}",
            "-keyout", str(authority.server_key), "-out", str(request))
    extensions.write_text(f"subjectAltName={names}\nbasicConstraints=CA:FALSE\n"
                          "keyUsage=digitalSignature,keyEncipherment\nextendedKeyUsage=serverAuth\n")
    openssl("x509", "-req", "-sha256", "-days", DAYS, "-in", str(request), "-CA", str(authority.root),
            "-CAkey", str(root_key), "-CAcreateserial", "-extfile", str(extensions),
            "-out", str(authority.server))
    complete.touch()
    return authority


def registry_text(authority: Authority) -> str:
    """The root as an entry of the current user's root store, for regedit.

    The store keeps a certificate as a run of properties, each an id, the encoding 1 and a length in
    32-bit little-endian before its bytes: 3 is the SHA-1 of the certificate, 32 the certificate.
    """
    der = authority.root_der()
    thumbprint = hashlib.sha1(der).digest()
    blob = b"".join(struct.pack("<III", number, 1, len(data)) + data
                    for number, data in ((3, thumbprint), (32, der)))
    key = r"HKEY_CURRENT_USER\Software\Microsoft\SystemCertificates\Root\Certificates"
    return f'REGEDIT4\n\n[{key}\\{thumbprint.hex().upper()}]\n"Blob"=hex:{blob.hex(",")}\n'
