"""Files that others hold: the application, which is asked to close and, at the user's word, ended;
and everybody else, who is waited for a little and never touched."""

import json
import re
import shutil
import time
import unittest
from pathlib import Path
from typing import NamedTuple

import certificates
import end_to_end as e2e
import packages
import places
import programs
import trace_log
from https_server import Reply
from test_apply import BOX_END, BOX_START, BUTTONS
from updater_run import Outcome, Scene, UpdaterRun

ENGINE = "color_engine.dll"
CLOSE = "apply_request_close_locking_zul_process"
FORCE = "apply_force_close_locking_zul_process"
BEFORE_LOCKS = [*e2e.SELECTED, *e2e.EXTRACTED, "apply_start"]
AFTER_LOCKS = e2e.SUCCESS[len(BEFORE_LOCKS):]
RM_SERVICE = 3
ENDED_BY_UPDATER = 1515539541
ATTEMPTS = 12


class Holder(NamedTuple):
    """One line of what the Restart Manager is to say."""

    path: Path
    pid: int
    name: str
    kind: int = 1
    service: str = ""


def tell(scene: Scene, *holders: Holder, **failing: int) -> None:
    """Has the Restart Manager of this scene's runs name these holders, and calls of it fail."""
    rows = [(scene.windows(holder.path), *map(str, holder[1:])) for holder in holders]
    rows += [("!" + call, str(code)) for call, code in failing.items()]
    unfinished = scene.holders.with_suffix(".new")
    unfinished.write_text("".join("\t".join(row) + "\n" for row in rows), "utf-8")
    unfinished.replace(scene.holders)


