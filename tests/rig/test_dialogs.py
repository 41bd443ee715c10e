"""The message boxes that offer the installer, and what their buttons do."""

import unittest
from itertools import product

import end_to_end as e2e
from end_to_end import PAGE, Run
from rig import packages, programs
from rig.https_server import Reply
from test_launch import MIGRATION

BEFORE = "what the user had copied before: žluť"
UNSIGNED = ("Staged update binary is not signed by a trusted publisher: "
            f"'{packages.APPLICATION}' (unsigned: unsigned)")


class Dialogs(e2e.EndToEnd):
    def test_each_button_does_what_the_box_says(self) -> None:
        package = packages.zip_of({packages.APPLICATION: b"MZ, but nobody signed it"})
        boxes = [
            Run("apply", 2, e2e.apply_box(UNSIGNED), package=package, more=("--require-signed-payload-binaries=1",)),
            Run("archive copy", 18, MIGRATION, icon="information", primary=Reply(status=404))]
        buttons = [  # within reach of browser and clipboard, opened, copied, warning
            ("yes", True, [PAGE], BEFORE, ""), ("no", True, [], PAGE, ""), ("cancel", True, [], BEFORE, "")]
        out_of_reach = [("yes", False, [], BEFORE, "Cannot open browser automatically.\n\n" + PAGE),
                        ("no", False, [], BEFORE, "Cannot copy download link to clipboard.\n\n" + PAGE)]
        browser = programs.Browser(self.sandbox, self.scene("browser").notes, self.addCleanup)
        for case, (button, reach, opened, copied, warning) in [*product(boxes, buttons), *zip(boxes, out_of_reach)]:
            browser.set_up(reach)
            name = f"{case.name}-{button}-{reach}"
            with self.subTest(name), programs.Clipboard(self.sandbox, BEFORE, reach) as clipboard:
                scene = self.scene(name)
                if case.code == 18:
                    (scene.install / packages.INSTALLER_MARKER).unlink()
                before = packages.snapshot(scene.install)
                case.button = button
                outcome = self.begin(scene, case).finish()
                self.assertEqual(case.code, outcome.exit_code, outcome.dialogs)
                self.assert_boxes(scene, outcome, (case.message, case.icon, e2e.BUTTONS),
                                  *([(warning, "warning", ("ok",))] if warning else []))
                self.assertEqual((opened, copied), (browser.opened(len(opened)), clipboard.read()))
                self.assertEqual((before, case.code == 2), (packages.snapshot(scene.install), scene.trace_path.exists()))
                self.assertEqual(case.code == 2, bool(scene.workspaces()))
                self.assert_nothing_outside(scene)
        self.assertEqual([], self.server.requests("/Dialogs-archive"), "asked for a package of an archive copy")

    def test_says_that_there_is_no_room_for_temporary_files(self) -> None:
        scene = self.scene("no temp")
        scene.temp.rmdir()
        scene.temp.write_bytes(b"not a folder")
        self.check(Run("", 2, "Cannot create updater temp directory.", e2e.PREPARED), scene)
        self.assertEqual([], self.server.requests("/Dialogs-no-temp"))


if __name__ == "__main__":
    unittest.main()
