"""The message boxes that offer the installer, with the real browser command and the real clipboard.
tests/update/driver_test.cpp has each button of each box."""

import unittest

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
    def test_each_button_does_what_the_box_says(self) -> None:
        unsigned = packages.zip_of({packages.APPLICATION: b"MZ without a signature"})
        apply = Run("apply", 2, e2e.apply_box(UNSIGNED), package=unsigned,
                    more=("--require-signed-payload-binaries=1",))
        archive_copy = Run("archive-copy", 18, MIGRATION, icon="information", primary=Reply(status=404))
        no_browser = ("Cannot open browser automatically.\n\n" + PAGE, "warning", ("ok",))
        no_clipboard = ("Cannot copy download link to clipboard.\n\n" + PAGE, "warning", ("ok",))
        browser = programs.Browser(self.sandbox, self.scene("browser").notes, self.addCleanup)
        for case, button, available, opened, clipboard_text, warnings in (
                (apply, "yes", True, [PAGE], BEFORE, []),
                (apply, "no", True, [], PAGE, []),
                (archive_copy, "yes", False, [], BEFORE, [no_browser]),
                (archive_copy, "no", False, [], BEFORE, [no_clipboard])):
            browser.set_up(available)
            name = f"{case.name}-{button}"
            with self.subTest(name), programs.Clipboard(self.sandbox, BEFORE, available) as clipboard:
                scene = self.scene(name)
                if case is archive_copy:
                    (scene.install / packages.INSTALLER_MARKER).unlink()
                before = packages.snapshot(scene.install)
                case.button = button
                outcome = self.begin(scene, case).finish()
                self.assertEqual(case.code, outcome.exit_code, outcome.dialogs)
                self.assert_boxes(scene, outcome, [(case.message, case.icon, e2e.BUTTONS), *warnings])
                self.assertEqual((opened, clipboard_text), (browser.opened(len(opened)), clipboard.read()))
                self.assertEqual(before, packages.snapshot(scene.install))
                self.assert_nothing_outside(scene)
        self.assertEqual([], self.server.requests("/Dialogs-archive"), "an archive copy requested a package")


if __name__ == "__main__":
    unittest.main()
