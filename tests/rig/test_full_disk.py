"""A disk that fills up in each stage of an update: no file is lost, and the message names the failure."""

import end_to_end as e2e
from end_to_end import Run, apply_box
from rig import packages
from rig.https_server import Reply

LIBRARY = "library.dat"  # does not compress, and is most of the package
OLD_KIB, NEW_KIB = 2000, 2100
PACKAGE_KIB, TREE_KIB = 2600, 3300  # with the other files
ROLLBACK = [*e2e.EXTRACTED, *e2e.RETIRED, "rollback_start", "rollback_ok", "apply_fail"]
GAVE_UP = (f"apply update copy failed: source='<work>\\stage\\{LIBRARY}', target='<install>\\{LIBRARY}', "
           "reason=filesystem_error, code=112, message='M' Rollback completed and every restored target was verified.")


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
                (Run("replacement", 2, apply_box(GAVE_UP), ROLLBACK, buttons=e2e.BUTTONS,
                     kept=(*e2e.STAGED, "rollback_backup")), "install", NEW_KIB // 4)):
            with self.subTest(case.name):
                scene = self.scene(case.name)
                self.mount_small_disk(getattr(scene, folder), room_kib)
                self.check(case, scene)
