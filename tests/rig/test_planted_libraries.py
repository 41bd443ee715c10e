"""Libraries with names of system libraries where an attacker may write: beside the updater, in the folder
of its helper, and in the current folder. The updater must load none of them.

Windows takes its known libraries from the system folder only. Wine has no list of known libraries, so the
libraries that the loader needs to start the updater are left out here.
"""

import re
import subprocess
import threading
import time
import unittest
from pathlib import Path

import end_to_end as e2e
import test_self_replace
from end_to_end import Run
from rig import packages, places, programs
from rig.updater_run import Scene

# Known libraries of every supported Windows. ntdll.dll is in a process before its loader runs.
KNOWN = {f"{name}.dll" for name in (
    "advapi32 clbcatq combase comdlg32 coml2 gdi32 gdiplus imagehlp imm32 kernel32 msctf msvcrt nsi "
    "normaliz ntdll ole32 oleaut32 psapi rpcrt4 sechost setupapi shcore shell32 shlwapi user32 wldap32 "
    "ws2_32").split()}
# Loaded late by Wine's message boxes; Wine's late loading ignores the search order that a process chose.
LATE_UNDER_WINE = {"msimg32.dll"}
LOOKED_UP = ("winhttp.dll", "wintrust.dll", "crypt32.dll", "dbghelp.dll", "rstrtmgr.dll")
PLANT = (places.PROGRAMS / "planted_library.dll").read_bytes()
SIGNED = "--require-signed-payload-binaries=1"


def headers(binary: Path) -> str:
    return subprocess.run(["x86_64-w64-mingw32-objdump", "-p", binary], check=True, text=True,
                          capture_output=True).stdout


def imported_libraries(binary: Path) -> set[str]:
    return {name.lower() for name in re.findall(r"DLL Name: (\S+)", headers(binary))}


class ImportTable(unittest.TestCase):
    def test_everything_else_is_loaded_from_the_system_folder(self) -> None:
        self.assertLessEqual(imported_libraries(places.UPDATER), KNOWN)
        self.assertIn("Entry d 0000000000000000 00000000 Delay Import", headers(places.UPDATER))
        calls = {file.name for file in (places.ROOT / "src").rglob("*.*")
                 if re.search(r"\bLoad(Library|PackagedLibrary)", file.read_text("utf-8", "ignore"))}
        self.assertLessEqual(calls, {"system_library_win32.cpp", "system_library_win32.h"})


class PlantedLibraries(test_self_replace.FromInside):
    def setUp(self) -> None:
        """Writes a library for each name. The folders get links, so that each of them costs no space."""
        self.planted = self.scene("planted")
        self.pool = self.planted.notes / "pool"
        self.names = [*LOOKED_UP, *sorted(self.names_in_system_folder() - set(LOOKED_UP))]
        packages.write_tree(self.pool, dict.fromkeys(self.names, PLANT))
        # With this Wine, like Windows, takes the first file of the search order.
        stems = ",".join(name.removesuffix(".dll") for name in self.names)
        self.sandbox.environment["WINEDLLOVERRIDES"] += f";{stems}=native,builtin"

    def names_in_system_folder(self) -> set[str]:
        """The libraries of the prefix without those that the loader needs to start the updater."""
        system = self.sandbox.drive_c / "windows" / "system32"
        early, left = set(), imported_libraries(places.UPDATER)
        while left:
            early |= left
            left = set().union(*(imported_libraries(system / name) for name in left
                                 if (system / name).exists())) - early
        return {path.name.lower() for path in system.glob("*.dll")} - early - KNOWN - LATE_UNDER_WINE

    def plant(self, folder: Path) -> None:
        folder.mkdir(exist_ok=True)
        for name in self.names:
            if not (folder / name).exists():
                (folder / name).hardlink_to(self.pool / name)

    def plant_in_helper_folder(self, scene: Scene, planted: list[Path]) -> None:
        """Plants as soon as the folder exists. `planted` gets the folder when the helper had not begun yet."""
        while not (folders := list(scene.temp.glob("zul_updater_launch_*"))):
            time.sleep(0.0005)
        self.plant(folders[0])
        if not scene.traced("updater_run_start"):
            planted += folders

    def loaded_by(self, scene: Scene, program: str) -> list[Path]:
        return [path for path in scene.folder.rglob("*.loaded")
                if program.lower() in path.read_text("utf-16-le").lower()]

    def test_a_whole_update_loads_none_of_them(self) -> None:
        scene, planted = self.planted, []
        current = scene.notes / "current"
        for folder in (scene.install, current):
            self.plant(folder)
        planter = threading.Thread(target=self.plant_in_helper_folder, args=(scene, planted), daemon=True)
        planter.start()
        # A file is held until the updater has queried its holders, and signatures are verified.
        with programs.Hold(self.sandbox, scene.install / "qorva.exe") as hold:
            outcome = self.hand_over(scene, Run("", more=(SIGNED,)), folder=current,
                                     meanwhile=lambda: self.release(hold, scene.holder_calls))
        planter.join()
        self.assertEqual("restart_ok", outcome.trace[-1]["stage"], outcome.trace[-1])
        self.assertEqual([self.helper_folder(scene, outcome)], planted)
        self.assertEqual([], self.loaded_by(scene, "updater.exe"))
        self.check_that_the_plants_work(scene, scene.install, *planted)

    def release(self, hold: programs.Hold, when_there_is: Path) -> None:
        self.wait_until(when_there_is.exists)
        hold.output()

    def test_a_failed_update_and_a_started_browser_load_none_of_them(self) -> None:
        scene = self.planted
        self.plant(scene.updater.parent)
        browser = programs.Browser(self.sandbox, scene.notes, self.addCleanup)
        browser.set_up(available=True)
        package = packages.zip_of({packages.APPLICATION: b"MZ without a signature"})
        outcome = self.begin(scene, Run("", package=package, more=(SIGNED,), button="yes")).finish()
        self.assertEqual([], self.loaded_by(scene, "updater.exe"))
        self.assertEqual((2, [e2e.PAGE]), (outcome.exit_code, browser.opened(1)), outcome.dialogs)
        self.check_that_the_plants_work(scene, scene.updater.parent)

    def check_that_the_plants_work(self, scene: Scene, *folders: Path) -> None:
        for folder in folders:
            loader = folder / "loader.exe"
            loader.write_bytes(places.TOOL.read_bytes())
            paths = self.sandbox.run(scene.windows(loader), "load", *LOOKED_UP).splitlines()
            self.assertEqual([scene.windows(folder / name).lower() for name in LOOKED_UP],
                             [path.lower() for path in paths])
            self.assertEqual(sorted(folder / f"{name}.loaded" for name in LOOKED_UP),
                             sorted(self.loaded_by(scene, scene.windows(loader))))
