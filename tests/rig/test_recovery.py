"""The evidence of processes that died, the reports that the next failing runs make of it, and a disk that
is full."""

import json
import os
import subprocess
from pathlib import Path

import end_to_end as e2e
from end_to_end import Run
from rig import packages, programs
from rig.https_server import Reply
from rig.updater_run import INSTALL_FOLDER, Scene, UpdaterRun

FAILING = Run("failing", 2, "Update download failed: Update download HTTP status 404", primary=Reply(status=404))


class Recovery(e2e.EndToEnd):
    def kinds(self, scene: Scene) -> list[str]:
        return sorted(json.loads(file.read_text("utf-8"))["kind"] for file in scene.reports.glob("*.json"))

    def evidence(self, scene: Scene) -> list[Path]:
        return list((scene.crashes / "compact_process").glob("process_*"))

    def sessions(self, scene: Scene) -> list[Path]:
        return list((scene.crashes / "session_state").glob("active_*.json"))

    def begin_failed(self, scene: Scene) -> UpdaterRun:
        """A run that has failed and shows its box, which remains on the screen."""
        before = len(self.sessions(scene))
        run = self.begin(scene, FAILING, dialogs=False)
        self.wait_for(run, lambda: len(self.sessions(scene)) > before)
        return run

    def begin_waiting(self, scene: Scene) -> tuple[UpdaterRun, UpdaterRun]:
        """The application, and an update that waits for the application's end."""
        application = scene.begin([], program=scene.install / packages.APPLICATION, dialogs=False)
        run = self.begin(scene, Run("", arguments={"pid": application.pid}))
        self.wait_for(run, lambda: scene.traced("extract_ok"))
        return application, run

    def test_four_processes_make_one_report_of_each_piece_of_evidence(self) -> None:
        scene = self.scene("four")
        dead = [self.begin_failed(scene) for _ in range(3)]
        for program in scene.running():
            if " --observe " not in program.command:
                program.end()
        for run in dead:
            run.finish()
        (scene.crashes / "qorva_crash_1.dmp").write_bytes(b"MDMP")
        sessions = scene.crashes / "session_state"
        (sessions / "active_1_broken.json").write_text("{")
        self.assertEqual((3, 4, ["updater_error"] * 3),
                         (len(self.evidence(scene)), len(self.sessions(scene)), self.kinds(scene)))
        four = [self.begin(scene, FAILING) for _ in range(4)]
        self.assertEqual([2] * 4, [run.finish().exit_code for run in four])
        self.assertEqual(["crash"] + ["unexpected_exit"] * 6 + ["updater_error"] * 7, self.kinds(scene))
        self.assertEqual(["active_1_broken.json.invalid"], os.listdir(sessions))
        self.assertEqual([], self.evidence(scene))
        for report in scene.reports.glob("compact_process_*.json"):
            content = json.loads(report.read_text("utf-8"))
            self.assertEqual(("process_exit_cause_unclassified", "abrupt_exit_same_host_boot"),
                             (content["compact_process_evidence"]["event"],
                              content["previous_session_forensics"]["classification"]))

    def test_evidence_of_a_living_run_stays(self) -> None:
        scene = self.scene("living")
        living = self.begin_failed(scene)
        before = self.sessions(scene)[0].read_bytes()
        self.begin(scene, FAILING).finish()
        self.assertEqual(["updater_error"] * 2, self.kinds(scene))
        self.assertEqual([before], [session.read_bytes() for session in self.sessions(scene)])
        self.assertEqual((1, True), (len(self.evidence(scene)), living.running()))

    def test_a_disk_that_fills_up_changes_no_outcome(self) -> None:
        scene = self.scene("full")
        disk = scene.roaming / "QORVA"
        disk.mkdir()
        self.mount_small_disk(disk, 4096)
        application, run = self.begin_waiting(scene)
        subprocess.run(["sh", "-c", f"cat /dev/zero > '{disk}/filler'"], capture_output=True)
        programs.close_application(self.sandbox, application.pid)
        outcome = run.finish()
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_installed(scene, packages.updated_tree(self.installed, self.payload))
        failed = self.begin(scene, FAILING).finish()
        self.assertEqual(2, failed.exit_code)
        self.assert_boxes(scene, failed, [(FAILING.message, "error", ("ok",))])
        (log,) = (scene.updater.parent / "logs").iterdir()
        self.assertIn("Diagnostics session checkpoint start failed: write failed", log.read_text("utf-8"))

    def crash_in_an_update(self, name: str) -> tuple[Scene, dict]:
        """Crashes a run that waits for the application. Returns what its observer has written."""
        scene = self.scene(name)
        _, run = self.begin_waiting(scene)
        programs.tool(self.sandbox, "crash", str(run.pid))
        self.assertEqual(0xC0000005, run.finish().exit_code)
        self.wait_until(lambda: not any(" --observe " in program.command for program in scene.running()))
        (session,) = self.evidence(scene)
        return scene, json.loads((session / "incident.json").read_text("utf-8"))

    def test_the_next_start_reports_a_crash_in_an_update(self) -> None:
        for attempt in range(4):
            scene, incident = self.crash_in_an_update(f"crash{attempt}")
            # Under Wine a capture also reads libraries of the host, so on a busy machine it may time out.
            if incident["capture_status"] != "collecting_stack":
                break
        known = {"event": "native_exception", "capture_status": "complete", "finalized": True,
                 "clean_shutdown_intent": False, "exception_code": 0xC0000005, "exit_code": 0xC0000005}
        self.assertEqual(known, {key: incident.get(key) for key in known})
        self.assert_installed(scene, self.installed)
        first, *others = incident["frames"]
        self.assertEqual(("ntdll.dll", True), (first["module"], all(frame["module_resolved"] for frame in others)))
        (session,) = self.evidence(scene)
        self.assertEqual(1264, (session / "emergency.bin").stat().st_size)
        for private in (INSTALL_FOLDER, scene.folder.name, scene.user, "package.zip", "AppData"):
            for encoding in ("utf-8", "utf-16-le"):
                for file in session.iterdir():
                    self.assertNotIn(private.encode(encoding), file.read_bytes(), file.name)
        self.begin(scene, FAILING).finish()
        self.assertEqual((["crash", "updater_error"], []), (self.kinds(scene), self.evidence(scene)))
        (report,) = scene.reports.glob("compact_process_*.json")
        reported = json.loads(report.read_text("utf-8"))["compact_process_evidence"]
        self.assertEqual(incident["frames"], reported["frames"])
