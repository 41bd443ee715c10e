"""Compares the cost of an update with that of tools that do the same work. ./bench calls this after
building.

usage: PYTHONPATH=tools bench.py [--quick] [--rounds N] [--package NAME] [--here]

Runs the real updater, the native tools and a silent installer in turn, each in a new folder, and prints
one table of medians and ratios. --quick does one round of the smallest package. With --quick and
--package only the stages are measured, not memory, the window, diagnostics and redaction. The measured
folders are on a disk of their own (own_disk.py); with --here they are on the file system of build/bench.

Files are deleted only at the end: after a large deletion a file system may create files much more slowly.
After each round of a package its large files are truncated, which returns their space.
"""

import argparse
import shutil
import statistics
import subprocess
from collections import defaultdict

import installers
import workloads
from measured_run import idle_peak_kib, longest_wait_ms, measure
from native_tools import StolenTime, copy_tree, settle
from own_disk import OwnDisk
from rig import certificates, places
from rig.https_server import HttpsServer, Reply
from rig.sandbox import Sandbox
from rig.updater_run import Scene
from rounds import Round, give_back_space, run_installer
from workloads import APPLICATION, BIG_FILE, SMALL_FILES, Workload

PROGRAMS = places.BUILD / "tools" / "bench"
SIDES = ("updater", "tools")


class Samples:
    """Seconds by stage and side."""

    def __init__(self) -> None:
        self.taken: dict[tuple[str, str], list[float]] = defaultdict(list)

    def add(self, stage: str, updater: float, tools: float) -> None:
        for side, seconds in zip(SIDES, (updater, tools)):
            self.taken[stage, side].append(seconds)

    def medians(self, stage: str) -> tuple[float, float]:
        updater, tools = (statistics.median(self.taken[stage, side]) for side in SIDES)
        return updater, tools

    def spread(self, stage: str) -> float:
        """The largest ratio of a round divided by the smallest."""
        ratios = [a / b for a, b in zip(*(self.taken[stage, side] for side in SIDES))]
        return max(ratios) / min(ratios)


