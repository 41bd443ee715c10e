"""Files that others hold: the application, which is asked to close and, at the user's word, ended;
and everybody else, who is waited for a little and never touched."""

import json
import shutil
import time
import unittest

import end_to_end as e2e
from end_to_end import Run, apply_box
from rig import certificates, packages, programs, trace_log
from rig.https_server import Reply
from rig.updater_run import Outcome, Scene, UpdaterRun

ENGINE = "color_engine.dll"
CLOSE = "apply_request_close_locking_zul_process"
FORCE = "apply_force_close_locking_zul_process"
ENDED_BY_UPDATER = 1515539541
ATTEMPTS = 12


def tell(scene: Scene, *holders: tuple[str, int, str], **failing: int) -> None:
    """Has the Restart Manager of this scene's runs name these holders of files of the installation,
    each a file, a pid, a name and maybe more, and calls of it fail."""
    rows = [(scene.windows(scene.install / file), *map(str, more)) for file, *more in holders]
    rows += [("!" + call, str(code)) for call, code in failing.items()]
    unfinished = scene.holders.with_suffix(".new")
    unfinished.write_text("".join("\t".join(row) + "\n" for row in rows), "utf-8")
    unfinished.replace(scene.holders)


class Locks(e2e.EndToEnd):
    def start_application(self, scene: Scene, *arguments: str, path: str = packages.APPLICATION) -> UpdaterRun:
        """The application of this installation, or another program with a window like its own."""
        program = scene.install / path
        program.parent.mkdir(exist_ok=True)
        if path != packages.APPLICATION:
            shutil.copyfile(programs.TEST_APPLICATION_1, program)
        started = scene.begin(list(arguments), program=program, dialogs=False)
        self.assertEqual([], programs.missing_marks(program.parent, f"start 1.0.0 {program.name} ", "window "))
        return started

    def press_force_close(self, run: UpdaterRun) -> None:
        self.wait_for(run, lambda: run.scene.traced(CLOSE))
        printed = programs.tool(self.sandbox, "click", programs.PROGRESS_CLASS, str(run.pid), "1001")
        self.assertEqual("Force close QORVA\n", printed)

    # -- locks that clear

    def check_application(self, *arguments: str, requests: int = 1, pressed: bool = False,
                          held: str = packages.APPLICATION) -> None:
        """It runs when the update begins, holding a file, and the update closes it and succeeds."""
        scene = self.scene(f"application {'-'.join(arguments)}")
        hold = [] if held == packages.APPLICATION else [f"--hold={scene.windows(scene.install / held)}"]
        application = self.start_application(scene, *arguments, *hold)
        tell(scene, *((file, application.pid, "QORVA žluť") for file in {held, packages.APPLICATION}))
        case = Run("application")
        run = self.begin(scene, case)
        if pressed:
            self.wait_for(run, lambda: scene.traced(CLOSE))
            time.sleep(1)
            self.assertTrue(application.running())
            self.press_force_close(run)
        outcome = run.finish()
        if pressed:  # as often as it took to press the button
            requests = trace_log.names(outcome.trace).count(CLOSE)
        case.events = [*e2e.EXTRACTED, *[CLOSE] * requests, *[FORCE] * pressed, *e2e.SUCCESS[len(e2e.EXTRACTED):]]
        lock = {"target": f"<install>\\{held}", "pids": str(application.pid),
                "owners": f"pid={application.pid},name='QORVA žluť'"}
        case.details = {CLOSE: lock, **({FORCE: {**lock, "terminated": "1", "error": ""}} if pressed else {})}
        self.verify(scene, outcome, case)
        self.assertNotIn("0", [event.get("wm_close_messages") for event in outcome.trace])
        self.assertEqual(ENDED_BY_UPDATER if pressed else 0, application.finish().exit_code)
        marks = ["start", "window", *["close"] * requests, *["start" if pressed else "exit"]]
        self.assertEqual(marks, [mark.split()[0] for mark in programs.marks(scene.install)][:len(marks)])

    def test_closes_on_request(self) -> None:
        self.check_application()

    def test_closes_late(self) -> None:
        self.check_application("--close-delay=1500", held=ENGINE)

    def test_closes_at_the_second_request(self) -> None:
        self.check_application("--close-after=2", requests=2)

    def test_force_close(self) -> None:
        self.check_application("--ignore-close", pressed=True)

    def test_foreign_hold_of_a_second(self) -> None:
        scene = self.scene("second")
        case = Run("second", events=e2e.SUCCESS)
        with programs.Hold(self.sandbox, scene.install / ENGINE) as hold:
            tell(scene, (ENGINE, hold.pid, "scanner.exe"))
            run = self.begin(scene, case)
            self.wait_for(run, lambda: scene.traced("apply_start"))
            time.sleep(1)
            self.assertTrue(run.running())
        self.verify(scene, run.finish(), case)

    # -- locks that stay: nothing is changed, and nobody who holds a file is touched

    def assert_refused(self, scene: Scene, outcome: Outcome, failure: str, *events: str) -> None:
        error = f"pre-apply lock probe failed: target='<install>\\{ENGINE}', {failure}"
        self.verify(scene, outcome, Run("", 2, apply_box(error), [*e2e.EXTRACTED, *events, "apply_fail"],
                                        buttons=e2e.BUTTONS, kept=e2e.STAGED, details={"apply_fail": {"error": error}}))
        calls = scene.holder_calls.read_text().splitlines()
        if not events:
            self.assertEqual(ATTEMPTS, calls.count("RmStartSession"))
        self.assertEqual(calls.count("RmStartSession"), calls.count("RmEndSession"))

    def test_foreign_hold_for_good(self) -> None:
        # The holder is a child of the application's main process, which has ended.
        scene = self.scene("for good")
        with programs.Hold(self.sandbox, scene.install / ENGINE, "--from-child") as hold:
            tell(scene, (ENGINE, hold.pid, "Skener žluť", 3, "scansvc"))
            self.assert_refused(
                scene, self.begin(scene, Run("", arguments={"pid": hold.parent})).finish(),
                "reason=main_process_tree_still_alive, code=32, message='M', attempts=12, "
                f"owners=[pid={hold.pid},name='Skener žluť',service='scansvc',main_tree=true]")

    def test_failing_query(self) -> None:
        scene = self.scene("query")
        with programs.Hold(self.sandbox, scene.install / ENGINE) as hold:
            tell(scene, (ENGINE, hold.pid, ""), **{"RmGetList(read)": 5})
            self.assert_refused(scene, self.begin(scene, Run("")).finish(),
                                "reason=unknown_lock_owner, code=32, message='M', attempts=12, "
                                "owner_query='RmGetList(read) failed, code=5'")

    def test_strangers_survive(self) -> None:
        # All hold the same file: the application, a copy of it from another folder, another program
        # of its folder, and, as the Restart Manager has it, the updater itself.
        scene = self.scene("strangers")
        hold = f"--hold={scene.windows(scene.install / ENGINE)}"
        application = self.start_application(scene, hold, "--ignore-close")
        strangers = [self.start_application(scene, hold, path=path)
                     for path in ("../updater/qorva_gui.exe", "label_tool.exe")]
        run = self.begin(scene, Run(""))
        pids = [process.pid for process in (run, *strangers)]
        tell(scene, *((ENGINE, pid, "qorva_gui.exe") for pid in (application.pid, *pids)))
        self.press_force_close(run)
        outcome = run.finish()
        self.assertEqual(ENDED_BY_UPDATER, application.finish().exit_code)
        self.assertEqual([True, True], [stranger.running() for stranger in strangers])
        requests = trace_log.names(outcome.trace).count(CLOSE)
        marks = {folder: [mark.split()[0] for mark in programs.marks(folder)]
                 for folder in (scene.install, scene.updater.parent)}
        self.assertEqual({scene.install: ["start", "window"] * 2 + ["close"] * requests,
                          scene.updater.parent: ["start", "window"]}, marks)
        (scene.install / "label_tool.exe").unlink()
        self.assert_details(scene, outcome, {name: {"pids": str(application.pid)} for name in (CLOSE, FORCE)})
        self.assert_refused(
            scene, outcome, "reason=external_process_lock, code=32, message='M', attempts=12, "
            "owners=[" + "; ".join(f"pid={pid},name='qorva_gui.exe'" for pid in pids) + "]", *[CLOSE] * requests, FORCE)

    # -- the window's answers, seen from another process, through every wait of one long run

    def test_window_answers(self) -> None:
        scene = self.scene("responsive")
        sign = certificates.make_authority("trusted").sign
        version_2 = programs.TEST_APPLICATION_2.read_bytes()
        noise = packages.noise(1 << 20, "hardly compresses") * 150
        packages.write_tree(scene.install, {"qorva_large.dll": noise})
        package = packages.zip_of({packages.APPLICATION: sign(version_2), "qorva_large.dll": sign(version_2 + noise)},
                                  level=1)
        main = self.start_application(scene, path="label_tool.exe")
        slow = self.start_application(scene, "--close-hang=2500", path="qorva.exe")
        tell(scene, ("qorva.exe", slow.pid, "QORVA"))
        run = self.begin(scene, Run("", arguments={"pid": main.pid}, package=package,
                                    primary=Reply(body=package, late_by=2, pause=(40 << 20, 2)),
                                    more=("--require-signed-payload-binaries=1",)))
        watch = programs.Helper(self.sandbox, "watch", programs.PROGRESS_CLASS, str(run.pid))
        # What a window without any work needs for an answer is the machine's and not the updater's.
        idle = self.start_application(scene, path="../updater/idle.exe")
        watch_idle = programs.Helper(self.sandbox, "watch", programs.APPLICATION_CLASS, str(idle.pid))
        self.wait_for(run, lambda: scene.traced("extract_ok"))
        time.sleep(1)
        programs.close_application(self.sandbox, main.pid)
        outcome = run.finish()
        programs.close_application(self.sandbox, idle.pid)
        seen, machine = (json.loads(watcher.output()) for watcher in (watch, watch_idle))
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_details(scene, outcome, {CLOSE: {"wm_close_messages": "0"}})
        self.assertGreater(min(seen["answers"], machine["answers"]), 200)
        for asked, came in seen["slow"]:
            allowed = 300 + max((b - a for a, b in machine["slow"] if a < came and b > asked), default=0)
            self.assertLessEqual(came - asked, allowed, (seen, machine))


if __name__ == "__main__":
    unittest.main()
