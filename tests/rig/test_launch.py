"""What the command line selects: a refused request, the version query, and the updater started by hand.
tests/update/driver_test.cpp has each refusal."""

import json
import os
import shutil

import end_to_end as e2e
from end_to_end import Run
from rig import packages, places, programs


class Launch(e2e.EndToEnd):
    def test_refuses_a_request_before_any_side_effect(self) -> None:
        elsewhere = self.server.url(places.FOREIGN_HOST, "/p.zip")
        self.check_all([
            Run("restart arguments", 2, "Updater restart arguments are not supported.", more=("--restart-args=x",)),
            Run("foreign mirror", 2, f"Update download host is not allowed: {places.FOREIGN_HOST}",
                arguments={"fallback": elsewhere})])
        self.assertEqual([], self.server.requests(), "a request was sent")

    def test_answers_queries_without_a_trace(self) -> None:
        version = {"version": places.deployment("QORVA_VERSION"), "build_id": places.deployment("QORVA_BUILD_ID"),
                   "channel": places.deployment("QORVA_CHANNEL"), "platform": "windows", "arch": "x64"}
        printed = json.dumps(version, separators=(",", ":")).encode() + b"\n"
        ask, handles = "--print-app-version-json", ["--observe", "4", "8", "12", "16"]
        scene = self.scene("queries")
        for arguments, output, exit_code, expected in (
                (["--target-dir=x", ask, "more"], "file", 0, printed), ([ask], "pipe", 0, printed),
                ([ask], "none", 0, b""), ([ask, *handles], "pipe", 0, printed),
                # Only the first argument selects the observer.
                (["--observe"], "pipe", 64, b""), (["--observe", ask], "pipe", 64, b""),
                (["--observe", "1", "2", "3", "x"], "pipe", 64, b""), (handles, "pipe", 65, b"")):
            with self.subTest(arguments=arguments, output=output):
                outcome = scene.run(arguments, output=output)
                self.assertEqual((exit_code, expected, []), (outcome.exit_code, outcome.output, outcome.dialogs))
                self.assert_nothing_outside(scene)
                self.assertEqual(([], [], [scene.updater.name]), (  # there is no log
                    scene.running(), os.listdir(scene.temp), os.listdir(scene.updater.parent)))


class ByHand(e2e.EndToEnd):
    """Without arguments. Runs alone: the updater searches the desktop for the application's window."""

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

    def test_starts_the_application(self) -> None:
        scene = self.scene("start")
        folder = scene.updater.parent / "with a blank"
        packages.write_tree(folder, {**self.installed, scene.updater.name: scene.updater.read_bytes()})
        outcome = scene.run([], program=folder / scene.updater.name)
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        path = scene.windows(folder / packages.APPLICATION)
        self.assertEqual([], programs.missing_marks(
            folder, f'start 1.0.0 {packages.APPLICATION} "{path}" --show-update-status', "window "))
        self.assert_nothing_outside(scene)
