"""The base of all end-to-end tests. They share one Wine prefix and one server, and each run has a scene
of its own. The record `Run` describes a run and its expected result; some promises are checked after
every run.

`./check` runs everything through ctest. By hand, after a build of the windows preset:

    export PYTHONPATH=tools:tests/rig
    python3 -m unittest test_origins.Origins.test_updates
    python3 -m rig.sandbox stop
"""

import os
import re
import subprocess
import time
import unittest
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

from rig import certificates, packages, places, programs, trace_log
from rig.https_server import HttpsServer, Reply
from rig.sandbox import Sandbox
from rig.updater_run import REPORT, Outcome, Scene, UpdaterRun

PACKAGE = "update_package.zip"
STAGED = (PACKAGE, "stage")
PAGE = places.deployment("QORVA_PAGE_URL")
BUTTONS = ("yes", "no", "cancel")

# Beginnings of a trace, without download_progress.
PREPARED = ["updater_run_start"]
FETCHED = [*PREPARED, "download_start", "download_redirect_resolution", "download_complete",
           "checksum_verify", "checksum_verify"]
NOT_FETCHED = [*PREPARED, "download_start", "download_fail", "download_primary_fail"]
BROKEN_OFF = [*PREPARED, "download_start", "download_redirect_resolution", "download_fail",
              "download_primary_fail"]
SELECTED = [*FETCHED, "download_selected"]
EXTRACTED = [*SELECTED, "extract_start", "extract_ok", "apply_start"]
NOT_EXTRACTED = [*SELECTED, "extract_start", "extract_fail"]
RETIRED = ["retired_install_executable_removed"] * 3
SUCCESS = [*trace_log.CHAIN_BEFORE_REMOVALS, *RETIRED, *trace_log.CHAIN_AFTER_REMOVALS]

# Diagnostics may leave the log beside the updater, and in the user's profile one REPORT for each failed run.
LOG = re.compile(r"logs/qorva_updater_\d{8}\.log")


def apply_box(error: str) -> str:
    """The text of the box that offers the installer after a failed apply."""
    return ("Automatic update failed during apply stage.\n\nCannot apply update safely: " + error +
            "\n\nDownload and run the current QORVA installer from:\n" + PAGE +
            "\n\nUse Yes to open the download page now, No to copy the link to clipboard.")


@dataclass
class Run:
    """A run and its expected result. In expected texts <install>, <temp>, <work> and <helper> stand for
    the scene's folders, M for a message of the system and N for a number that differs between runs."""

    name: str
    code: int = 0  # 0: version 2 is installed and runs; else the installation is unchanged
    message: str = ""  # of the message box; empty: there is no box
    events: list[str] | None = None  # of the trace, without download_progress; None: there is no trace
    primary: Reply | None = None  # None: the package
    mirror: Reply | None = None  # None: the request names no mirror
    package: bytes | None = None  # None: the good package; the request has the digest of this package
    query: str = ""  # appended to both URLs
    arguments: dict = field(default_factory=dict)  # override those of Scene.arguments
    more: tuple[str, ...] = ()  # further switches
    button: str = "cancel"  # to press in the box
    buttons: tuple[str, ...] = ("ok",)  # that the box has
    icon: str = "error"
    details: dict[str, dict[str, str]] = field(default_factory=dict)  # fields of the last event of this name
    kept: tuple[str, ...] | None = None  # top-level names in the workspace; None: no workspace is left
    payload: packages.Tree | None = None  # None: that of the good package
    tree: packages.Tree | None = None  # the installation afterwards, when `code` does not say it


