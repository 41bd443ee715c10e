"""A disk that fills up in each stage of an update: no file is lost, and the message names the failure."""

import contextlib

import end_to_end as e2e
from end_to_end import Run, apply_box
from rig import packages
from rig.https_server import Reply

LIBRARY = "library.dat"  # does not compress, and is most of the package
OLD_KIB, NEW_KIB = 2000, 2100
PACKAGE_KIB, TREE_KIB = 2600, 3300  # with the other files
REFUSED = ("Not enough free space on '<install>' for the update: N MB more are needed. No file has been changed. "
           "Free this space, then start the update again.")


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
                (Run("replacement", 2, apply_box(REFUSED), [*e2e.EXTRACTED, "apply_fail"], buttons=e2e.BUTTONS,
                     kept=(*e2e.STAGED, "rollback_backup")), "install", NEW_KIB // 4)):
            with self.subTest(case.name):
                scene = self.scene(case.name)
                self.mount_small_disk(getattr(scene, folder), room_kib)
                self.check(case, scene)

    def test_leaves_all_old_or_all_new_files_where_one_disk_holds_everything(self) -> None:
        # The amounts begin where the extraction succeeds. In the last run another program takes all of
        # the room during the changes.
        amounts = [(PACKAGE_KIB + TREE_KIB + more, False) for more in (0, 2400, 3600, 5500)]
        ends = []
        for room_kib, fills in (*amounts, (amounts[-1][0], True)):
            with self.subTest(room_kib=room_kib, fills=fills):
                ends.append(self.run_on_one_disk(room_kib, fills))
        self.assertEqual([2, 2, 2, 0], ends[:4])

    def run_on_one_disk(self, room_kib: int, fills: bool) -> int:
        """Returns the exit code of an update whose installation and temporary folder are on one small disk."""
        scene = self.scene(f"one-disk-{room_kib}-{fills}")
        disk = scene.folder / "disk"
        disk.mkdir()
        scene.install = scene.install.rename(disk / scene.install.name)
        scene.temp = disk / "temp"
        self.mount_small_disk(disk, room_kib)
        scene.temp.mkdir()
        run = self.begin(scene, Run("one disk", 2))
        if fills:
            self.wait_for(run, lambda: any(scene.temp.glob(f"*/rollback_backup/{LIBRARY}")))
            with contextlib.suppress(OSError), (disk / "filler").open("wb") as filler:
                while True:
                    filler.write(bytes(4096))
                    filler.flush()
        outcome = run.finish()
        self.assertIn(outcome.exit_code, (0, 2))
        updated = packages.updated_tree(self.installed, self.payload)
        self.assert_installed(scene, self.installed if outcome.exit_code else updated)
        self.assertNotIn("RECOVERY_REQUIRED", str(outcome.dialogs))
        return outcome.exit_code
