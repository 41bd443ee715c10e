"""Throw-away certificate authorities for the loopback server and for signed binaries.

`trusted` signs every host of the rig, the foreign one included: a redirect there has to be refused
by name and not for its certificate. `stranger` signs the same names and nobody trusts it. The two
authorities for code go by the same names. All are made once by the openssl command and kept in
build/rig/certificates.
"""

import base64
import hashlib
import shutil
import struct
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

import places

DAYS = "3650"
PUBLISHER = "Rig Tiskařství žluť s.r.o."


@dataclass(frozen=True)
class Authority:
    """A root certificate, and one server certificate with its key and all names."""

    root: Path
    server: Path
    server_key: Path


@dataclass(frozen=True)
class CodeAuthority:
    """A root certificate, and two publisher's certificates of one key, one of them expired."""

    root: Path
    key: Path
    current: Path
    expired: Path

    def sign(self, binary: bytes, certificate: Path | None = None) -> bytes:
        """A Windows binary with a signature of the publisher, and no time stamp."""
        with tempfile.TemporaryDirectory() as folder:
            plain, signed = Path(folder) / "plain", Path(folder) / "signed"
            plain.write_bytes(binary)
            run("osslsigncode", "sign", "-certs", str(certificate or self.current),
                "-key", str(self.key), "-ac", str(self.root), "-h", "sha256",
                "-in", str(plain), "-out", str(signed))
            return signed.read_bytes()


def run(*command: str) -> None:
    done = subprocess.run(command, capture_output=True, text=True, timeout=60)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command[:2])} failed: {(done.stdout + done.stderr).strip()}")


def openssl(*arguments: str) -> None:
    run("openssl", *arguments)


def make_root(name: str, folder: Path) -> tuple[Path, Path]:
    """A root certificate and its key."""
    root, key = folder / "root.pem", folder / "root.key"
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-sha256", "-days", DAYS,
            "-subj", f"/CN=Rig {name} root", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
            "-keyout", str(key), "-out", str(root))
    return root, key


def make_authority(name: str) -> Authority:
    names = ",".join(f"DNS:{host}" for host in (*places.HOSTS, *places.REPORT_HOSTS))
    edition = hashlib.sha256(names.encode()).hexdigest()[:8]
    folder = places.RIG_HOME / "certificates" / f"{name}-{edition}"
    authority = Authority(folder / "root.pem", folder / "server.pem", folder / "server.key")
    complete = folder / "complete"
    if complete.exists():
        return authority
    folder.mkdir(parents=True, exist_ok=True)
    _, root_key = make_root(name, folder)
    request, extensions = folder / "server.csr", folder / "server.ext"
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


# How openssl's small authority issues a certificate for code: `x509 -req` cannot date one back.
ISSUING = """
[ca]
default_ca = rig
[rig]
new_certs_dir = {folder}
database = {folder}/issued
serial = {folder}/serial
policy = anything
unique_subject = no
default_md = sha1
[anything]
commonName = supplied
[code]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = codeSigning
"""


def make_code_authority(name: str) -> CodeAuthority:
    folder = places.RIG_HOME / "certificates" / f"code-{name}-2"
    authority = CodeAuthority(folder / "root.pem", folder / "code.key", folder / "current.pem",
                              folder / "expired.pem")
    complete = folder / "complete"
    if complete.exists():
        return authority
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    root, root_key = make_root(f"{name} code", folder)
    request, settings = folder / "code.csr", folder / "issuing.cnf"
    openssl("req", "-newkey", "rsa:2048", "-nodes", "-sha256", "-utf8", "-subj", f"/CN={PUBLISHER}",
            "-keyout", str(authority.key), "-out", str(request))
    settings.write_text(ISSUING.format(folder=folder))
    (folder / "issued").touch()
    (folder / "serial").write_text("1000\n")
    for certificate, start, end in ((authority.current, "20200101000000Z", "20491231235959Z"),
                                    (authority.expired, "20200101000000Z", "20200201000000Z")):
        openssl("ca", "-batch", "-notext", "-utf8", "-config", str(settings), "-cert", str(root),
                "-keyfile", str(root_key), "-extensions", "code", "-startdate", start,
                "-enddate", end, "-in", str(request), "-out", str(certificate))
    complete.touch()
    return authority


def registry_text(*roots: Path) -> str:
    """Root certificates as entries of the current user's root store, for regedit.

    The store keeps a certificate as a run of properties, each an id, the encoding 1 and a length in
    32-bit little-endian before its bytes: 3 is the SHA-1 of the certificate, 32 the certificate.
    """
    text = "REGEDIT4\n"
    for root in roots:
        body = root.read_text().split("-----BEGIN CERTIFICATE-----")[1]
        der = base64.b64decode(body.split("-----END CERTIFICATE-----")[0])
        thumbprint = hashlib.sha1(der).digest()
        blob = b"".join(struct.pack("<III", number, 1, len(data)) + data
                        for number, data in ((3, thumbprint), (32, der)))
        key = r"HKEY_CURRENT_USER\Software\Microsoft\SystemCertificates\Root\Certificates"
        text += f'\n[{key}\\{thumbprint.hex().upper()}]\n"Blob"=hex:{blob.hex(",")}\n'
    return text
