"""Replacements that fail half way: the installation comes back, or the user is told that it did not."""

import os
import re
import time
import unittest

import end_to_end as e2e
import packages
import places
import programs
from https_server import Reply
from updater_run import Scene

HELD = "zz_last.dat"  # comes last where folders are listed by name
FIRST = "aa_first.dat"
PAGE = places.deployment("QORVA_PAGE_URL")
BOX_START = "Automatic update failed during apply stage.\n\nCannot apply update safely: "
BOX_END = ("\n\nDownload and run the current QORVA installer from:\n" + PAGE +
           "\n\nUse Yes to open the download page now, No to copy the link to clipboard.")
BUTTONS = ("yes", "no", "cancel")
ROLLBACK = [*e2e.SELECTED, *e2e.EXTRACTED, "apply_start", *e2e.RETIRED, "rollback_start"]


class Apply(e2e.EndToEnd):
    def begin(self, scene: Scene, package: bytes | None = None, button: str = "cancel"):
        package = package or self.good_package
        return scene.begin(scene.arguments(
            url=self.serve(scene, places.PRIMARY_HOST, Reply(body=package)),
            sha256=packages.sha256_of(package)), button=button)

    def replace_failure(self, what: str, source: str, target: str) -> str:
        """The text of a file operation that gave up on a held or write-protected file."""
        return (f"{what}: source='{source}', target='{target}', reason=permission_or_lock, "
                "code=N, message='M', attempts=8")

    def normal(self, text: str) -> str:
        """A text with the system's own words, and the workspace's number, made equal everywhere."""
        text = re.sub(r"code=(?:5|32), message='[^']*'", "code=N, message='M'", text)
        return re.sub(r"qorva_updater_\d+", "qorva_updater_N", text)

    def test_rolls_back_and_verifies_when_another_process_holds_a_data_file(self) -> None:
        scene = self.scene("rollback")
        with programs.Hold(self.sandbox, scene.install / HELD):
            outcome = self.begin(scene).finish()
        self.assertEqual(2, outcome.exit_code)
        work = scene.windows(scene.temp / "qorva_updater_N")
        cause = self.replace_failure("apply update copy failed", f"{work}\\stage\\{HELD}",
                                     scene.windows(scene.install / HELD))
        error = cause + " Rollback completed and every restored target was verified."
        (dialog,) = outcome.dialogs
        self.assertEqual((BOX_START + error + BOX_END, BUTTONS),
                         (self.normal(dialog.text), dialog.buttons))
        self.assert_trace(scene, outcome, [*ROLLBACK, "rollback_ok", "apply_fail"])
        last = outcome.trace[-1]
        self.assertEqual(error, self.normal(last["error"]))
        self.assertEqual(f"{work}\\rollback_backup", self.normal(last["rollback_backup_root"]))
        count = int(outcome.trace[-2]["record_count"])
        self.assertGreater(count, len(e2e.RETIRED), "no replacement came before the one that failed")
        self.assert_installed(scene, self.installed)
        self.assert_workspace(scene, (e2e.PACKAGE, "stage", "rollback_backup"))
        self.assert_nothing_outside(scene)
        self.assertEqual([], scene.running())

    def test_a_short_hold_is_outlasted(self) -> None:
        scene = self.scene("short hold")
        with programs.Hold(self.sandbox, scene.install / HELD):
            run = self.begin(scene)
            self.wait_until(lambda: (scene.install / FIRST).read_bytes() == self.payload[FIRST], run)
            time.sleep(0.3)
        outcome = run.finish()
        self.assert_updated(scene, outcome)
        self.assert_trace(scene, outcome, e2e.SUCCESS)

    def test_demands_recovery_when_the_rollback_cannot_complete(self) -> None:
        # While the updater tries to replace a held file, another process takes hold of one that was
        # already replaced: its old edition cannot come back.
        scene = self.scene("recovery")
        first = scene.install / FIRST
        with (programs.Hold(self.sandbox, scene.install / HELD),
              programs.Hold(self.sandbox, first, "--wait-for-change", scene.windows(first))):
            outcome = self.begin(scene).finish()
        self.assertEqual(2, outcome.exit_code)
        (workspace,) = scene.workspaces()
        backup = f"{scene.windows(scene.temp)}\\qorva_updater_N\\rollback_backup"
        cause = self.replace_failure(
            "apply update copy failed",
            f"{scene.windows(scene.temp)}\\qorva_updater_N\\stage\\{HELD}",
            scene.windows(scene.install / HELD))
        restore = self.replace_failure("rollback restore failed", f"{backup}\\{FIRST}",
                                       scene.windows(first))
        error = (f"RECOVERY_REQUIRED: update apply failed: {cause} Rollback was incomplete; do not "
                 f"start QORVA from this folder. Rollback backup was preserved at '{backup}'. Run the "
                 "current QORVA installer to repair the installation. Rollback failure(s): " + restore)
        (dialog,) = outcome.dialogs
        self.assertEqual(BOX_START + error + BOX_END, self.normal(dialog.text))
        self.assert_trace(scene, outcome,
                          [*ROLLBACK, "rollback_recovery_required", "apply_recovery_required"])
        self.assert_details(outcome, {"rollback_recovery_required": {"failure_count": "1"}})
        self.assertEqual(error, self.normal(outcome.trace[-1]["error"]))
        damaged = {**self.installed, FIRST: self.payload[FIRST]}
        self.assert_installed(scene, damaged)
        self.assertEqual(self.installed[FIRST], (workspace / "rollback_backup" / FIRST).read_bytes())
        self.assert_nothing_outside(scene)

    def test_refuses_a_folder_under_the_name_of_a_retired_executable(self) -> None:
        scene = self.scene("retired folder")
        (scene.install / "zul_rip.exe").mkdir()
        outcome = self.begin(scene).finish()
        self.assertEqual(2, outcome.exit_code)
        error = ("Retired executable target is not a regular root-level file: "
                 f"'{scene.windows(scene.install)}\\zul_rip.exe'.")
        self.assert_dialog(outcome, BOX_START + error + BOX_END, buttons=BUTTONS)
        self.assert_trace(scene, outcome,
                          [*e2e.SELECTED, *e2e.EXTRACTED, "apply_start", "apply_fail"])
        self.assert_installed(scene, self.installed)
        self.assertTrue(os.path.isdir(scene.install / "zul_rip.exe"))
        self.assert_workspace(scene, (e2e.PACKAGE, "stage"))

    def test_starts_the_current_application_for_a_legacy_name(self) -> None:
        scene = self.scene("legacy")
        outcome = scene.run(scene.arguments(
            url=self.serve(scene, places.PRIMARY_HOST, Reply(body=self.good_package)),
            sha256=packages.sha256_of(self.good_package), restart="zul_rip_gui.exe"))
        self.assert_updated(scene, outcome)
        self.assert_trace(scene, outcome, e2e.SUCCESS)
        names = {"restart_exe": scene.windows(scene.install / packages.APPLICATION),
                 "requested_restart_exe": scene.windows(scene.install / "zul_rip_gui.exe")}
        self.assert_details(outcome, {"restart_start": {**names, "restart_mode": "normal_gui"},
                                      "restart_ok": names})

    def test_an_update_whose_application_does_not_start_stands(self) -> None:
        scene = self.scene("no start")
        payload = {**self.payload, packages.APPLICATION: packages.noise(20_000, "no program")}
        outcome = self.begin(scene, packages.zip_of(payload), button="ok").finish()
        self.assertEqual(2, outcome.exit_code)
        self.assert_dialog(outcome, "Cannot restart application after update.")
        self.assert_trace(scene, outcome, [*e2e.SUCCESS[:-1], "restart_fail"])
        self.assert_installed(scene, packages.updated_tree(self.installed, payload))
        self.assert_workspace(scene, (e2e.PACKAGE, "stage"))
        self.assert_nothing_outside(scene)

    def test_waits_for_the_application_to_close(self) -> None:
        scene = self.scene("waits")
        application = scene.begin([], program=scene.install / packages.APPLICATION)
        run = scene.begin(scene.arguments(
            url=self.serve(scene, places.PRIMARY_HOST, Reply(body=self.good_package)),
            sha256=packages.sha256_of(self.good_package), pid=application.pid))
        self.wait_until(lambda: "extract_ok" in scene.trace_path.read_text("utf-8"), run)
        time.sleep(1.0)
        self.assertTrue(run.running())
        self.assertNotIn("apply_start", scene.trace_path.read_text("utf-8"))
        programs.close_application(self.sandbox, application.pid)
        outcome = run.finish()
        self.assert_trace(scene, outcome, e2e.SUCCESS)
        self.assert_updated(scene, outcome)

    def wait_until(self, condition, run) -> None:
        while run.running():
            try:
                if condition():
                    return
            except OSError:
                pass
            time.sleep(0.005)
        self.fail("the run ended too early")


if __name__ == "__main__":
    unittest.main()
