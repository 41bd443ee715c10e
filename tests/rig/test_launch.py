"""What is decided before anything is fetched: command lines that are refused, the archive-mode
installation, and the version query."""

import json
import os
import unittest

import end_to_end as e2e
import packages
import places
from sandbox import programs_from

MIGRATION = (
    "QORVA now uses the standard Windows installer.\n\nTo continue receiving updates and use this "
    "version, you need to migrate to the installed version.\n\nYour settings and license will be "
    "migrated.\nYour old folder will not be deleted automatically.\nAfter migration, use the Start "
    "Menu/Desktop shortcut.\n\nDownload and run the current QORVA installer from:\n" +
    places.deployment("QORVA_PAGE_URL") +
    "\n\nAfter installation, close this old copy and start QORVA from the Start Menu/Desktop shortcut "
    "or from the folder chosen in the installer.\n\nYes opens the download page now. No copies the "
    "link to the clipboard.")


class Launch(e2e.EndToEnd):
    def request(self, scene) -> dict[str, list[str]]:
        """A request without fault, by switch."""
        url = self.server.url(places.PRIMARY_HOST, f"/{scene.folder.name}/package.zip")
        switches: dict[str, list[str]] = {}
        for argument in scene.arguments(url=url, sha256="0" * 64):
            name, _, value = argument.partition("=")
            switches.setdefault(name, []).append(value)
        return switches

    def test_refuses_bad_command_lines_before_any_side_effect(self) -> None:
        scene = self.scene("refused")
        install = scene.windows(scene.install)
        elsewhere = self.server.url(places.FOREIGN_HOST, "/p.zip")
        plain = self.server.plain_url(places.PRIMARY_HOST, "/p.zip")
        (scene.install / "sub").mkdir()
        (scene.install / "sub" / "qorva.exe").write_bytes(b"MZ")
        before = packages.snapshot(scene.install)
        for name, changes, message in [
            ("no digest", {"--sha256": [""]}, "Update payload is incomplete."),
            ("other case", {"--sha256": [], "--SHA256": ["0" * 64]}, "Update payload is incomplete."),
            ("restart arguments", {"--restart-args": ["x"]},
             "Updater restart arguments are not supported."),
            ("headless with a process", {"--headless-restart-version-proof": ["1"], "--pid": ["5"]},
             "Headless installed-update proof requires an isolated updater request."),
            ("headless without signatures", {"--headless-restart-version-proof": ["1"]},
             "Headless installed-update proof requires signed payload verification."),
            ("relative target", {"--target-dir": ["QORVA"]},
             "Update target directory must be an absolute path."),
            ("root as target", {"--target-dir": ["C:\\"]},
             "Update target directory cannot be a filesystem root."),
            ("missing target", {"--target-dir": [install + "\\nowhere"]},
             "Update target directory must exist and be a directory."),
            ("other program", {"--restart-exe": [install + "\\notepad.exe"]},
             "Restart executable must be qorva_gui.exe, qorva.exe, zul_rip_gui.exe, or zul_rip.exe."),
            ("missing program", {"--restart-exe": [install + "\\zul_rip.exe"]},
             "Restart executable must exist and be a regular file."),
            ("program in a subfolder", {"--restart-exe": [install + "\\sub\\qorva.exe"]},
             "Restart executable must be directly inside the update target directory."),
            ("plain text", {"--download-url": [plain]}, "Update URL must use HTTPS"),
            ("foreign host", {"--download-url": [elsewhere]},
             f"Update download host is not allowed: {places.FOREIGN_HOST}"),
            ("foreign mirror", {"--fallback-download-url": [elsewhere]},
             f"Update download host is not allowed: {places.FOREIGN_HOST}"),
            ("user in the URL", {"--download-url": [f"https://me@{places.PRIMARY_HOST}/p.zip"]},
             "Invalid HTTPS URL in download_url: URL host is empty or contains user info"),
            ("short digest", {"--sha256": ["0" * 63]},
             "Update SHA-256 must be a 64-character hex string."),
            ("unsafe required name", {"--required-payload-file": ["a.dll", "..\\b.dll"]},
             "Update package required file name is unsafe: ..\\b.dll"),
            ("doubled required name", {"--required-payload-file": ["a.dll", "A.DLL"]},
             "Update package required file name is duplicated: A.DLL"),
        ]:
            with self.subTest(name):
                switches = {**self.request(scene), **changes}
                outcome = scene.run([f"{switch}={value}" for switch, values in switches.items()
                                     for value in values])
                self.assertEqual(2, outcome.exit_code, outcome.dialogs)
                self.assert_dialog(outcome, message)
                self.assertFalse(scene.trace_path.exists())
                self.assertEqual(before, packages.snapshot(scene.install))
                self.assert_no_workspace(scene)
                self.assert_nothing_outside(scene)
        self.assertEqual([], self.server.requests(), "something was asked of the server")

    def test_sends_an_archive_copy_to_the_installer(self) -> None:
        scene = self.scene("archive")
        (scene.install / packages.INSTALLER_MARKER).unlink()
        before = packages.snapshot(scene.install)
        url = self.server.url(places.PRIMARY_HOST, "/archive/package.zip")
        outcome = scene.run(scene.arguments(url=url, sha256="0" * 64), button="cancel")
        self.assertEqual(18, outcome.exit_code)
        self.assert_dialog(outcome, MIGRATION, "information", ("yes", "no", "cancel"))
        self.assertFalse(scene.trace_path.exists())
        self.assertEqual(before, packages.snapshot(scene.install))
        self.assert_no_workspace(scene)
        self.assert_nothing_outside(scene)
        self.assertEqual([], self.server.requests("/archive/"))

    def test_prints_its_version_to_a_file_a_pipe_and_nowhere(self) -> None:
        scene = self.scene("version")
        version = {"version": places.deployment("QORVA_VERSION"),
                   "build_id": places.deployment("QORVA_BUILD_ID"),
                   "channel": places.deployment("QORVA_CHANNEL"), "platform": "windows", "arch": "x64"}
        expected = json.dumps(version, separators=(",", ":")).encode() + b"\n"
        for output, printed in [("file", expected), ("pipe", expected), ("none", b"")]:
            with self.subTest(output):
                outcome = scene.run(["--target-dir=x", "--print-app-version-json", "more"], output=output)
                self.assertEqual((0, printed, []), (outcome.exit_code, outcome.output, outcome.dialogs))
                self.assert_no_workspace(scene)
                self.assert_nothing_outside(scene)
                self.assertEqual([], programs_from(scene.windows(scene.folder)))
                self.assertEqual([scene.updater.name], os.listdir(scene.updater.parent))  # no log

    def test_observes_only_when_that_is_asked_first(self) -> None:
        scene = self.scene("observer")
        for arguments, exit_code in [
                (["--observe"], 64), (["--observe", "--print-app-version-json"], 64),
                (["--observe", "1", "2", "3", "x"], 64), (["--observe", "4", "8", "12", "16"], 65),
                (["--print-app-version-json", "--observe", "4", "8", "12", "16"], 0)]:
            with self.subTest(arguments):
                outcome = scene.run(arguments)
                self.assertEqual((exit_code, []), (outcome.exit_code, outcome.dialogs))
                self.assert_nothing_outside(scene)
                self.assertEqual([scene.updater.name], os.listdir(scene.updater.parent))  # no log


if __name__ == "__main__":
    unittest.main()
