"""The message boxes that offer the installer, with the real clipboard and without a browser. A real browser
is in test_planted_libraries.py, and each button of each box in tests/update/driver_test.cpp."""

import end_to_end as e2e
from end_to_end import PAGE, Run
from rig import packages, programs
from rig.https_server import Reply

BEFORE = "what the user had copied before: žluť"
UNSIGNED = ("Staged update binary is not signed by a trusted publisher: "
            f"'{packages.APPLICATION}' (unsigned: unsigned)")
MIGRATION = (
    "QORVA now uses the standard Windows installer.\n\nTo continue receiving updates and use this "
    "version, you need to migrate to the installed version.\n\nYour settings and license will be "
    "migrated.\nYour old folder will not be deleted automatically.\nAfter migration, use the Start "
    "Menu/Desktop shortcut.\n\nDownload and run the current QORVA installer from:\n" + PAGE +
    "\n\nAfter installation, close this old copy and start QORVA from the Start Menu/Desktop shortcut "
    "or from the folder chosen in the installer.\n\nYes opens the download page now. No copies the "
    "link to the clipboard.")


class Dialogs(e2e.EndToEnd):
    def test_the_box_copies_the_link_and_reports_a_missing_browser(self) -> None:
        unsigned = packages.zip_of({packages.APPLICATION: b"MZ without a signature"})
        apply = Run("apply", 2, e2e.apply_box(UNSIGNED), package=unsigned,
                    more=("--require-signed-payload-binaries=1",), button="no")
        archive_copy = Run("archive-copy", 18, MIGRATION, icon="information", primary=Reply(status=404), button="yes")
        browser = programs.Browser(self.sandbox, self.scene("browser").notes, self.addCleanup)
        for case, available, copied, warnings in ((apply, True, PAGE, []), (archive_copy, False, BEFORE, [
                ("Cannot open browser automatically.\n\n" + PAGE, "warning", ("ok",))])):
            browser.set_up(available)
            with self.subTest(case.name), programs.Clipboard(self.sandbox, BEFORE, available) as clipboard:
                scene = self.scene(case.name)
                if case is archive_copy:
                    (scene.install / packages.INSTALLER_MARKER).unlink()
                before = packages.snapshot(scene.install)
                outcome = self.begin(scene, case).finish()
                self.assertEqual(case.code, outcome.exit_code, outcome.dialogs)
                self.assert_boxes(scene, outcome, [(case.message, case.icon, e2e.BUTTONS), *warnings])
                self.assertEqual(([], copied), (browser.opened(0), clipboard.read()))
                self.assertEqual(before, packages.snapshot(scene.install))
                self.assert_nothing_outside(scene)
        self.assertEqual([], self.server.requests("/Dialogs-archive"), "an archive copy requested a package")
