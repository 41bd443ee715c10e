"""The updater started by hand, without arguments. Runs alone: it looks for the application's window
on the whole desktop."""

import shutil
import unittest

import end_to_end as e2e
import packages
import programs

AUTOMATIC = "QORVA Updater is launched automatically by QORVA.\n\n"


class ByHand(e2e.EndToEnd):
    def put_updater_into(self, scene) -> None:
        scene.updater = shutil.copyfile(scene.updater, scene.install / "qorva_updater.exe")

    def test_brings_the_running_application_to_the_front(self) -> None:
        scene = self.scene("window")
        self.put_updater_into(scene)
        before = packages.snapshot(scene.install)
        application = scene.begin([], program=scene.install / packages.APPLICATION)
        programs.wait_for_window(scene)
        outcome = scene.run([])
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        programs.wait_for_mark(scene, version=1, shows_update_status="command")
        programs.close_application(scene, application)
        self.assertEqual(before, self.without_marks(scene))
        self.assert_nothing_outside(scene)

    def test_starts_the_application_when_it_does_not_run(self) -> None:
        scene = self.scene("no window")
        self.put_updater_into(scene)
        before = packages.snapshot(scene.install)
        outcome = scene.run([])
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        programs.wait_for_mark(scene, version=1, shows_update_status="switch")
        self.assertEqual(before, self.without_marks(scene))

    def test_says_where_to_go_without_an_application(self) -> None:
        scene = self.scene("alone")
        (scene.updater.parent / packages.INSTALLER_MARKER).write_bytes(b"{}")
        outcome = scene.run([])
        self.assertEqual(2, outcome.exit_code)
        self.assert_dialog(outcome, AUTOMATIC + "Cannot find qorva_gui.exe next to the updater. "
                           "Please open QORVA and use Settings > Update.")

    def test_sends_an_archive_copy_to_the_installer(self) -> None:
        scene = self.scene("archive")
        outcome = scene.run([], button="Cancel")
        self.assertEqual(18, outcome.exit_code)
        (dialog,) = outcome.dialogs
        self.assertTrue(dialog.text.startswith("QORVA now uses the standard Windows installer."))

    def without_marks(self, scene) -> dict[str, str]:
        files = packages.snapshot(scene.install)
        return {path: digest for path, digest in files.items() if path not in programs.MARKS}


if __name__ == "__main__":
    unittest.main()
