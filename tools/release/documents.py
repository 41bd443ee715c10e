"""The documents of a release: the bill of materials (SPDX 2.3 in JSON) and the notices of others."""

import hashlib
import json
import re
import subprocess
from pathlib import Path

from components import Component

IMPORT = re.compile(r"DLL Name: (\S+)")


def imported_libraries(program: Path) -> list[str]:
    """The libraries of the system that the program's import table names, in lower case."""
    headers = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", program], check=True, capture_output=True,
                             text=True).stdout
    return sorted({name.lower() for name in IMPORT.findall(headers)})


def identifier(kind: str, name: str) -> str:
    return f"SPDXRef-{kind}-" + re.sub(r"[^A-Za-z0-9.-]", "-", name)


def file_record(name: str, path: Path) -> dict:
    digests = {"SHA1": hashlib.sha1, "SHA256": hashlib.sha256}  # SPDX demands the first one
    return {"SPDXID": identifier("File", name), "fileName": name,
            "checksums": [{"algorithm": algorithm, "checksumValue": digest(path.read_bytes()).hexdigest()}
                          for algorithm, digest in digests.items()]}


def package_record(name: str, version: str, licence: str) -> dict:
    return {"SPDXID": identifier("Package", name), "name": name, "versionInfo": version, "licenseDeclared": licence,
            "licenseConcluded": licence, "downloadLocation": "NOASSERTION", "copyrightText": "NOASSERTION",
            "filesAnalyzed": False}


def bill_of_materials(programs: list[Path], components: list[Component], version: str, address: str, commit: str,
                      committed_at: str) -> str:
    """The bill as JSON text. `committed_at` is the time in the document, as SPDX writes times: two builds of
    one commit have the same bill."""
    files, packages, relations = [], [], []

    def relate(subject: str, relation: str, other: str) -> None:
        relations.append({"spdxElementId": subject, "relationshipType": relation, "relatedSpdxElement": other})

    for component in components:
        packages.append(package_record(component.name, component.version, component.licence))
        for name, path in component.named_files().items():
            files.append(file_record(name, path))
            relate(packages[-1]["SPDXID"], "CONTAINS", files[-1]["SPDXID"])
    system = {name for program in programs for name in imported_libraries(program)}
    packages += [package_record(name, "that of the Windows installation", "NOASSERTION") for name in sorted(system)]
    for program in programs:
        record = file_record(f"./{program.name}", program)
        files.append(record)
        relate("SPDXRef-DOCUMENT", "DESCRIBES", record["SPDXID"])
        for component in components:
            relate(record["SPDXID"], "STATIC_LINK", identifier("Package", component.name))
        for name in imported_libraries(program):
            relate(record["SPDXID"], "DYNAMIC_LINK", identifier("Package", name))
    return json.dumps({
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"qorva_updater {version}", "documentNamespace": f"{address}spdx/qorva_updater-{version}-{commit}",
        "creationInfo": {"created": committed_at, "creators": ["Tool: release"]},
        "packages": packages, "files": files, "relationships": relations}, indent=2) + "\n"


def terms_of(component: Component) -> str:
    """The text of the component's licence. Boost's file also has the terms of everything that is not used."""
    text = component.terms.read_text("utf-8").strip()
    if component.licence == "BSL-1.0":
        text = re.search(r"^License: BSL-1\.0\n(?: .*\n)+", text, re.MULTILINE)[0].strip()
    return text


def notices(components: list[Component]) -> str:
    titles: dict[str, list[str]] = {}
    for component in components:  # packages of one source have the same terms
        titles.setdefault(terms_of(component), []).append(
            f"{component.name} {component.version} ({component.licence})")
    rule = "=" * 80
    parts = (f"{rule}\n" + "\n".join(names) + f"\n{rule}\n\n{terms}\n" for terms, names in titles.items())
    return "The programs of this release contain parts of the following libraries.\n\n" + "\n".join(parts)
