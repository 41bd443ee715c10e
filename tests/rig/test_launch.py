"""What is decided before anything is fetched: command lines that are refused, the archive-mode
installation, the version query, and the updater started by hand."""

import json
import os
import shutil
import unittest

import end_to_end as e2e
from end_to_end import Run
from rig import packages, places, programs

MIGRATION = (
    "QORVA now uses the standard Windows installer.\n\nTo continue receiving updates and use this "
    "version, you need to migrate to the installed version.\n\nYour settings and license will be "
    "migrated.\nYour old folder will not be deleted automatically.\nAfter migration, use the Start "
    "Menu/Desktop shortcut.\n\nDownload and run the current QORVA installer from:\n" + e2e.PAGE +
    "\n\nAfter installation, close this old copy and start QORVA from the Start Menu/Desktop shortcut "
    "or from the folder chosen in the installer.\n\nYes opens the download page now. No copies the "
    "link to the clipboard.")


class Launch(e2e.EndToEnd):
    def test_refuses_bad_command_lines_before_any_side_effect(self) -> None:
        elsewhere = self.server.url(places.FOREIGN_HOST, "/p.zip")
        self.check_all(*(Run(name, 2, message, arguments=arguments, more=more) for name, message, arguments, more in (
            ("no digest", "Update payload is incomplete.", {"sha256": ""}, ()),
            ("short digest", "Update SHA-256 must be a 64-character hex string.", {"sha256": "0" * 63}, ()),
            ("restart arguments", "Updater restart arguments are not supported.", {}, ("--restart-args=x",)),
            ("headless", "Headless installed-update proof requires signed payload verification.", {},
             ("--headless-restart-version-proof=1",)),
            ("relative target", "Update target directory must be an absolute path.", {"target": "QORVA"}, ()),
            ("other program", "Restart executable must be qorva_gui.exe, qorva.exe, zul_rip_gui.exe, or zul_rip.exe.",
             {"restart": "notepad.exe"}, ()),
            ("plain text", "Update URL must use HTTPS",
             {"url": self.server.plain_url(places.PRIMARY_HOST, "/p.zip")}, ()),
            ("foreign host", f"Update download host is not allowed: {places.FOREIGN_HOST}", {"url": elsewhere}, ()),
            ("foreign mirror", f"Update download host is not allowed: {places.FOREIGN_HOST}",
             {"fallback": elsewhere}, ()),
            ("unsafe required name", "Update package required file name is unsafe: ..\\b.dll",
             {"required": ("a.dll", "..\\b.dll")}, ()))))
        self.assertEqual([], self.server.requests(), "something was asked of the server")

    def test_answers_queries_without_a_trace(self) -> None:
        version = {"version": places.deployment("QORVA_VERSION"), "build_id": places.deployment("QORVA_BUILD_ID"),
                   "channel": places.deployment("QORVA_CHANNEL"), "platform": "windows", "arch": "x64"}
        printed = json.dumps(version, separators=(",", ":")).encode() + b"\n"
        ask, handles = "--print-app-version-json", ["--observe", "4", "8", "12", "16"]
        scene = self.scene("queries")
        for arguments, output, exit_code, expected in (
                (["--target-dir=x", ask, "more"], "file", 0, printed), ([ask], "pipe", 0, printed),
                ([ask], "none", 0, b""), ([ask, *handles], "pipe", 0, printed),
                # It observes only when that is asked first.
                (["--observe"], "pipe", 64, b""), (["--observe", ask], "pipe", 64, b""),
                (["--observe", "1", "2", "3", "x"], "pipe", 64, b""), (handles, "pipe", 65, b"")):
            with self.subTest(arguments=arguments, output=output):
                outcome = scene.run(arguments, output=output)
                self.assertEqual((exit_code, expected, []), (outcome.exit_code, outcome.output, outcome.dialogs))
                self.assert_nothing_outside(scene)
                self.assertEqual(([], [], [scene.updater.name]), (  # no log
                    scene.running(), os.listdir(scene.temp), os.listdir(scene.updater.parent)))


class ByHand(e2e.EndToEnd):
    """Without arguments. Runs alone: the updater looks for the application's window on the whole
    desktop."""

    def test_brings_the_running_application_to_the_front(self) -> None:
        scene = self.scene("window")
        shutil.copyfile(scene.updater, scene.install / scene.updater.name)
        application = scene.begin([], program=scene.install / packages.APPLICATION, dialogs=False)
        self.assert_marks(scene, *programs.marks_of_start(1))
        outcome = scene.run([], program=scene.install / scene.updater.name)
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_marks(scene, *programs.marks_of_start(1), "command 210")
        programs.close_application(self.sandbox, application.pid)
        self.assertEqual(0, application.finish().exit_code)
        self.assertEqual(["start", "window", "command", "exit"],
                         [mark.split()[0] for mark in programs.marks(scene.install) if mark != "close"])
        self.assert_installed(scene, {**self.installed, scene.updater.name: scene.updater.read_bytes()})
        self.assert_nothing_outside(scene)

    def test_starts_the_application_or_says_why_not(self) -> None:
        application = {packages.INSTALLER_MARKER: b"{}", packages.APPLICATION: self.installed[packages.APPLICATION]}
        legacy = {packages.INSTALLER_MARKER: b"{}", "zul_rip_gui.exe": self.installed[packages.APPLICATION]}
        for name, files, button, code, *box in (
                (packages.APPLICATION, {**application, **legacy}, "ok", 0),
                ("zul_rip_gui.exe", legacy, "ok", 0),
                ("no application", {packages.INSTALLER_MARKER: b"{}"}, "ok", 2,
                 ("QORVA Updater is launched automatically by QORVA.\n\nCannot find qorva_gui.exe next to the "
                  "updater. Please open QORVA and use Settings > Update.", "error", ("ok",))),
                ("no program", {**application, packages.APPLICATION: b"MZ"}, "ok", 2,
                 ("Cannot restart application after update.", "error", ("ok",))),
                ("archive copy", {}, "no", 18, (MIGRATION, "information", e2e.BUTTONS))):
            with self.subTest(name):
                scene = self.scene(name)
                folder = scene.updater.parent / "with a blank"
                packages.write_tree(folder, {**files, scene.updater.name: scene.updater.read_bytes()})
                outcome = scene.run([], program=folder / scene.updater.name, button=button)
                self.assertEqual(code, outcome.exit_code, outcome.dialogs)
                self.assert_boxes(scene, outcome, *box)
                if code == 0:
                    path = scene.windows(folder / name)
                    self.assertEqual([], programs.missing_marks(
                        folder, f'start 1.0.0 {name} "{path}" --show-update-status', "window "))
                self.assert_nothing_outside(scene)
                scene.clear()  # the next one looks for its window


if __name__ == "__main__":
    unittest.main()
