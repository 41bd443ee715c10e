"""What a run leaves that dies, what the next failing runs make of it, and runs whose disk is full."""

import json
import os
import subprocess
import time
import unittest

import end_to_end as e2e
import packages
import places
import programs
from https_server import Reply
from updater_run import INSTALL_FOLDER, Scene, UpdaterRun


class Recovery(e2e.EndToEnd):
    def failing(self, scene: Scene) -> list[str]:
        url = self.serve(scene, places.PRIMARY_HOST, Reply(status=404))
        return scene.arguments(url=url, sha256="0" * 64)

    def wait_until(self, condition) -> None:
        end = time.monotonic() + 30
        while not condition():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.01)

    def kinds(self, scene: Scene) -> list[str]:
        return sorted(json.loads(file.read_text("utf-8"))["kind"] for file in scene.reports.glob("*.json"))

    def begin_failed(self, scene: Scene) -> UpdaterRun:
        """A run that has failed and shows its box, which nobody presses."""
        sessions = scene.crashes / "session_state"
        before = set(sessions.glob("active_*.json"))
        run = scene.begin(self.failing(scene), dialogs=False)
        self.wait_until(lambda: set(sessions.glob("active_*.json")) - before)
        return run

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
                         (len(self.evidence(scene)), len(list(sessions.glob("*.json"))), self.kinds(scene)))
        four = [scene.begin(self.failing(scene)) for _ in range(4)]
        self.assertEqual([2] * 4, [run.finish().exit_code for run in four])
        self.assertEqual(["crash"] + ["unexpected_exit"] * 6 + ["updater_error"] * 7, self.kinds(scene))
        self.assertEqual(["active_1_broken.json.invalid"], os.listdir(sessions))
        self.assertEqual([], self.evidence(scene))
        for report in scene.reports.glob("compact_process_*.json"):
            known = json.loads(report.read_text("utf-8"))
            self.assertEqual("process_exit_cause_unclassified", known["compact_process_evidence"]["event"])
            self.assertEqual("abrupt_exit_same_host_boot",
                             known["previous_session_forensics"]["classification"])

    def test_evidence_of_a_living_run_stays(self) -> None:
        scene = self.scene("living")
        living = self.begin_failed(scene)
        (session,) = (scene.crashes / "session_state").glob("active_*.json")
        before = session.read_bytes()
        scene.run(self.failing(scene))
        self.assertEqual(["updater_error"] * 2, self.kinds(scene))
        self.assertEqual(before, session.read_bytes())
        self.assertEqual(1, len(self.evidence(scene)))
        self.assertTrue(living.running())

    def test_a_disk_that_fills_up_changes_no_outcome(self) -> None:
        scene = self.scene("full")
        disk = scene.roaming / "QORVA"
        disk.mkdir()
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4m", "rig-full", disk],
                          capture_output=True).returncode != 0:
            self.skipTest("no small file system can be mounted here")
        self.addCleanup(subprocess.run, ["umount", "-l", disk], capture_output=True)
        application = scene.begin([], program=scene.install / packages.APPLICATION)
        run = scene.begin(scene.arguments(
            url=self.serve(scene, places.PRIMARY_HOST, Reply(body=self.good_package), "good.zip"),
            sha256=packages.sha256_of(self.good_package), pid=application.pid))
        self.wait_until(lambda: scene.trace_path.exists() and "extract_ok" in scene.trace_path.read_text())
        self.fill(disk)
        programs.close_application(self.sandbox, application.pid)
        outcome = run.finish()
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_installed(scene, packages.updated_tree(self.installed, self.payload))
        failed = scene.run(self.failing(scene))
        self.assertEqual(2, failed.exit_code)
        self.assert_dialog(failed, "Update download failed: Update download HTTP status 404")
        (log,) = (scene.updater.parent / "logs").iterdir()
        self.assertIn("Diagnostics session checkpoint start failed: write failed", log.read_text("utf-8"))

    def crash_in_an_update(self, name: str) -> tuple[Scene, dict]:
        """Crashes a run that waits for the application; what its observer has written."""
        scene = self.scene(name)
        application = scene.begin([], program=scene.install / packages.APPLICATION)
        url = self.serve(scene, places.PRIMARY_HOST, Reply(body=self.good_package), "good.zip")
        run = scene.begin(scene.arguments(url=url, sha256=packages.sha256_of(self.good_package),
                                          pid=application.pid))
        self.wait_until(lambda: scene.trace_path.exists() and "extract_ok" in scene.trace_path.read_text())
        self.sandbox.run(self.sandbox.windows_path(programs.REMOTE_CRASH), "--pid", str(run.pid))
        self.assertEqual(0xC0000005, run.finish().exit_code)
        self.wait_until(lambda: not any(" --observe " in program.command for program in scene.running()))
        (session,) = self.evidence(scene)
        return scene, json.loads((session / "incident.json").read_text("utf-8"))

    def test_a_crash_in_the_middle_of_an_update_is_told_by_the_next_start(self) -> None:
        for attempt in range(4):
            scene, incident = self.crash_in_an_update(f"crash{attempt}")
            # Reading the host's libraries too, a capture under Wine may be cut off on a busy machine.
            if incident["capture_status"] != "collecting_stack":
                break
        known = {"event": "native_exception", "capture_status": "complete", "finalized": True,
                 "clean_shutdown_intent": False, "exception_code": 0xC0000005, "exit_code": 0xC0000005}
        self.assertEqual(known, {key: incident.get(key) for key in known})
        self.assert_installed(scene, self.installed)
        self.assertEqual(["ntdll.dll"] + [True] * (len(incident["frames"]) - 1),
                         [incident["frames"][0]["module"]]
                         + [frame["module_resolved"] for frame in incident["frames"][1:]])
        (session,) = self.evidence(scene)
        self.assertEqual(1264, (session / "emergency.bin").stat().st_size)
        for private in (INSTALL_FOLDER, scene.folder.name, scene.user, "good.zip", "AppData"):
            for encoding in ("utf-8", "utf-16-le"):
                for file in session.iterdir():
                    self.assertNotIn(private.encode(encoding), file.read_bytes(), file.name)
        scene.run(self.failing(scene))
        self.assertEqual(["crash", "updater_error"], self.kinds(scene))
        self.assertEqual([], self.evidence(scene))
        (report,) = scene.reports.glob("compact_process_*.json")
        told = json.loads(report.read_text("utf-8"))["compact_process_evidence"]
        self.assertEqual(incident["frames"], told["frames"])

    def fill(self, disk) -> None:
        with (disk / "filler").open("wb", buffering=0) as filler:
            for piece in (4096, 1):
                try:
                    while filler.write(bytes(piece)):
                        pass
                except OSError:
                    pass

    def evidence(self, scene: Scene) -> list:
        return list((scene.crashes / "compact_process").glob("process_*"))


if __name__ == "__main__":
    unittest.main()
