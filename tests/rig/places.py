"""Where the rig finds the tree and keeps what it makes. Everything lies below build/."""

from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
RIG_HOME = ROOT / "build" / "rig"
WINE_HOME = RIG_HOME / "wine"
WINDOWS_BUILD = ROOT / "build" / "windows"

# The deployment's download hosts (cmake/deployment.cmake), and one that is on no list.
PRIMARY_HOST = "update.qorva.example"
DISTRIBUTION_HOST = "dist.qorva.example"
MIRROR_HOST = "mirror1.qorva.example"
SECOND_MIRROR_HOST = "mirror2.qorva.example"
FOREIGN_HOST = "files.elsewhere.example"
DOWNLOAD_HOSTS = (DISTRIBUTION_HOST, PRIMARY_HOST, MIRROR_HOST, SECOND_MIRROR_HOST)
# Answers with a certificate that nobody trusts, for the allowed name of the second mirror.
UNTRUSTED_HOST = SECOND_MIRROR_HOST