class Bench:
    def __init__(self, stages_only: bool = False, here: bool = False) -> None:
        self.stages_only = stages_only
        self.disk = None if here else OwnDisk(workloads.HOME / "disk.img")
        home = self.disk.folder if self.disk else workloads.HOME
        # A prefix of its own: programs in a shared prefix would change the measurement.
        places.WINE_HOME = home / "wine"
        places.RIG_HOME.mkdir(parents=True, exist_ok=True)
        self.sandbox = Sandbox().start()
        self.authority = certificates.make_authority("trusted")
        self.server = HttpsServer(self.authority, certificates.make_authority("stranger"))
        self.scenes: list[Scene] = []
        self.samples: dict[str, Samples] = defaultdict(Samples)
        self.peaks: dict[str, int] = {}
        self.runs = home / "runs"
        shutil.rmtree(self.runs, ignore_errors=True)
        self.runs.mkdir(parents=True)

    def close(self) -> None:
        if not self.disk:
            for scene in self.scenes:
                scene.clear()
            shutil.rmtree(self.runs, ignore_errors=True)
        self.server.__exit__()
        self.sandbox.stop()
        if self.disk:
            self.disk.remove()

    def scene(self, name: str) -> Scene:
        self.scenes.append(Scene(self.sandbox, f"bench-{name}"))
        return self.scenes[-1]

    def run_windows(self, program: str, *arguments: object) -> list[float]:
        """Runs a program of the benchmark and returns the numbers that it prints."""
        return [float(number) for number in self.output_of(program, *arguments).split()]

    def output_of(self, program: str, *arguments: object) -> str:
        done = subprocess.run(["wine", self.sandbox.windows_path(PROGRAMS / program), *map(str, arguments)],
                              env=self.sandbox.environment_with_hosts(), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=300)
        if done.returncode != 0:
            raise RuntimeError(f"{program} ended with {done.returncode}: {done.stderr.strip()}")
        return done.stdout

    # -- one round of one package

    def round(self, work: Workload, number: int) -> None:
        turn = Round(self, work, number)
        stolen = StolenTime()
        turn.run()
        self.peaks[work.name] = max(self.peaks.get(work.name, 0), turn.updater.peak_kib)
        self.note(turn, stolen.percent())
        if work is APPLICATION and not self.stages_only:
            self.note_probe(turn)
            self.note_diagnostics(turn)
        turn.give_back_space()

    def note(self, turn: Round, stolen_percent: float) -> None:
        samples, run, beside = self.samples[turn.work.name], turn.updater, turn.beside
        (scan,) = self.run_windows("stage_times.exe", "scan", self.sandbox.windows_path(turn.work.package))
        samples.add("scan", scan, beside["list"])
        samples.add("download", run.download, beside["curl"])
        samples.add("checksum", run.checksum, beside["sha256sum"])
        samples.add("extract", run.extract, turn.extract_rival())
        samples.add("extract/installer", run.extract, beside["installer"])
        samples.add("apply", run.apply, beside["minimal apply"])
        samples.add("extract and apply", run.extract + run.apply, beside["installer"])
        samples.add("until restart", run.until_restart, beside["series"])
        samples.add("whole", run.whole, beside["series"])
        stages = ", ".join(f"{stage} {mine[-1]:.2f}/{samples.taken[stage, 'tools'][-1]:.2f}"
                           for (stage, side), mine in samples.taken.items() if side == "updater")
        print(f"  {turn.work.title}: {stages}; peak {run.peak_kib // 1024} MiB; "
              f"{stolen_percent:.0f} % of the processors' time stolen by the host", flush=True)

    def note_probe(self, turn: Round) -> None:
        """The part of the apply that asks for locks on files."""
        seconds, _ = self.run_windows("stage_times.exe", "probe", self.sandbox.windows_path(turn.tools.install))
        self.samples[turn.work.name].add("probe", seconds, turn.updater.apply)

    def note_diagnostics(self, turn: Round) -> None:
        """The same run with and without diagnostics, directly after one another."""
        seconds = {"with": 0.0, "without": 0.0}
        for number, kind in enumerate(("with", "without", "without", "with")):  # later runs are slower
            scene = self.scene(f"diagnostics-{turn.number}-{number}")
            if kind == "without":
                shutil.copyfile(PROGRAMS / "undiagnosed_updater.exe", scene.updater)
            copy_tree(turn.work.installed, scene.install)
            settle()
            seconds[kind] += measure(scene, turn.url, turn.work.sha256()).whole / 2
            scene.end()
            give_back_space(scene.folder)
        self.samples[turn.work.name].add("diagnostics", seconds["with"], seconds["without"])

    # -- measurements with one run

    def download_shares(self, work: Workload) -> tuple[float, float]:
        """The shares of the window and of the platform's HTTP client in the time of a download."""
        url = self.server.on(places.PRIMARY_HOST, f"/{work.name}.zip", Reply(body=work.package))
        shares = []
        for number in range(3):
            target = self.sandbox.windows_path(self.runs / f"window-{number}.zip")
            whole, window, http, _ = self.run_windows("stage_times.exe", "window", url, target)
            shares.append((window / whole, http / whole))
        window_shares, http_shares = zip(*shares)
        return statistics.median(window_shares), statistics.median(http_shares)

    def idle_kib(self) -> int:
        scene = self.scene("idle")
        copy_tree(APPLICATION.installed, scene.install)
        return idle_peak_kib(scene, self.server.on(places.PRIMARY_HOST, "/silent.zip", Reply(silent=True)))

    def longest_wait_ms(self, work: Workload) -> int:
        scene = self.scene(f"{work.name}-window")
        copy_tree(work.installed, scene.install)
        settle()
        url = self.server.on(places.PRIMARY_HOST, f"/{work.name}.zip", Reply(body=work.package))
        return longest_wait_ms(scene, url, work.sha256())

    def empty_installer_seconds(self) -> float:
        """What the start and the end of an installer cost that has no files."""
        installer = self.runs / "empty.exe"
        installers.make(installer, self.runs, [])
        folder = self.scene("empty").folder
        return statistics.median(run_installer(self, installer, folder) for _ in range(5))


ROWS = (  # label, package, stage, compared with, aim
    ("download over loopback TLS", APPLICATION, "download", "curl", 1.5),
    ("download over loopback TLS", BIG_FILE, "download", "curl", 1.5),
    ("checksum", APPLICATION, "checksum", "sha256sum", 1.3),
    ("checksum", BIG_FILE, "checksum", "sha256sum", 1.3),
    ("scan", SMALL_FILES, "scan", "unzip -l", 0.5),
    ("extraction", APPLICATION, "extract", "unzip -q, fsync per file", 1.1),
    ("extraction", SMALL_FILES, "extract", "unzip -q, fsync per file", 3.0),
    ("extraction", BIG_FILE, "extract", "unzip -q", 0.9),
    ("extraction", APPLICATION, "extract/installer", "silent installer", 0.8),
    ("extraction", SMALL_FILES, "extract/installer", "silent installer", 0.6),
    ("extraction", BIG_FILE, "extract/installer", "silent installer", None),
    ("apply", APPLICATION, "apply", "minimal program", 1.3),
    ("apply", SMALL_FILES, "apply", "minimal program", 1.3),
    ("apply", BIG_FILE, "apply", "minimal program", 1.3),
    ("extraction and apply", APPLICATION, "extract and apply", "silent installer", 2.0),
    ("extraction and apply", SMALL_FILES, "extract and apply", "silent installer", 2.5),
    ("extraction and apply", BIG_FILE, "extract and apply", "silent installer", None),
    ("probing every file for locks", APPLICATION, "probe", "the apply stage", 0.1),
    ("whole run with diagnostics", APPLICATION, "diagnostics", "without", 1.05),
    ("whole run", APPLICATION, "whole", "tools in series", 1.3),
    ("whole run", SMALL_FILES, "whole", "tools in series", 3.5),
    ("whole run", BIG_FILE, "whole", "tools in series", None),
    ("until the restart", APPLICATION, "until restart", "tools in series", 1.3),
    ("until the restart", SMALL_FILES, "until restart", "tools in series", None),
)


