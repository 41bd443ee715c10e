"""Replacements that fail: the rollback restores the installation, or the message asks for recovery."""

import end_to_end as e2e
from end_to_end import Run, apply_box
from rig import packages, programs

FIRST = "aa_first.dat"  # files are replaced in the order of their names
HELD = "zz_last.dat"
ROLLBACK = [*e2e.EXTRACTED, *e2e.RETIRED, "rollback_start"]


def gave_up(what: str, source: str, target: str) -> str:
    """The message of a file operation that failed on a held file, with the code that Wine returns."""
    return (f"{what}: source='{source}', target='{target}', reason=permission_or_lock, code=5, "
            "message='M', attempts=8")


CAUSE = gave_up("apply update copy failed", f"<work>\\stage\\{HELD}", f"<install>\\{HELD}")


class Apply(e2e.EndToEnd):
    def test_rolls_back_and_verifies_when_another_process_holds_a_data_file(self) -> None:
        scene = self.scene("rollback")
        error = CAUSE + " Rollback completed and every restored target was verified."
        with programs.Hold(self.sandbox, scene.install / HELD):
            _, outcome = self.check(Run(
                "rollback", 2, apply_box(error), [*ROLLBACK, "rollback_ok", "apply_fail"], buttons=e2e.BUTTONS,
                details={"apply_fail": {"error": error, "rollback_backup_root": "<work>\\rollback_backup"}},
                kept=(*e2e.STAGED, "rollback_backup")), scene)
        count = int(outcome.trace[-2]["record_count"])
        self.assertGreater(count, len(e2e.RETIRED), "no replacement came before the one that failed")

    def test_asks_for_recovery_when_the_rollback_fails(self) -> None:
        # While the updater tries to replace HELD, another process opens FIRST, which is already replaced,
        # so that the rollback cannot restore it.
        scene = self.scene("recovery")
        first = scene.install / FIRST
        restore = gave_up("rollback restore failed", f"<work>\\rollback_backup\\{FIRST}", f"<install>\\{FIRST}")
        error = (f"RECOVERY_REQUIRED: update apply failed: {CAUSE} Rollback was incomplete; do not "
                 "start QORVA from this folder. Rollback backup was preserved at '<work>\\rollback_backup'. Run the "
                 "current QORVA installer to repair the installation. Rollback failure(s): " + restore)
        case = Run("recovery", 2, apply_box(error), buttons=e2e.BUTTONS,
                   events=[*ROLLBACK, "rollback_recovery_required", "apply_recovery_required"],
                   details={"rollback_recovery_required": {"failure_count": "1"},
                            "apply_recovery_required": {"error": error}},
                   tree={**self.installed, FIRST: self.payload[FIRST]}, kept=(*e2e.STAGED, "rollback_backup"))
        with (programs.Hold(self.sandbox, scene.install / HELD),
              programs.Hold(self.sandbox, first, "--on-input") as second):
            run = self.begin(scene, case)
            self.wait_for(run, lambda: first.read_bytes() == self.payload[FIRST])
            second.go_on()
            outcome = run.finish()
        self.verify(scene, outcome, case)
        (workspace,) = scene.workspaces()
        self.assertEqual(self.installed[FIRST], (workspace / "rollback_backup" / FIRST).read_bytes())

    def test_reports_an_application_that_does_not_start(self) -> None:
        payload = {**self.payload, packages.APPLICATION: packages.noise(20_000, "no program")}
        self.check(Run("no start", 2, "Cannot restart application after update.",
                       [*e2e.SUCCESS[:-1], "restart_fail"], package=packages.zip_of(payload), kept=e2e.STAGED,
                       tree=packages.updated_tree(self.installed, payload)))
