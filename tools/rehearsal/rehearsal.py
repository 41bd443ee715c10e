"""Runs one complete real update and prints what happened. ./rehearse calls this after building.

usage: PYTHONPATH=tools rehearsal.py [package.zip]

Exits with 0 when the update kept all its promises, 1 when it did not, 2 when it could not be run.
"""

import re
import shutil
import signal
import subprocess
import sys
import textwrap
import threading
import time
from pathlib import Path

import rehearsal_release
from rehearsal_release import Release
from rehearsal_report import (TimedEvent, changes_between, heading, megabytes, paint, print_changes,
                              print_promises, print_stages, row)
from rig import certificates, packages, places, programs, trace_log
from rig.https_server import HttpsServer, Reply
from rig.sandbox import Sandbox
from rig.updater_run import REPORT, Outcome, Scene

RATE = 25_000_000  # bytes a second, so that the download lasts long enough to see the window
SHOTS = {  # a screenshot for the n-th event of a name in the trace
    ("download_progress", 20): "download", ("download_progress", 70): "download-later",
    ("extract_start", 1): "extract", ("apply_start", 1): "apply",
}


class Watcher(threading.Thread):
    """Records when each line of the trace appears, and takes screenshots."""

    def __init__(self, scene: Scene, folder: Path):
        super().__init__(daemon=True)
        self.scene = scene
        self.folder = folder
        self.events: list[TimedEvent] = []
        self.counts: dict[str, int] = {}
        self.shots: list[Path] = []
        self.started = time.monotonic()
        self.over = threading.Event()
        self.pending: list[str] = []
        self.camera = threading.Lock()
        self.photographer = threading.Thread(target=self.take_pictures, daemon=True)

    def run(self) -> None:
        self.photographer.start()
        while not self.over.wait(0.01):
            self.look()
        self.look()

    def look(self) -> None:
        try:
            events = trace_log.read(self.scene.trace_path)
        except ValueError:
            return  # a line is not complete yet
        now = time.monotonic() - self.started
        for event in events[len(self.events):]:
            self.events.append(TimedEvent(now, event))
            name = event["stage"]
            self.counts[name] = self.counts.get(name, 0) + 1
            if shot := SHOTS.get((name, self.counts[name])):
                self.pending.append(shot)

    def take_pictures(self) -> None:
        while not self.over.wait(0.02):
            if self.pending:
                time.sleep(0.3)  # the window draws after the event is written
                self.picture(self.pending.pop(0))

    def picture(self, name: str) -> None:
        with self.camera:
            path = self.folder / f"{len(self.shots) + 1}-{name}.png"
            screen(self.scene.sandbox, "import", "-window", "root", str(path))
            self.shots.append(path)

    def message(self) -> None:
        self.pending.clear()  # the progress window is closed now
        self.picture("message")

    def finish(self) -> None:
        self.over.set()
        self.join()
        self.photographer.join()


def screen(sandbox: Sandbox, *command: str) -> None:
    """Runs a command of ImageMagick on the prefix's display. `display` reports a failure even when it
    succeeds, so only the result of `import` counts."""
    subprocess.run(command, env=sandbox.environment, check=command[0] == "import", timeout=30,
                   capture_output=True)


def rehearse(package: Path | None) -> bool:
    folder = places.ROOT / "build" / "rehearsal" / time.strftime("%Y-%m-%d_%H.%M.%S")
    folder.mkdir(parents=True)
    release = rehearsal_release.from_package(package) if package else rehearsal_release.sample()
    print_beginning(release)
    sandbox = Sandbox().start()
    screen(sandbox, "display", "-size", "1280x800", "-window", "root", "gradient:#34495e-#22303f")
    scene = Scene(sandbox, "rehearsal")
    try:
        packages.write_tree(scene.install, release.installed)
        outside = packages.snapshot(sandbox.drive_c / "users")
        with HttpsServer(certificates.make_authority("trusted"),
                         certificates.make_authority("stranger")) as server:
            outcome, watcher = update(scene, release, server, folder)
        judge = judge_update if outcome.exit_code == 0 else judge_failure
        kept = print_end(scene, release, outcome, watcher,
                         judge(scene, release, outcome, outside), folder)
    finally:
        scene.end()
        sandbox.stop()
    if kept:
        scene.clear()
    return kept