class Locks(e2e.EndToEnd):
    def begin(self, scene: Scene, pid: int = 0, reply: Reply | None = None, more: tuple[str, ...] = (),
              ) -> UpdaterRun:
        reply = reply or Reply(body=self.good_package)
        return scene.begin([*scene.arguments(
            url=self.serve(scene, places.PRIMARY_HOST, reply), pid=pid,
            sha256=packages.sha256_of(reply.body)), *more], button="cancel")

    def start_application(self, scene: Scene, *arguments: str, path: str = packages.APPLICATION,
                          ) -> UpdaterRun:
        """The application of this installation, or another program with a window like its own."""
        program = scene.install / path
        program.parent.mkdir(exist_ok=True)
        if path != packages.APPLICATION:
            shutil.copyfile(programs.TEST_APPLICATION_1, program)
        started = scene.begin(list(arguments), program=program, dialogs=False)
        self.assertEqual([], programs.missing_marks(program.parent, f"start 1.0.0 {program.name} ",
                                                    "window "))
        return started

    def wait_for(self, scene: Scene, event: str) -> None:
        end = time.monotonic() + 60
        while not (scene.trace_path.exists() and f'"{event}"' in scene.trace_path.read_text("utf-8")):
            self.assertLess(time.monotonic(), end, f"no {event}")
            time.sleep(0.02)

    def marks(self, folder: Path) -> list[str]:
        return [line.split()[0] for line in (folder / programs.MARK).read_text("utf-8").splitlines()]

    def press_force_close(self, run: UpdaterRun) -> None:
        printed = self.sandbox.run(
            self.sandbox.windows_path(programs.DIALOG_DRIVER), "--window-class",
            programs.PROGRESS_CLASS, "--pid", str(run.pid), "--timeout-ms", "20000", "--click", "1001")
        self.assertEqual({"clicked": True, "text": "Force close QORVA"}, json.loads(printed))

    # -- locks that clear

    def check_application(self, *arguments: str, requests: int = 1, pressed: bool = False,
                          held: str = packages.APPLICATION) -> None:
        """It runs when the update begins, holding a file, and the update closes it and succeeds."""
        scene = self.scene(f"application {'-'.join(arguments)}")
        held_file = scene.windows(scene.install / held)
        application = self.start_application(
            scene, *arguments, *([] if held == packages.APPLICATION else [f"--hold={held_file}"]))
        tell(scene, *(Holder(scene.install / file, application.pid, "QORVA žluť")
                      for file in {held, packages.APPLICATION}))
        run = self.begin(scene)
        if pressed:
            self.wait_for(scene, CLOSE)
            time.sleep(1)
            self.assertTrue(application.running())
            self.press_force_close(run)
        outcome = run.finish()
        self.assert_updated(scene, outcome)
        if pressed:  # as often as it took to press the button
            requests = trace_log.names(outcome.trace).count(CLOSE)
        self.assert_trace(scene, outcome, [*BEFORE_LOCKS, *[CLOSE] * requests, *[FORCE] * pressed,
                                           *AFTER_LOCKS])
        lock = {"target": held_file, "pids": str(application.pid),
                "owners": f"pid={application.pid},name='QORVA žluť'"}
        force = {FORCE: {**lock, "terminated": "1", "error": ""}} if pressed else {}
        self.assert_details(outcome, {CLOSE: lock, **force})
        self.assertNotIn("0", [event.get("wm_close_messages") for event in outcome.trace])
        self.assertEqual(ENDED_BY_UPDATER if pressed else 0, application.finish().exit_code)
        marks = ["start", "window", *["close"] * requests, *["start" if pressed else "exit"]]
        self.assertEqual(marks, self.marks(scene.install)[:len(marks)])

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
        with programs.Hold(self.sandbox, scene.install / ENGINE) as hold:
            tell(scene, Holder(scene.install / ENGINE, hold.pid, "scanner.exe"))
            run = self.begin(scene)
            self.wait_for(scene, "apply_start")
            time.sleep(1)
            self.assertTrue(run.running())
        outcome = run.finish()
        self.assert_updated(scene, outcome)
        self.assert_trace(scene, outcome, e2e.SUCCESS)

    # -- locks that stay: nothing is changed, and nobody who holds a file is touched

    def assert_refused(self, scene: Scene, outcome: Outcome, failure: str, *events: str) -> None:
        self.assertEqual(2, outcome.exit_code)
        target = scene.windows(scene.install / ENGINE)
        error = outcome.trace[-1]["error"]
        self.assertEqual(f"pre-apply lock probe failed: target='{target}', {failure}",
                         re.sub("message='[^']+'", "message='MESSAGE'", error))
        self.assert_dialog(outcome, BOX_START + error + BOX_END, buttons=BUTTONS)
        self.assert_trace(scene, outcome, [*BEFORE_LOCKS, *events, "apply_fail"])
        self.assert_workspace(scene, (e2e.PACKAGE, "stage"))
        self.assert_installed(scene, self.installed)
        calls = scene.holders.with_name("holders.calls").read_text().splitlines()
        if not events:
            self.assertEqual(ATTEMPTS, calls.count("RmStartSession"))
        self.assertEqual(calls.count("RmStartSession"), calls.count("RmEndSession"))

    def test_foreign_hold_for_good(self) -> None:
        # The holder is a child of the application's main process, which has ended.
        scene = self.scene("for good")
        with programs.Hold(self.sandbox, scene.install / ENGINE, "--from-child") as hold:
            main_pid = int(hold.expect("parent"))
            hold.expect_held()
            tell(scene, Holder(scene.install / ENGINE, hold.pid, "Skener žluť", RM_SERVICE, "scansvc"))
            self.assert_refused(
                scene, self.begin(scene, main_pid).finish(),
                "reason=main_process_tree_still_alive, code=32, message='MESSAGE', attempts=12, "
                f"owners=[pid={hold.pid},name='Skener žluť',service='scansvc',main_tree=true]")
        self.assert_nothing_outside(scene)

    def test_failing_query(self) -> None:
        scene = self.scene("query")
        with programs.Hold(self.sandbox, scene.install / ENGINE) as hold:
            tell(scene, Holder(scene.install / ENGINE, hold.pid, ""), **{"RmGetList(read)": 5})
            self.assert_refused(scene, self.begin(scene).finish(),
                                "reason=unknown_lock_owner, code=32, message='MESSAGE', attempts=12, "
                                "owner_query='RmGetList(read) failed, code=5'")

    def test_strangers_survive(self) -> None:
        # All hold the same file: the application, a copy of it from another folder, another program
        # of its folder, and, as the Restart Manager has it, the updater itself.
        scene = self.scene("strangers")
        hold = f"--hold={scene.windows(scene.install / ENGINE)}"
        application = self.start_application(scene, hold, "--ignore-close")
        strangers = [self.start_application(scene, hold, path=path)
                     for path in ("../elsewhere/qorva_gui.exe", "label_tool.exe")]
        run = self.begin(scene)
        pids = [process.pid for process in (run, *strangers)]
        tell(scene, *(Holder(scene.install / ENGINE, pid, "qorva_gui.exe")
                      for pid in (application.pid, *pids)))
        self.wait_for(scene, CLOSE)
        self.press_force_close(run)
        outcome = run.finish()
        self.assertEqual(ENDED_BY_UPDATER, application.finish().exit_code)
        self.assertEqual([True, True], [stranger.running() for stranger in strangers])
        self.assertEqual(["start", "window"], self.marks(scene.install.parent / "elsewhere"))
        requests = trace_log.names(outcome.trace).count(CLOSE)
        self.assertEqual(["start", "window"] * 2 + ["close"] * requests, self.marks(scene.install))
        (scene.install / "label_tool.exe").unlink()
        self.assert_details(outcome, {name: {"pids": str(application.pid)} for name in (CLOSE, FORCE)})
        self.assert_refused(
            scene, outcome, "reason=external_process_lock, code=32, message='MESSAGE', attempts=12, "
            "owners=[" + "; ".join(f"pid={pid},name='qorva_gui.exe'" for pid in pids) + "]",
            *[CLOSE] * requests, FORCE)

    # -- the window's answers, seen from another process, through every wait of one long run

    def test_window_answers(self) -> None:
        scene = self.scene("responsive")
        publisher = certificates.make_code_authority("trusted")
        noise = packages.noise(1 << 20, "hardly compresses") * 150
        payload = {packages.APPLICATION: publisher.sign(programs.TEST_APPLICATION_2.read_bytes()),
                   "qorva_large.dll": publisher.sign(programs.TEST_APPLICATION_2.read_bytes() + noise)}
        packages.write_tree(scene.install, {"qorva_large.dll": noise})
        package = packages.zip_of(payload, level=1)
        main = self.start_application(scene, path="label_tool.exe")
        slow = self.start_application(scene, "--close-hang=2500", path="qorva.exe")
        tell(scene, Holder(scene.install / "qorva.exe", slow.pid, "QORVA"))
        run = self.begin(scene, main.pid, Reply(body=package, late_by=2, pause=(40 << 20, 2)),
                         ("--require-signed-payload-binaries=1",))
        watch = programs.start(self.sandbox, programs.WINDOW_WATCH, "--window-class",
                               programs.PROGRESS_CLASS, "--pid", str(run.pid), "--slow-ms", "100")
        self.wait_for(scene, "extract_ok")
        time.sleep(1)
        programs.close_application(self.sandbox, main.pid)
        outcome = run.finish()
        seen = json.loads(watch.communicate(timeout=30)[0])
        print(seen, [(event["ts"], event["stage"]) for event in outcome.trace
                     if event["stage"] != "download_progress"], f"{outcome.seconds:.1f} s")
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_details(outcome, {CLOSE: {"wm_close_messages": "0"}})
        self.assertGreater(seen["answers"], 200)
        self.assertEqual([], [answer for answer in seen["slow"] if answer[1] > 300 + answer[2]], seen)


if __name__ == "__main__":
    unittest.main()
