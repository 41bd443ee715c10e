"""What every end-to-end run has in common: one prefix and one server, a scene of its own for each
run, and the promises that hold however a run ends.

`./check` runs everything through ctest. By hand, after a build of the windows preset:

    python3 tests/rig/test_origins.py Origins.test_updates_from_the_mirror
    python3 tests/rig/sandbox.py stop
"""

import os
import re
import unittest
from dataclasses import dataclass, field

import certificates
import packages
import places
import programs
import trace_log
from https_server import HttpsServer, Reply
from sandbox import Sandbox
from updater_run import Outcome, Scene

PACKAGE = "update_package.zip"
PREPARED = ["updater_run_start"]
FETCHED = ["download_start", "download_redirect_resolution", "download_complete"]
NOT_FETCHED = ["download_start", "download_fail"]
VERIFIED = ["checksum_verify", "checksum_verify"]
SELECTED = [*PREPARED, *FETCHED, *VERIFIED, "download_selected"]
EXTRACTED = ["extract_start", "extract_ok"]
RETIRED = ["retired_install_executable_removed"] * 3
SUCCESS = [*trace_log.CHAIN_BEFORE_REMOVALS, *RETIRED, *trace_log.CHAIN_AFTER_REMOVALS]

# What diagnostics may leave, and nothing else: the log beside the updater, and in the user's profile
# one report for each run that failed.
LOG = re.compile(r"logs/qorva_updater_\d{8}\.log")
REPORT = re.compile(r"QORVA/crashes/pending_reports/qorva_updater_error_\d{8}_\d{6}_\d+\.json")

Text = str | re.Pattern


@dataclass
class Failure:
    """A run that has to end with exit code 2 and leave the installation as it was."""

    name: str
    message: Text
    events: list[str]
    primary: Reply | None = None  # None: the good package
    mirror: Reply | None = None  # None: the request names no mirror
    package: bytes | None = None  # served by the primary with its true digest
    arguments: dict = field(default_factory=dict)  # of Scene.arguments, to override
    details: dict[str, dict[str, str]] = field(default_factory=dict)  # event: fields, last one of it
    kept: tuple[str, ...] = ()  # what the workspace holds afterwards, one level


class EndToEnd(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.sandbox = Sandbox().start()
        cls.addClassCleanup(cls.sandbox.leave)
        cls.application = programs.TEST_APPLICATION_1.read_bytes()
        cls.installed = packages.installed_tree(cls.application)
        cls.payload = packages.package_tree(programs.TEST_APPLICATION_2.read_bytes())
        cls.good_package = packages.zip_of(cls.payload)
        cls.server = HttpsServer(certificates.make_authority("trusted"),
                                 certificates.make_authority("stranger"))
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
        files = {}
        users = self.sandbox.drive_c / "users"
        for top in (*self.sandbox.drive_c.iterdir(), *users.iterdir()):
            if top.is_dir() and top.name not in ("windows", "rig", "users") and top.name[:4] != "rig-":
                files |= {f"{top.name}/{path}": digest for path, digest in packages.snapshot(top).items()}
        files |= {path.name: "" for path in self.sandbox.drive_c.iterdir()}
        files |= {f"scene/{path.name}": "" for path in scene.folder.iterdir()}
        return files

    def serve(self, scene: Scene, host: str, reply: Reply, path: str = "package.zip") -> str:
        return self.server.on(host, f"/{scene.folder.name}/{path}", reply)

    # -- what has to hold

    def assert_text(self, expected: Text, seen: str) -> None:
        if isinstance(expected, re.Pattern):
            self.assertRegex(seen, re.compile(rf"\A(?:{expected.pattern})\Z", expected.flags))
        else:
            self.assertEqual(expected, seen)

    def assert_dialog(self, outcome: Outcome, text: Text, icon: str = "error",
                      buttons: tuple[str, ...] = ("ok",)) -> None:
        self.assertEqual(1, len(outcome.dialogs), outcome.dialogs)
        (dialog,) = outcome.dialogs
        self.assert_text(text, dialog.text)
        self.assertEqual(buttons, dialog.buttons)
        self.assertIn(dialog.icon, (icon, "unknown"))  # the box of another run may cover it

    def assert_trace(self, scene: Scene, outcome: Outcome, events: list[str]) -> None:
        seen = [name for name in trace_log.names(outcome.trace) if name != "download_progress"]
        self.assertEqual(events, seen)
        self.assertEqual([], trace_log.faults(scene.trace_path))

    def assert_details(self, outcome: Outcome, details: dict[str, dict[str, str]]) -> None:
        """The last event of each name carries at least these fields."""
        for name, fields in details.items():
            event = [event for event in outcome.trace if event["stage"] == name][-1]
            self.assertEqual(fields, {key: event.get(key) for key in fields}, name)

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
        config = {str(scene.trace_path.relative_to(scene.config))} if scene.trace_path.exists() else set()
        self.assertEqual(config, set(packages.snapshot(scene.config)))
        left = packages.snapshot(scene.roaming)
        self.assertEqual([], [path for path in left if not REPORT.fullmatch(path)])
        self.assertEqual(scene.failures, len(left), left)

    def assert_workspace(self, scene: Scene, kept: tuple[str, ...]) -> None:
        """One workspace with exactly these entries."""
        self.assertEqual(1, len(os.listdir(scene.temp)), os.listdir(scene.temp))
        (workspace,) = scene.workspaces()
        self.assertEqual(sorted(kept), sorted(os.listdir(workspace)))

    def assert_no_workspace(self, scene: Scene) -> None:
        self.assertEqual([], os.listdir(scene.temp))

    def assert_updated(self, scene: Scene, outcome: Outcome, payload: packages.Tree | None = None,
                       ) -> None:
        """Exit code 0, the new files, and the application up as version 2."""
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_marks(scene, *programs.marks_of_start(2))
        self.assert_installed(scene, packages.updated_tree(self.installed, payload or self.payload))
        self.assert_no_workspace(scene)
        self.assert_nothing_outside(scene)

    def check_failure(self, case: Failure) -> None:
        scene = self.scene(case.name)
        package = self.good_package if case.package is None else case.package
        primary = case.primary or Reply(body=package)
        request = {"url": self.serve(scene, places.PRIMARY_HOST, primary),
                   "sha256": packages.sha256_of(package)}
        if case.mirror:
            request["fallback"] = self.serve(scene, places.MIRROR_HOST, case.mirror)
        outcome = scene.run(scene.arguments(**{**request, **case.arguments}))
        self.assertEqual(2, outcome.exit_code, outcome.dialogs)
        self.assert_dialog(outcome, case.message)
        self.assert_trace(scene, outcome, case.events)
        self.assert_details(outcome, case.details)
        self.assert_installed(scene, self.installed)
        self.assert_workspace(scene, case.kept)
        self.assert_nothing_outside(scene)
        self.assertEqual([], scene.running())

    def check_failures(self, cases: list[Failure]) -> None:
        for case in cases:
            with self.subTest(case.name):
                self.check_failure(case)
