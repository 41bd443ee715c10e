"""Paths of the tree, of the build under test and of the files that the rig makes, and the deployment
data that the build was configured with. The rig writes below build/ only.

QORVA_WINDOWS_BUILD and QORVA_RIG_HOME name another build and another folder for the rig's files."""

import os
import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("QORVA_WINDOWS_BUILD", ROOT / "build" / "windows"))
RIG_HOME = Path(os.environ.get("QORVA_RIG_HOME", ROOT / "build" / "rig"))
WINE_HOME = RIG_HOME / "wine"

UPDATER = BUILD / "src" / "app" / "qorva_updater.exe"
INSPECTOR = UPDATER.with_name("qorva_inspect.exe")
PROGRAMS = BUILD / "tools" / "rig" / "programs"
TOOL = PROGRAMS / "rig_tool.exe"
RESTART_MANAGER = PROGRAMS / "rstrtmgr.dll"


def deployment(name: str) -> str:
    """A deployment value of the build, from its CMake cache, else the default of the tree."""
    cache = BUILD / "CMakeCache.txt"
    if cache.exists() and (found := re.search(rf"^{name}:\w+=(.*)$", cache.read_text(), re.M)):
        return found[1]
    defaults = (ROOT / "cmake" / "deployment.cmake").read_text()
    return re.search(rf'^set\({name} "(.*?)" CACHE', defaults, re.M)[1]


PRIMARY_HOST = deployment("QORVA_HOST_UPDATE")
DISTRIBUTION_HOST = deployment("QORVA_HOST_DISTRIBUTION")
MIRROR_HOST = deployment("QORVA_HOST_MIRROR_1")
SECOND_MIRROR_HOST = deployment("QORVA_HOST_MIRROR_2")
# The second mirror is an allowed host, but the rig's server answers for it with an untrusted certificate.
UNTRUSTED_HOST = SECOND_MIRROR_HOST
FOREIGN_HOST = "files.elsewhere.example"
# A failed run tries to send its report to these. Only the runs about reports have a server there.
REPORT_ORIGINS = [deployment(f"QORVA_REPORT_ORIGIN_{origin}").removeprefix("https://").partition(":")
                  for origin in ("PRIMARY", "MIRROR")]
REPORT_HOSTS = tuple(host for host, _, _ in REPORT_ORIGINS)
REPORT_PORT = int(REPORT_ORIGINS[0][2] or 443)
HOSTS = (DISTRIBUTION_HOST, PRIMARY_HOST, MIRROR_HOST, SECOND_MIRROR_HOST, FOREIGN_HOST)
