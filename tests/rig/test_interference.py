"""What other processes do during an update: a second updater, and a program that wants its own package
installed.

    python3 test_interference.py N [SEED]      N rounds of two updaters; PYTHONPATH as for end_to_end.py
"""

import contextlib
import json
import random
import sys
import threading
import time
import unittest
from collections import Counter

import end_to_end as e2e
from end_to_end import Run
from rig import packages, places, programs, trace_log
from rig.updater_run import Outcome, Scene, UpdaterRun

REFUSED = ("Another updater is already updating the QORVA installation '{}'. This updater has not changed anything. "
           "Wait until the other one has finished. If QORVA does not start then, start the update again.")


class Interference(e2e.EndToEnd):
    def test_the_verified_package_cannot_be_replaced(self) -> None:
        payload = {**self.payload, **{f"more/{i}.dat": packages.noise(1 << 20, i) for i in range(40)}}
        package = packages.zip_of(payload)
        scene = self.scene("attack")
        other = scene.notes / "other.zip"
        other.write_bytes(packages.zip_of({**self.payload, "color_engine.dll": b"foreign"}))
        run = self.begin(scene, Run("", package=package))
        self.wait_until(scene.workspaces)
        file = scene.workspaces()[0] / e2e.PACKAGE
        with programs.Helper(self.sandbox, "attack", *map(scene.windows, (file, other))) as attack:
            self.wait_for(run, lambda: scene.traced("download_selected"))
            attack.go_on()
            refused = json.loads(attack.output())["refused"]
        self.verify(scene, run.finish(), Run("", events=e2e.SUCCESS, payload=payload))
        self.assertEqual({"delete": ["32"], "move": ["5"], "write": ["32"]},
                         {name: list(errors) for name, errors in refused.items()})


class Rounds(e2e.EndToEnd):
    """Two updaters start at random moments on one installation. In every second round one of them is
    killed at a random moment, and another update follows."""

    rounds = 8
    seed = 1
    ends: Counter[str] = Counter()  # what the runs of a round said, and in how many rounds

    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        # An application that ends at once, so that it is in no update's way.
        cls.payload[packages.APPLICATION] = places.TOOL.read_bytes()
        cls.good_package = packages.zip_of(cls.payload)
        cls.updated = packages.updated_tree(cls.installed, cls.payload)

    def test_end_with_the_old_or_the_new_files(self) -> None:
        for number in range(self.rounds):
            with self.subTest(round=number, seed=self.seed):
                self.round(number, packages.seeded("round", self.seed, number))
        self.assertIn("refused", " ".join(self.ends), "no two updaters ran at the same time")

    def round(self, number: int, chance: random.Random) -> None:
        scene = Scene(self.sandbox, f"Rounds-{number}")
        self.addCleanup(scene.clear)
        packages.write_tree(scene.install, self.installed)
        runs: list[UpdaterRun] = []
        starts = [threading.Timer(chance.uniform(0, 1), lambda: runs.append(self.begin(scene, Run(""))))
                  for _ in range(2)]
        for start in starts:
            start.start()
        kills = number % 2 == 1
        victim = self.kill_one(scene, runs, chance) if kills else None
        for start in starts:
            start.join()
        said = [self.said(scene, run.finish(), run is victim) for run in list(runs)]
        if "installed" in said:
            self.assert_updated(scene, kills, said)
        if kills:
            scene.end()
            said.append(self.said(scene, self.begin(scene, Run("")).finish()))
        self.assertIn("installed", said[-1] if kills else said)
        self.assert_updated(scene, kills, said)
        self.ends[", ".join(sorted(said))] += 1
        scene.clear()

    def kill_one(self, scene: Scene, runs: list[UpdaterRun], chance: random.Random) -> UpdaterRun:
        """Kills a run after a random number of events, so that the moment does not depend on the speed of the
        machine, unless it ends before. Returns the run."""
        events = chance.randint(1, 16)
        self.wait_until(lambda: len(trace_log.read(scene.trace_path)) >= events)
        time.sleep(chance.uniform(0, 0.1))
        victim = chance.choice(runs)
        with contextlib.suppress(RuntimeError):
            self.sandbox.run("taskkill", "/f", "/pid", str(victim.pid))
        # Under Wine, a process whose creator is killed while it creates that process never runs and never
        # ends. It may be an observer or the application, and is not visible at once.
        time.sleep(1)
        for program in scene.running():
            if "--target-dir=" not in program.command:
                program.end()
        return victim

    def assert_updated(self, scene: Scene, kills: bool, said: list[str]) -> None:
        """Expects the new files. A killed updater may leave a temporary copy."""
        files = {path: digest for path, digest in packages.snapshot(scene.install).items()
                 if not (kills and ".zul_update_tmp_" in path)}
        self.assertEqual(packages.digests(self.updated), files, said)

    def said(self, scene: Scene, outcome: Outcome, killed: bool = False) -> str:
        """What a run says about itself. Every other answer than these fails the round."""
        texts = [self.plain(scene, dialog.text) for dialog in outcome.dialogs]
        refused = [REFUSED.format("<install>")]
        if killed:  # under Wine its exit code is 0
            self.assertLessEqual(set(texts), {"", *refused})
            return "killed"
        self.assertIn((outcome.exit_code, texts), ((0, []), (2, refused)))
        return "refused" if texts else "installed"


if __name__ == "__main__":
    Rounds.rounds, Rounds.seed = (int(text) for text in (*sys.argv[1:], "1")[:2])
    unittest.main(argv=[sys.argv[0], "Rounds"], exit=False)
    print(*(f"{number:4} {said}" for said, number in Rounds.ends.most_common()), sep="\n")
