"""The updater started by hand, without arguments. Runs alone: it looks for the application's window
on the whole desktop."""

import shutil
import unittest

import end_to_end as e2e
import packages
import programs
from test_launch import MIGRATION
from updater_run import Scene

AUTOMATIC = "QORVA Updater is launched automatically by QORVA.\n\n"


class ByHand(e2e.EndToEnd):
    def installed_scene(self, name: str) -> tuple[Scene, packages.Tree]:
        """A scene whose updater stands in the installation, and what that holds."""
        scene = self.scene(name)
        scene.updater = shutil.copyfile(scene.updater, scene.install / "qorva_updater.exe")
        return scene, {**self.installed, "qorva_updater.exe": scene.updater.read_bytes()}

    def test_brings_the_running_application_to_the_front(self) -> None:
        scene, tree = self.installed_scene("window")
        application = scene.begin([], program=scene.install / packages.APPLICATION)
        self.assert_marks(scene, *programs.marks_of_start(1))
        outcome = scene.run([])
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_marks(scene, *programs.marks_of_start(1), "command 210")
        programs.close_application(self.sandbox, application.pid)
        self.assertEqual(0, application.finish().exit_code)
        self.assertEqual(1, (scene.install / programs.MARK).read_text("utf-8").count("start "))
        self.assert_installed(scene, tree)
        self.assert_nothing_outside(scene)

    def test_starts_the_application_when_it_does_not_run(self) -> None:
        for name in (packages.APPLICATION, "zul_rip_gui.exe"):
            with self.subTest(name):
                scene, tree = self.installed_scene("starts-" + name)
                tree["zul_rip_gui.exe"] = tree[packages.APPLICATION]
                packages.write_tree(scene.install, tree)
                if name != packages.APPLICATION:
                    (scene.install / packages.APPLICATION).unlink()
                    del tree[packages.APPLICATION]
                outcome = scene.run([])
                self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
                path = scene.windows(scene.install / name)
                self.assert_marks(scene, f'start 1.0.0 {name} "{path}" --show-update-status',
                                  "window QORVA 1.0.0")
                self.assert_installed(scene, tree)
                self.assert_nothing_outside(scene)
                scene.clear()  # the next one looks for its window

    def test_says_why_no_application_comes(self) -> None:
        for name, files, message in [
            ("alone", {}, AUTOMATIC + "Cannot find qorva_gui.exe next to the updater. Please open QORVA "
             "and use Settings > Update."),
            ("no program", {packages.APPLICATION: b"MZ"}, "Cannot restart application after update."),
        ]:
            with self.subTest(name):
                scene = self.scene(name)
                packages.write_tree(scene.updater.parent, {**files, packages.INSTALLER_MARKER: b"{}"})
                outcome = scene.run([])
                self.assertEqual(2, outcome.exit_code)
                self.assert_dialog(outcome, message)
                self.assert_nothing_outside(scene)

    def test_sends_an_archive_copy_to_the_installer(self) -> None:
        scene = self.scene("archive")
        outcome = scene.run([], button="no")
        self.assertEqual(18, outcome.exit_code)
        self.assert_dialog(outcome, MIGRATION, "information", ("yes", "no", "cancel"))


if __name__ == "__main__":
    unittest.main()
