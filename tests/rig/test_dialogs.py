"""The message boxes that offer the installer, and what their buttons do."""

import unittest
from dataclasses import replace
from itertools import product

import end_to_end as e2e
import packages
import places
from desktop import Browser, Clipboard
from https_server import Reply
from test_apply import BOX_END, BOX_START, BUTTONS, PAGE
from test_launch import MIGRATION
from updater_run import Outcome, Scene

BEFORE = "what the user had copied before: žluť"
NO_BROWSER = "Cannot open browser automatically.\n\n" + PAGE
NO_CLIPBOARD = "Cannot copy download link to clipboard.\n\n" + PAGE


class Dialogs(e2e.EndToEnd):
    def fail_to_apply(self, scene: Scene, button: str) -> Outcome:
        package = packages.zip_of({packages.APPLICATION: b"MZ, but nobody signed it"})
        url = self.serve(scene, places.PRIMARY_HOST, Reply(body=package))
        return scene.run([*scene.arguments(url=url, sha256=packages.sha256_of(package)),
                          "--require-signed-payload-binaries=1"], button=button)

    def refuse_archive_copy(self, scene: Scene, button: str) -> Outcome:
        (scene.install / packages.INSTALLER_MARKER).unlink()
        url = self.server.url(places.PRIMARY_HOST, "/archive/package.zip")
        return scene.run(scene.arguments(url=url, sha256="0" * 64), button=button)

    def test_each_button_does_what_the_box_says(self) -> None:
        unsigned = ("Staged update binary is not signed by a trusted publisher: "
                    f"'{packages.APPLICATION}' (unsigned: unsigned)")
        boxes = [(self.fail_to_apply, 2, BOX_START + unsigned + BOX_END, "error"),
                 (self.refuse_archive_copy, 18, MIGRATION, "information")]
        in_reach = [("yes", True, [PAGE], BEFORE, None), ("no", True, [], PAGE, None),
                    ("cancel", True, [], BEFORE, None)]  # browser and clipboard
        out_of_reach = [("yes", False, [], BEFORE, NO_BROWSER), ("no", False, [], BEFORE, NO_CLIPBOARD)]
        browser = Browser(self.sandbox, self.scene("browser").notes, self.addCleanup)
        for box, case in [*product(boxes, in_reach), *zip(boxes, out_of_reach)]:
            (fail, code, text, icon), (button, reach, opened, copied, warning) = box, case
            name = f"{fail.__name__}-{button}-{reach}"
            browser.set_up(reach)
            with self.subTest(name), Clipboard(self.sandbox, BEFORE, reach) as clipboard:
                scene = self.scene(name)
                outcome = fail(scene, button)
                self.assertEqual(code, outcome.exit_code, outcome.dialogs)
                self.assert_dialog(replace(outcome, dialogs=outcome.dialogs[:1]), text, icon, BUTTONS)
                if warning:
                    self.assert_dialog(replace(outcome, dialogs=outcome.dialogs[1:]), warning, "warning")
                else:
                    self.assertEqual(1, len(outcome.dialogs), outcome.dialogs)
                self.assertEqual((opened, copied), (browser.opened(len(opened)), clipboard.read()))
                self.assert_nothing_outside(scene)

    def test_says_that_there_is_no_room_for_temporary_files(self) -> None:
        scene = self.scene("no temp")
        scene.temp.rmdir()
        scene.temp.write_bytes(b"not a folder")
        outcome = scene.run(scene.arguments(
            url=self.server.url(places.PRIMARY_HOST, "/none/package.zip"), sha256="0" * 64))
        self.assertEqual(2, outcome.exit_code)
        self.assert_dialog(outcome, "Cannot create updater temp directory.")
        self.assert_trace(scene, outcome, e2e.PREPARED)
        self.assert_installed(scene, self.installed)
        self.assertEqual([], self.server.requests("/none/"))


if __name__ == "__main__":
    unittest.main()
