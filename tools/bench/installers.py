"""Silent installers of the measured packages, made by NSIS, for comparison with the updater.

They promise less: no backup, no flush, no check of any file, not even of themselves. Each file is
compressed alone, as in a ZIP, so both sides inflate the same bytes. The installers are 64-bit programs:
the prefix has no 32-bit system, and there a 32-bit installer does nothing and ends with 0.
"""

import subprocess
from pathlib import Path

HEAD = """\
Target amd64-unicode
SetCompressor zlib
Name "QORVA bench"
RequestExecutionLevel user
SilentInstall silent
CRCCheck off
SetOverwrite on
"""


def make(installer: Path, source: Path, files: list[str]) -> None:
    """Makes an installer of these relative paths below `source`. It installs into the folder that its last
    argument names: "/D=C:\\folder", without quotes or blanks. Leaves its script beside it."""
    script = installer.with_suffix(".nsi")
    lines = [HEAD + f'OutFile "{installer}"', "Section"]
    folder = None
    for path in map(Path, files):
        if path.parent != folder:
            folder = path.parent
            lines.append(f'SetOutPath "$INSTDIR\\{str(folder).replace("/", chr(92))}"')
        lines.append(f'File "{source / path}"')
    script.write_text("\n".join((*lines, "SectionEnd", "")))
    done = subprocess.run(["makensis", "-V2", "-WX", "-NOCD", script], capture_output=True, text=True, timeout=600)
    if done.returncode != 0:
        raise RuntimeError(f"makensis failed: {(done.stdout + done.stderr)[-2000:]}")