def update(scene: Scene, release: Release, server: HttpsServer, folder: Path) -> tuple[Outcome, Watcher]:
    path = "/releases/" + re.sub(r"[^A-Za-z0-9._-]", "-", release.package.name)
    server.on(places.PRIMARY_HOST, path, Reply(body=release.package, bytes_per_second=RATE))
    url = server.url(places.PRIMARY_HOST, path)
    row("served at", url, f"limited to {RATE // 1_000_000} MB/s")
    print("\n  updating ...", flush=True)
    watcher = Watcher(scene, folder)
    watcher.start()
    outcome = scene.run(scene.arguments(url=url, sha256=release.sha256, required=release.required),
                        timeout=300, on_box=watcher.message)
    if outcome.exit_code == 0:
        if release.application_version:
            programs.missing_marks(scene.install, *programs.marks_of_start(release.application_version))
        time.sleep(0.7 if release.application_version else 3)
        watcher.picture("application-restarted")
    watcher.finish()
    return outcome, watcher


def judge_update(scene: Scene, release: Release, outcome: Outcome,
                 outside: dict[str, str]) -> list[tuple[str, list[str]]]:
    """The promises of a successful update, each with what contradicts it."""
    after, payload, expected = installed_files(scene), release.payload, release.expected
    retired = [name for name in packages.RETIRED_NAMES if name not in payload]
    others = [path for path in sorted(after.keys() | expected.keys())
              if path not in payload and path not in retired]
    chain = [name for name in trace_log.names(outcome.trace) if name != "download_progress"]
    removed = sum(name in release.installed for name in retired)
    full_chain = [*trace_log.CHAIN_BEFORE_REMOVALS,
                  *["retired_install_executable_removed"] * removed, *trace_log.CHAIN_AFTER_REMOVALS]
    promises = [
        ("exit code 0 and no message box", boxes(outcome)),
        ("every file of the package is in the installation, byte for byte",
         [path for path in payload if after.get(path) != payload[path]]),
        ("retired executables are removed", [name for name in retired if name in after]),
        ("all other files are unchanged",
         [path for path in others if after.get(path) != expected.get(path)]),
    ]
    if release.application_version == 2:
        promises.append(("the application was restarted, as version 2",
                         programs.missing_marks(scene.install, *programs.marks_of_start(2), timeout=0)))
    return [
        *promises,
        ("the workspace is removed", sorted(path.name for path in scene.temp.iterdir())),
        ("the trace has all events in their order", [] if chain == full_chain else chain),
        *promises_of_every_run(scene, outside),
    ]


def judge_failure(scene: Scene, release: Release, outcome: Outcome,
                  outside: dict[str, str]) -> list[tuple[str, list[str]]]:
    """The promises of an update that fails."""
    after, before = installed_files(scene), packages.digests(release.installed)
    return [
        ("exit code 2 and one message box", [] if (outcome.exit_code, len(outcome.dialogs)) == (2, 1)
         else [f"exit code {outcome.exit_code}", *boxes(outcome)]),
        ("the installation is unchanged, byte for byte",
         [path for path in sorted(after.keys() | before.keys()) if after.get(path) != before.get(path)]),
        ("the workspace is kept for support", [] if len(scene.workspaces()) == 1 else ["it is missing"]),
        *promises_of_every_run(scene, outside, REPORT),
    ]