def print_table(bench: Bench, rounds: int) -> None:
    empty = bench.empty_installer_seconds()
    print(f"\nmedians of {rounds} rounds; spread is the largest ratio of a round over the smallest; an installer "
          f"without files takes {empty:.3f} s, which the times of the installers include\n")
    print("| stage | package | updater | beside | | ratio | spread | aim | |")
    print("|---|---|---:|---|---:|---:|---:|---:|---|")
    for label, work, stage, beside, aim in ROWS:
        samples = bench.samples.get(work.name)
        if not samples or (stage, "updater") not in samples.taken:
            continue
        updater, tools = samples.medians(stage)
        print(row(label, work.title, f"{updater:.3f} s", beside, f"{tools:.3f} s", updater / tools,
                  f"{samples.spread(stage):.2f}", aim))


def print_memory(bench: Bench) -> None:
    idle = bench.idle_kib()
    for work in workloads_of(bench):
        above = (bench.peaks[work.name] - idle) / 1024
        limit = min(32 + len(work.files()) / 1024, 42)
        print(row("peak memory", work.title, f"{above:.1f} MiB", f"idle process, {idle / 1024:.1f} MiB",
                  "", above, "", round(limit, 1)))


def print_window(bench: Bench) -> None:
    for work in (APPLICATION, SMALL_FILES):
        wait = bench.longest_wait_ms(work)
        print(row("longest wait for an answer of the window", work.title, f"{wait} ms", "", "", wait, "", 115))
    window, http = bench.download_shares(APPLICATION)
    print(row("window's share of a download", APPLICATION.title, f"{100 * window:.2f} %", "", "",
              100 * window, "", 3))
    print(row("WinHTTP's share of a download", APPLICATION.title, f"{100 * http:.1f} %", "", "",
              100 * http, "", None))


def print_collector(bench: Bench) -> None:
    scene = bench.scene("collector")
    shutil.copyfile(places.UPDATER, scene.install / "qorva_updater.exe")
    plain, observed, handshake, private = bench.run_windows(
        "collector_cost.exe", scene.windows(scene.install), scene.windows(scene.crashes), 9)
    print(row("start of the collector", "", f"{1000 * (observed - plain):.0f} ms",
              f"a process without, {1000 * plain:.0f} ms; handshake {1000 * handshake:.0f} ms", "",
              1000 * (observed - plain), "", 150))
    print(row("an observer's private memory", "", f"{private / 2**20:.1f} MiB", "", "",
              private / 2**20, "", 8))


def print_redaction(bench: Bench) -> None:
    """Times of 128 KiB of hostile text and of ordinary log text: redacted, and as the text of a report."""
    lines = [line.split("\t") for line in bench.output_of("redaction_times.exe").splitlines()]
    for label, column in (("redaction", 1), ("text of a report", 2)):
        ordinary = float(lines[0][column])
        for shape, *ratios in lines[1:]:
            ratio = float(ratios[column - 1])
            print(row(label, shape, f"{ratio * ordinary:.1f} ms", lines[0][0], f"{ordinary:.1f} ms", ratio,
                      "", 4))


def row(label: str, package: str, updater: str, beside: str, tools: str, ratio: float, spread: str,
        aim: float | None) -> str:
    verdict = "" if aim is None else "met" if ratio <= aim else "missed"
    return (f"| {label} | {package} | {updater} | {beside} | {tools} | {ratio:.2f} | {spread} "
            f"| {aim or ''} | {verdict} |")


def workloads_of(bench: Bench) -> list[Workload]:
    return [work for work in (APPLICATION, SMALL_FILES, BIG_FILE) if work.name in bench.samples]


def main() -> None:
    parser = argparse.ArgumentParser(prog="bench")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--package", action="append", help="application, small-files or big-file")
    parser.add_argument("--here", action="store_true", help="on the file system of build/bench")
    options = parser.parse_args()
    rounds = 1 if options.quick else options.rounds
    chosen = options.package or ([APPLICATION.name] if options.quick else None)
    works = [w for w in (APPLICATION, SMALL_FILES, BIG_FILE) if chosen is None or w.name in chosen]
    for work in {APPLICATION, *works}:
        work.make()
    bench = Bench(stages_only=chosen is not None, here=options.here)
    try:
        for number in range(rounds):
            print(f"round {number + 1} of {rounds}, seconds of the updater/of the tools", flush=True)
            for work in works:
                bench.round(work, number)
        print_table(bench, rounds)
        if not bench.stages_only:
            print_memory(bench)
            print_window(bench)
            print_collector(bench)
            print_redaction(bench)
    finally:
        bench.close()


if __name__ == "__main__":
    main()