class EndToEnd(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.sandbox = Sandbox().start()
        cls.addClassCleanup(cls.sandbox.leave)
        cls.installed = packages.installed_tree(programs.TEST_APPLICATION_1.read_bytes())
        cls.payload = packages.package_tree(programs.TEST_APPLICATION_2.read_bytes())
        cls.good_package = packages.zip_of(cls.payload)
        cls.server = HttpsServer(certificates.make_authority("trusted"), certificates.make_authority("stranger"))
        cls.addClassCleanup(cls.server.__exit__)

    def scene(self, name: str) -> Scene:
        """A scene with version 1 installed. The end of the test removes it."""
        # The name is also a part of URLs, so it has no blanks.
        scene = Scene(self.sandbox, f"{type(self).__name__}-{name}".replace(" ", "-"))
        self.addCleanup(scene.clear)
        packages.write_tree(scene.install, self.installed)
        scene.outside = self.files_outside(scene)
        return scene

    def files_outside(self, scene: Scene) -> dict[str, str]:
        """Every file of drive C that no run may change: all but those of the system folder and of scenes
        and their users."""
        drive = self.sandbox.drive_c
        files = {str(path): "" for path in (*drive.iterdir(), *scene.folder.iterdir())}
        for top in (*drive.iterdir(), *(drive / "users").iterdir()):
            if top.is_dir() and top.name not in ("windows", "rig", "users") and top.name[:4] != "rig-":
                files |= {f"{top.name}/{path}": digest for path, digest in packages.snapshot(top).items()}
        return files

    def mount_small_disk(self, folder: Path, room_kib: int) -> None:
        """Mounts a small disk over a folder, copies its content and leaves `room_kib` KiB free."""
        content = {path: path.read_bytes() for path in folder.rglob("*") if path.is_file()}
        size_kib = room_kib + sum((len(data) + 4095) // 4096 * 4 for data in content.values())
        if subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size_kib}k", "rig-small", folder],
                          capture_output=True).returncode != 0:
            self.skipTest("no small file system can be mounted here")
        self.addCleanup(subprocess.run, ["umount", "-l", folder], capture_output=True)
        packages.write_tree(folder, {str(path.relative_to(folder)): data for path, data in content.items()})

    def serve(self, scene: Scene, host: str, reply: Reply) -> str:
        return self.server.on(host, f"/{scene.folder.name}/package.zip", reply)

    # -- runs

    def begin(self, scene: Scene, case: Run, **options) -> UpdaterRun:
        """Starts the run; `options` are those of UpdaterRun."""
        package = self.good_package if case.package is None else case.package
        primary = case.primary or Reply(body=package)
        request = {"url": self.serve(scene, places.PRIMARY_HOST, primary) + case.query,
                   "sha256": packages.sha256_of(package)}
        if case.mirror:
            request["fallback"] = self.serve(scene, places.MIRROR_HOST, case.mirror) + case.query
        arguments = scene.arguments(**{**request, **case.arguments})
        return scene.begin([*arguments, *case.more], button=case.button, **options)

    def check(self, case: Run, scene: Scene | None = None, **options) -> tuple[Scene, Outcome]:
        """Does the run, in a new scene unless one is given, and checks its result."""
        scene = scene or self.scene(case.name)
        outcome = self.begin(scene, case, **options).finish()
        self.verify(scene, outcome, case)
        return scene, outcome

    def check_all(self, cases: list[Run]) -> None:
        for case in cases:
            with self.subTest(case.name):
                self.check(case)

    def wait_for(self, run: UpdaterRun, reached: Callable[[], bool]) -> None:
        """Waits for a condition that must become true while the run lasts."""
        while not reached():
            self.assertTrue(run.running(), "the run ended too early")
            time.sleep(0.005)

    def wait_until(self, reached: Callable[[], bool]) -> None:
        """Waits for a condition that must become true within a minute."""
        end = time.monotonic() + 60
        while not reached():
            self.assertLess(time.monotonic(), end, "it did not happen")
            time.sleep(0.01)

    # -- expectations

    def verify(self, scene: Scene, outcome: Outcome, case: Run) -> None:
        self.assertEqual(case.code, outcome.exit_code, (outcome.dialogs, outcome.trace[-1:]))
        self.assert_boxes(scene, outcome, [(case.message, case.icon, case.buttons)] if case.message else [])
        if case.events is None:
            self.assertFalse(scene.trace_path.exists())
        else:
            self.assert_trace(scene, outcome, case.events)
        self.assert_details(scene, outcome, case.details)
        if case.code == 0:
            self.assert_marks(scene, *programs.marks_of_start(2))
        updated = packages.updated_tree(self.installed, case.payload or self.payload)
        self.assert_installed(scene, case.tree or (self.installed if case.code else updated))
        self.assertEqual([] if case.kept is None else [sorted(case.kept)],
                         [sorted(os.listdir(workspace)) for workspace in scene.temp.glob("*")])
        self.assert_nothing_outside(scene)

    def plain(self, scene: Scene, text: str) -> str:
        """The text with names for everything that differs between runs."""
        for folder, name in ((scene.install, "<install>"), (scene.temp, "<temp>")):
            text = text.replace(scene.windows(folder), name)
        for pattern, name in ((r"<temp>\\qorva_updater_\d+", "<work>"),
                              (r"<temp>\\zul_updater_launch_\d+_\d+", "<helper>"),
                              (r"message='[^']+'", "message='M'"),
                              (r"(\(code=|available |for the update: )\d+", r"\1N")):
            text = re.sub(pattern, name, text)
        return text

    def assert_boxes(self, scene: Scene, outcome: Outcome, boxes: list[tuple[str, str, tuple[str, ...]]]) -> None:
        """Expects boxes with these texts, icons and buttons. The icon may be covered by another window."""
        seen = [(self.plain(scene, dialog.text), dialog.buttons) for dialog in outcome.dialogs]
        self.assertEqual([(text, buttons) for text, _, buttons in boxes], seen)
        for dialog, (_, icon, _) in zip(outcome.dialogs, boxes):
            self.assertIn(dialog.icon, (icon, "unknown"))

    def assert_trace(self, scene: Scene, outcome: Outcome, events: list[str]) -> None:
        seen = [name for name in trace_log.names(outcome.trace) if name != "download_progress"]
        self.assertEqual(events, seen)
        self.assertEqual([], trace_log.faults(scene.trace_path))

    def assert_details(self, scene: Scene, outcome: Outcome, details: dict[str, dict[str, str]]) -> None:
        """Expects these fields, and perhaps others, in the last event of each name."""
        for name, fields in details.items():
            event = [event for event in outcome.trace if event["stage"] == name][-1]
            self.assertEqual(fields, {key: self.plain(scene, event.get(key, "")) for key in fields}, name)

    def assert_installed(self, scene: Scene, tree: packages.Tree) -> None:
        """Expects these files in the installation, besides those that the application and the log wrote."""
        files = packages.snapshot(scene.install)
        files.pop(programs.MARK, None)
        if scene.started_inside:
            files = {path: digest for path, digest in files.items() if not LOG.fullmatch(path)}
        self.assertEqual(packages.digests(tree), files)

    def assert_marks(self, scene: Scene, *marks: str) -> None:
        self.assertEqual([], programs.missing_marks(scene.install, *marks))

    def assert_nothing_outside(self, scene: Scene) -> None:
        self.assertEqual(scene.outside, self.files_outside(scene))
        config = [str(scene.trace_path.relative_to(scene.config))] if scene.trace_path.exists() else []
        self.assertEqual(config, list(packages.snapshot(scene.config)))
        left = packages.snapshot(scene.roaming)
        self.assertEqual([], [path for path in left if not REPORT.fullmatch(path)])
        self.assertEqual(scene.failures, len(left), left)