def promises_of_every_run(scene: Scene, outside: dict[str, str],
                          allowed: re.Pattern = re.compile("(?!)")) -> list[tuple[str, list[str]]]:
    users = {path: digest for path, digest in packages.snapshot(scene.sandbox.drive_c / "users").items()
             if not allowed.fullmatch(path.removeprefix(f"{scene.user}/AppData/Roaming/"))}
    return [
        ("every event has the fields that follow from its name", trace_log.faults(scene.trace_path)),
        ("nothing else in the user's folders is changed",
         sorted(path for path in users.keys() | outside.keys() if users.get(path) != outside.get(path))),
    ]


def boxes(outcome: Outcome) -> list[str]:
    return [f"a box: {dialog.text}" for dialog in outcome.dialogs]


def installed_files(scene: Scene) -> dict[str, str]:
    files = packages.snapshot(scene.install)
    files.pop(programs.MARK, None)
    return files


def print_beginning(release: Release) -> None:
    heading("Rehearsal of one update")
    row("package", str(release.package))
    contents = release.note or f"{len(release.payload)} files, {megabytes(release.payload_size)} unpacked"
    row("", f"{megabytes(release.package.stat().st_size)}, {contents}")
    row("", f"SHA-256 {release.sha256}")
    retired = sum(name in release.installed for name in packages.RETIRED_NAMES)
    row("installation", megabytes(sum(map(len, release.installed.values()))) +
        f", {len(release.installed)} files, {retired} of them retired executables")


def print_timeline(scene: Scene) -> None:
    """The run as support reads it."""
    command = ["wine", scene.windows(places.INSPECTOR), "trace", scene.windows(scene.trace_path)]
    done = subprocess.run(command, env=scene.sandbox.environment, capture_output=True, timeout=60)
    heading("Timeline, by qorva_inspect")
    print(textwrap.indent((done.stdout + done.stderr).decode(errors="replace").replace("\r\n", "\n"), "  "), end="")


def print_end(scene: Scene, release: Release, outcome: Outcome, watcher: Watcher,
              promises: list[tuple[str, list[str]]], folder: Path) -> bool:
    packed = release.package.stat().st_size
    print_stages(watcher.events, {"download": packed, "verify": packed,
                                  "extract": release.payload_size, "apply": release.payload_size})
    print_timeline(scene)
    changes = changes_between(packages.digests(release.installed), installed_files(scene))
    print_changes(changes)
    for dialog in outcome.dialogs:
        heading("Message to the user")
        print(textwrap.indent(dialog.text, "  "))
    kept = print_promises(promises)
    (folder / "changes.txt").write_text("".join(
        f"{word} {path}\n" for word, paths in vars(changes).items() for path in paths), "utf-8")
    if scene.trace_path.exists():
        shutil.copyfile(scene.trace_path, folder / "update_trace.log")
    heading("Result")
    row("exit code", str(outcome.exit_code))
    row("duration", f"{outcome.seconds:.1f} s")
    row("screenshots", *(path.name for path in watcher.shots))
    row("trace", "update_trace.log, and the names of all changed files in changes.txt")
    row("all in", f"{folder}/")
    updated = kept and outcome.exit_code == 0
    if not updated:
        row("scene", f"{scene.folder}/")
    print("\n  " + (paint("The update kept its promises.", "green") if updated else
                    paint("The update failed and kept the promises for a failure.", "red") if kept else
                    paint("A promise was broken.", "red")))
    return updated


def leave(*_: object) -> None:
    sys.exit(2)


def main() -> int:
    if len(sys.argv) > 2:
        print(__doc__, file=sys.stderr)
        return 2
    package = Path(sys.argv[1]).resolve() if len(sys.argv) == 2 else None
    if package and not package.is_file():
        print(f"rehearse: there is no file {package}", file=sys.stderr)
        return 2
    for ending in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(ending, leave)  # sys.exit, so that what was started is ended
    return 0 if rehearse(package) else 1


if __name__ == "__main__":
    sys.exit(main())
