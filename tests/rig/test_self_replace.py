"""The updater is started from the folder that it must update: a copy in the temporary folder takes over
and replaces the installed updater like any other file."""

import json
import os
import re
import shutil
import time
from pathlib import Path

import end_to_end as e2e
from end_to_end import Run
from rig import certificates, packages, places, programs, trace_log
from rig.https_server import Reply
from rig.updater_run import Outcome, Scene

UPDATER = "qorva_updater.exe"
HANDOVER = ["relaunch_installed_helper_from_target_root", "launch_isolated_updater_helper"]
PROOF = ".qorva_update_restart_proof.json"
DAY = 24 * 3600


class FromInside(e2e.EndToEnd):
    """Runs of an installed updater. The package has another updater, and its binaries are signed."""

    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        cls.installed = {**cls.installed, UPDATER: places.UPDATER.read_bytes()}
        cls.payload.pop("color_engine.dll")
        sign = certificates.make_authority("trusted").sign
        cls.payload[UPDATER] = sign(cls.installed[UPDATER])
        cls.payload[packages.APPLICATION] = sign(cls.payload[packages.APPLICATION])
        cls.good_package = packages.zip_of(cls.payload)

    def hand_over(self, scene: Scene, case: Run, meanwhile=lambda: None, **options) -> Outcome:
        """The outcome of the installed updater, with the trace of both processes."""
        run = self.begin(scene, case, program=scene.install / UPDATER, **options)
        meanwhile()
        outcome = run.finish()
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.wait_until(lambda: not any(re.search(r"zul_updater\.exe|--observe", program.command)
                                        for program in scene.running()))
        outcome.trace = trace_log.read(scene.trace_path)
        return outcome

    def helper_folder(self, scene: Scene, outcome: Outcome) -> Path:
        (event,) = (event for event in outcome.trace if event["stage"] == HANDOVER[1])
        return scene.temp / event["runtime_dir"].removeprefix(scene.windows(scene.temp) + "\\")


class SelfReplace(FromInside):
    def test_a_copy_outside_replaces_the_installed_updater(self) -> None:
        scene = self.scene("inside")
        libraries = {"vcruntime140.dll": b"the application's", "z.dll": b"another of its"}
        packages.write_tree(scene.install, libraries)
        old_entries = (  # name, age in days, is a folder, remains
            ("zul_updater_launch_1_1", 8, True, False), ("zul_updater_launch_2_1", 6, True, True),
            ("zul_updater_launch_3_1", 8, False, True), ("zul_updater_launc", 8, True, True),
            ("my_zul_updater_launch_4_1", 8, True, True), ("qorva_updater_5", 8, True, True))
        for name, days, is_folder, _ in old_entries:
            packages.write_tree(scene.temp, {f"{name}/zul_updater.exe" if is_folder else name: b"old"})
            os.utime(scene.temp / name, (time.time() - days * DAY,) * 2)

        outcome = self.hand_over(scene, Run("", arguments={"required": (packages.APPLICATION, UPDATER)}))
        self.assert_trace(scene, outcome, [*HANDOVER, *e2e.SUCCESS])
        helper = self.helper_folder(scene, outcome)
        installed = {"installed_helper": f"<install>\\{UPDATER}"}
        self.assert_details(scene, outcome, {
            HANDOVER[0]: {**installed, "target_dir": "<install>",
                          "restart_exe": f"<install>\\{packages.APPLICATION}"},
            HANDOVER[1]: {**installed, "copied_runtime_dlls": "2",
                          "isolated_helper": "<helper>\\zul_updater.exe"}})
        self.assert_marks(scene, *programs.marks_of_start(2))
        self.assert_installed(scene, packages.updated_tree({**self.installed, **libraries}, self.payload))
        self.assertRegex(helper.name, r"^zul_updater_launch_\d+_\d+$")
        self.assertEqual(packages.digests({"zul_updater.exe": self.installed[UPDATER],
                                           UPDATER: self.installed[UPDATER], **libraries}),
                         {path: digest for path, digest in packages.snapshot(helper).items()
                          if not path.startswith("logs/")})
        self.assertEqual(sorted([helper.name, *(name for name, _, _, remains in old_entries if remains)]),
                         sorted(os.listdir(scene.temp)))
        self.assert_nothing_outside(scene)

    def test_the_copy_gets_the_whole_request(self) -> None:
        # Another spelling of the updater's own folder.
        scene = self.scene("headless")
        outcome = self.hand_over(scene, Run(
            "", primary=Reply(status=503), mirror=Reply(body=self.good_package),
            arguments={"target": scene.windows(scene.install).upper() + "\\."},
            more=("--headless-restart-version-proof=1", "--require-signed-payload-binaries=1")))
        names = trace_log.names(outcome.trace)
        self.assertEqual(HANDOVER, names[:2])
        self.assertIn("download_fallback_ok", names)
        self.assert_details(scene, outcome, {
            "payload_binary_signature_validate": {"checked_pe_files": "2"},
            "restart_ok": {"restart_exe": f"<install>\\{packages.APPLICATION}"},
            "restart_start": {"restart_mode": "headless_version_proof"}})
        self.assert_marks(scene, "start 2.0.0 qorva_gui.exe ", "proof ")
        self.assertEqual("2.0.0", json.loads((scene.install / PROOF).read_bytes())["version"])
        (scene.install / PROOF).unlink()
        self.assert_installed(scene, packages.updated_tree(self.installed, self.payload))
        self.assertEqual([self.helper_folder(scene, outcome).name], os.listdir(scene.temp))

    def test_reports_why_no_copy_takes_over(self) -> None:
        for program, changes, case in (
            (UPDATER, {}, Run("no folder", 2, "Cannot create temporary updater helper directory.", HANDOVER[:1])),
            ("zul_updater.exe", {UPDATER: packages.noise(5_000, "no program")}, Run(
                "no program", 2, "Cannot launch isolated updater helper process: helper='<helper>\\zul_updater.exe', "
                "runtime_dir='<helper>'.", HANDOVER, kept=("qorva_updater.exe", "zul_updater.exe"))),
        ):
            with self.subTest(case.name):
                scene = self.scene(case.name)
                case.tree = {**self.installed, program: self.installed[UPDATER], **changes}
                packages.write_tree(scene.install, case.tree)
                if case.name == "no folder":
                    scene.temp.rmdir()
                    scene.temp.write_bytes(b"")
                outcome = self.begin(scene, case, program=scene.install / program).finish()
                if program != UPDATER:  # without an observer the evidence of the start remains
                    shutil.rmtree(scene.crashes / "compact_process")
                self.verify(scene, outcome, case)
                self.assertEqual([], scene.running())
