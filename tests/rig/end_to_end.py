"""What every end-to-end run has in common: one prefix and one server, a scene of its own for each
run, a record of what the run is and what it must leave, and the promises that hold however it ends.

`./check` runs everything through ctest. By hand, after a build of the windows preset:

    python3 tests/rig/test_origins.py Origins.test_updates
    python3 tests/rig/sandbox.py stop
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

# What diagnostics may leave, and nothing else: the log beside the updater, and in the user's profile
# one report for each run that failed.
LOG = re.compile(r"logs/qorva_updater_\d{8}\.log")


def apply_box(error: str) -> str:
    """The box that offers the installer after a failed apply."""
    return ("Automatic update failed during apply stage.\n\nCannot apply update safely: " + error +
            "\n\nDownload and run the current QORVA installer from:\n" + PAGE +
            "\n\nUse Yes to open the download page now, No to copy the link to clipboard.")


@dataclass
class Run:
    """One run and what it must leave. In texts <install>, <temp>, <work> and <helper> stand for the
    scene's folders, and for the system's own words and WinHTTP's codes a letter."""

    name: str
    code: int = 0  # 0: version 2 is up and its files are there; else the installation is as it was
    message: str = ""  # of its box, with one button unless `buttons` says more
    events: list[str] | None = None  # of the trace, all but progress; None: there is no trace
    primary: Reply | None = None  # None: the good package
    mirror: Reply | None = None  # None: the request names no mirror
    package: bytes | None = None  # served by the primary with its true digest
    query: str = ""  # of both URLs
    arguments: dict = field(default_factory=dict)  # of Scene.arguments, to override
    more: tuple[str, ...] = ()  # switches
    button: str = "cancel"
    buttons: tuple[str, ...] = ("ok",)
    icon: str = "error"
    details: dict[str, dict[str, str]] = field(default_factory=dict)  # event: fields, last one of it
    kept: tuple[str, ...] | None = None  # what the one workspace holds, one level; None: there is none
    payload: packages.Tree | None = None  # of the package, if not the usual one
    tree: packages.Tree | None = None  # the installation afterwards, where it is neither


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
        """A scene with version 1 installed, gone again at the end of the test."""
        # The name also stands in URLs, so it has no blanks.
        scene = Scene(self.sandbox, f"{type(self).__name__}-{name}".replace(" ", "-"))
        self.addCleanup(scene.clear)
        packages.write_tree(scene.install, self.installed)
        scene.outside = self.files_outside(scene)
        return scene

    def files_outside(self, scene: Scene) -> dict[str, str]:
        """Every file of drive C: that no run may touch: not those of Wine's own folder, nor those of
        scenes, which have folders and users of their own."""
        drive = self.sandbox.drive_c
        files = {str(path): "" for path in (*drive.iterdir(), *scene.folder.iterdir())}
        for top in (*drive.iterdir(), *(drive / "users").iterdir()):
            if top.is_dir() and top.name not in ("windows", "rig", "users") and top.name[:4] != "rig-":
                files |= {f"{top.name}/{path}": digest for path, digest in packages.snapshot(top).items()}
        return files

    def mount_small_disk(self, folder: Path, room_kib: int) -> None:
        """Puts a folder on a disk of its own, with so much room beside what stands in it."""
        content = {path: path.read_bytes() for path in folder.rglob("*") if path.is_file()}
        size_kib = room_kib + sum((len(data) + 4095) // 4096 * 4 for data in content.values())
        if subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size_kib}k", "rig-small", folder],
                          capture_output=True).returncode != 0:
            self.skipTest("no small file system can be mounted here")
        self.addCleanup(subprocess.run, ["umount", "-l", folder], capture_output=True)
        packages.write_tree(folder, {str(path.relative_to(folder)): data for path, data in content.items()})

    def serve(self, scene: Scene, host: str, reply: Reply, path: str = "package.zip") -> str:
        return self.server.on(host, f"/{scene.folder.name}/{path}", reply)

    # -- runs

    def begin(self, scene: Scene, case: Run, **options) -> UpdaterRun:
        package = self.good_package if case.package is None else case.package
        primary = case.primary or Reply(body=package)
        request = {"url": self.serve(scene, places.PRIMARY_HOST, primary) + case.query,
                   "sha256": packages.sha256_of(package)}
        if case.mirror:
            request["fallback"] = self.serve(scene, places.MIRROR_HOST, case.mirror) + case.query
        arguments = scene.arguments(**{**request, **case.arguments})
        return scene.begin([*arguments, *case.more], button=case.button, **options)

    def check(self, case: Run, scene: Scene | None = None, **options) -> tuple[Scene, Outcome]:
        scene = scene or self.scene(case.name)
        outcome = self.begin(scene, case, **options).finish()
        self.verify(scene, outcome, case)
        return scene, outcome

    def check_all(self, *cases: Run) -> None:
        for case in cases:
            with self.subTest(case.name):
                self.check(case)

    def wait_for(self, run: UpdaterRun, reached: Callable[[], bool]) -> None:
        """Until something has come about while a run is at work."""
        while not reached():
            self.assertTrue(run.running(), "the run ended too early")
            time.sleep(0.005)

    # -- what has to hold

    def verify(self, scene: Scene, outcome: Outcome, case: Run) -> None:
        self.assertEqual(case.code, outcome.exit_code, (outcome.dialogs, outcome.trace[-1:]))
        self.assert_boxes(scene, outcome, *([(case.message, case.icon, case.buttons)] if case.message else []))
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
        """A text without what differs from run to run."""
        for folder, name in ((scene.install, "<install>"), (scene.temp, "<temp>")):
            text = text.replace(scene.windows(folder), name)
        text = re.sub(r"<temp>\\(qorva_updater|zul_updater_launch)_[\d_]+",
                      lambda found: "<work>" if found[1] == "qorva_updater" else "<helper>", text)
        return re.sub(r"(\(code=|available )\d+", r"\1N", re.sub(r"message='[^']+'", "message='M'", text))

    def assert_boxes(self, scene: Scene, outcome: Outcome, *boxes: tuple[str, str, tuple[str, ...]]) -> None:
        """The text, icon and buttons of each; an icon may be covered by the box of another run."""
        seen = [(self.plain(scene, dialog.text), icon if dialog.icon == "unknown" else dialog.icon, dialog.buttons)
                for dialog, (_, icon, _) in zip(outcome.dialogs, boxes)]
        self.assertEqual((list(boxes), len(boxes)), (seen, len(outcome.dialogs)))

    def assert_trace(self, scene: Scene, outcome: Outcome, events: list[str]) -> None:
        seen = [name for name in trace_log.names(outcome.trace) if name != "download_progress"]
        self.assertEqual(events, seen)
        self.assertEqual([], trace_log.faults(scene.trace_path))

    def assert_details(self, scene: Scene, outcome: Outcome, details: dict[str, dict[str, str]]) -> None:
        """The last event of each name carries at least these fields."""
        for name, fields in details.items():
            event = [event for event in outcome.trace if event["stage"] == name][-1]
            self.assertEqual(fields, {key: self.plain(scene, event.get(key, "")) for key in fields}, name)

    def assert_installed(self, scene: Scene, tree: packages.Tree) -> None:
        """The installation, apart from what the application itself wrote, byte for byte."""
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
