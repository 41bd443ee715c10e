"""A disk that fills up in each stage of an update: no file is lost, and the message names the failure."""

import unittest

import end_to_end as e2e
from end_to_end import Run, apply_box
from rig import packages
from rig.https_server import Reply

LIBRARY = "library.dat"  # does not compress, and is most of the package
OLD_KIB, NEW_KIB = 2000, 2100
PACKAGE_KIB, TREE_KIB = 2600, 3300  # with the other files
BACKED_UP = (*e2e.STAGED, "rollback_backup")
ROLLBACK = [*e2e.EXTRACTED, *e2e.RETIRED, "rollback_start", "rollback_ok", "apply_fail"]


def gave_up(what: str, source: str, target: str) -> str:
    return apply_box(f"{what}: source='{source}\\{LIBRARY}', target='{target}\\{LIBRARY}', "
                     "reason=filesystem_error, code=112, message='M' "
                     "Rollback completed and every restored target was verified.")


class FullDisk(e2e.EndToEnd):
    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        cls.installed = {**cls.installed, LIBRARY: packages.noise(OLD_KIB << 10, LIBRARY, 1)}
        cls.payload = {**cls.payload, LIBRARY: packages.noise(NEW_KIB << 10, LIBRARY, 2)}
        cls.good_package = packages.zip_of(cls.payload)

    def test_reports_the_stage_and_loses_nothing(self) -> None:
        size = sum(map(len, self.payload.values()))
        for case, folder, room_kib in (  # the folder on a small disk, and how much is free there
                (Run("download", 2, "Update download failed: Cannot write update package file",
                     e2e.BROKEN_OFF, mirror=Reply(status=404), kept=(e2e.PACKAGE,)), "temp", PACKAGE_KIB // 2),
                (Run("extraction", 2, "Cannot extract update package: not enough disk space for ZIP "
                     f"extraction: required {size} bytes, available N bytes",
                     e2e.NOT_EXTRACTED, kept=(e2e.PACKAGE,)), "temp", PACKAGE_KIB + TREE_KIB // 2),
                (Run("backup", 2, gave_up("rollback backup copy failed", "<install>", "<work>\\rollback_backup"),
                     ROLLBACK, buttons=e2e.BUTTONS, kept=BACKED_UP), "temp", PACKAGE_KIB + TREE_KIB + OLD_KIB // 2),
                (Run("replacement", 2, gave_up("apply update copy failed", "<work>\\stage", "<install>"),
                     ROLLBACK, buttons=e2e.BUTTONS, kept=BACKED_UP), "install", NEW_KIB // 4)):
            with self.subTest(case.name):
                scene = self.scene(case.name)
                self.mount_small_disk(getattr(scene, folder), room_kib)
                self.check(case, scene)


if __name__ == "__main__":
    unittest.main()
