"""Packages that arrive complete and with the right digest, and that the updater must still refuse: the rows
of hostile_archives.py. The package room takes every row under Wine; one row for each stage that refuses
goes through the whole executable."""

import shutil
from pathlib import Path

import end_to_end as e2e
import hostile_archives
from end_to_end import Run
from hostile_archives import ESCAPED
from rig import packages, places

EXTRACT_PACKAGES = places.BUILD / "tests" / "package" / "extract_packages.exe"
REFUSED = "Cannot extract update package: "
LAYOUT = ("Update package contract validation failed: Update package layout mismatch. "
          f"Required files are missing: {packages.APPLICATION}. "
          "Supported layout is either flat ZIP root or a single top-level wrapper folder containing those files.")
THROUGH_THE_EXECUTABLE = (
    "no ZIP", "one entry more", "local name that climbs", f"name '../{ESCAPED}'", f"name 'Z:/tmp/{ESCAPED}'",
    "encryption", "collision of a.txt and A.TXT", "a bomb", "a wrong CRC", "invalid deflate data",
    "odd names in UTF-8")  # extracted, then the layout is refused, since the application is missing


class Archives(e2e.EndToEnd):
    def tearDown(self) -> None:
        """No unsafe name of the table leads to a file outside the destination."""
        reachable = (*self.sandbox.drive_c.rglob("*"), *Path("/").iterdir(), *Path("/tmp").iterdir())
        self.assertEqual([], [path for path in reachable if ESCAPED in path.name])

    def test_the_package_room_takes_every_row(self) -> None:
        folder = self.sandbox.drive_c / "rig" / "archives"
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        self.addCleanup(shutil.rmtree, folder)
        cases = hostile_archives.cases()
        archives = [folder / f"{number}.zip" for number in range(len(cases))]
        lines = ""
        for case, archive in zip(cases, archives):
            archive.write_bytes(case.archive)
            path = self.sandbox.windows_path(archive)
            lines += f"{path}\t{path}.out\n"
        messages = self.sandbox.run(self.sandbox.windows_path(EXTRACT_PACKAGES), given=lines).splitlines()
        self.assertEqual(len(cases), len(messages))
        extracted = []
        for case, archive, message in zip(cases, archives, messages):
            destination = Path(f"{archive}.out")
            seen = message or hostile_archives.files_below(destination)
            self.assertTrue(hostile_archives.meets(case.expected, seen), f"{case.name}: {seen}")
            if not message:
                extracted.append(destination)
        self.assertEqual(sorted([*archives, *extracted]), sorted(folder.iterdir()))

    def test_the_executable_takes_a_row_of_each_stage(self) -> None:
        cases = {case.name: case for case in hostile_archives.cases()}
        for number, name in enumerate(THROUGH_THE_EXECUTABLE):
            with self.subTest(name):
                expected, scene = cases[name].expected, self.scene(f"{number}")
                case = Run(name, 2, events=e2e.NOT_EXTRACTED, package=cases[name].archive)
                if isinstance(expected, str):
                    case.message, case.kept = REFUSED + expected, (e2e.PACKAGE,)
                    case.details = {"extract_fail": {"error": expected}}
                    self.check(case, scene)
                else:
                    case.message, case.kept = LAYOUT, e2e.STAGED
                    self.check(case, scene)
                    (workspace,) = scene.workspaces()
                    self.assertEqual(expected, hostile_archives.files_below(workspace / "stage"))
