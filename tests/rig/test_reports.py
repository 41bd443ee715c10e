"""What a failed run sends, to which origins, and what it never sends.

The report origins are compiled into the updater. So this endpoint listens on their port, at a loopback
address that no other run uses, and only here do the report hosts and the foreign host resolve to it.
"""

import json
import os
import re
import time
import unittest

import end_to_end as e2e
from end_to_end import Run
from rig import certificates, packages, places, programs
from rig.https_server import HttpsServer, Reply, Request, redirect
from rig.updater_run import Outcome, Scene

PATH = "/v1/diagnostics/report"
OK = Reply(body=b"{}")
DRAIN_SECONDS = 15  # the end of the process waits so long for the upload
REQUEST_SECONDS = 6 + 4  # the time-out of a request, and a margin for a slow machine
EARLIER = b'{"schema_name":"qorva.diagnostics.report","kind":"earlier"}'
NOT_FOUND = "Update download failed: Update download HTTP status 404"


class ReportRuns(e2e.EndToEnd):
    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        pid = os.getpid()
        address = f"127.{1 + pid // 62500 % 250}.{pid // 250 % 250}.{1 + pid % 250}"
        try:
            cls.endpoint = HttpsServer(certificates.make_authority("trusted"),
                                       certificates.make_authority("stranger"), address, places.REPORT_PORT)
        except PermissionError as refused:
            raise unittest.SkipTest(f"this user may not listen on port {places.REPORT_PORT}: {refused}")
        cls.addClassCleanup(cls.endpoint.__exit__)
        hosts = places.RIG_HOME / f"hosts-{address}"
        here = (*places.REPORT_HOSTS, places.FOREIGN_HOST)
        hosts.write_text("".join(f"{address if host in here else '127.0.0.1'} {host}\n"
                                 for host in (*places.HOSTS, *places.REPORT_HOSTS)))
        cls.addClassCleanup(hosts.unlink)
        cls.sandbox.hosts_file = hosts

    def setUp(self) -> None:
        self.answer(OK, OK)

    def answer(self, *replies: Reply) -> None:
        """Sets the answers of both origins and forgets the posts so far."""
        self.endpoint.seen.clear()
        for host, reply in zip(places.REPORT_HOSTS, replies):
            self.endpoint.on(host, PATH, reply)

    def posts(self) -> list[Request]:
        return [request for request in self.endpoint.requests() if request.method == "POST"]

    def run_failing(self, scene: Scene, case: Run | None = None, message: str = NOT_FOUND, **options) -> Outcome:
        """A run that fails with this message; by default the server does not have its package."""
        case = case or Run("", query="?token=zzqtoken", primary=Reply(status=404))
        outcome = self.begin(scene, case, **options).finish()
        self.assertEqual(2, outcome.exit_code, (outcome.dialogs, self.log(scene)))
        self.assertTrue(self.plain(scene, outcome.dialogs[0].text).startswith(message), outcome.dialogs)
        return outcome

    def queued(self, scene: Scene) -> list[dict]:
        return [json.loads(file.read_text("utf-8")) for file in sorted(scene.reports.glob("*.json"))]

    def log(self, scene: Scene) -> str:
        (log,) = (scene.updater.parent / "logs").glob("qorva_updater_*.log")
        return log.read_text("utf-8")


class Delivery(ReportRuns):
    def test_a_failed_run_is_reported_once_and_leaves_nothing(self) -> None:
        scene = self.scene("delivered")
        self.run_failing(scene)
        (post,) = self.posts()
        self.assertEqual((places.REPORT_HOSTS[0], PATH, "POST"), (post.host, post.path, post.method))
        self.assertEqual("application/json", post.headers["content-type"])
        self.assertEqual("QORVA Diagnostics/1.0", post.headers["user-agent"])
        report = json.loads(post.body)
        self.assertEqual(("updater_error", NOT_FOUND), (report["kind"], report["reason"]))
        self.assertEqual(("error", "[redacted-path]"), (report["details"]["stage"], report["details"]["target_dir"]))
        self.assertIn('"stage":"download_primary_fail"', report["report_text"])
        (attempt,) = report["upload_attempts"]
        self.assertEqual(("attempting", "primary", len(post.body)),
                         (attempt["result"], attempt["origin_role"], attempt["payload_size_bytes"]))
        self.assertEqual(([], []), (self.queued(scene), list(scene.crashes.glob("session_state/*"))))
        for line in ("Diagnostics report queued: qorva_updater_error_",
                     "Diagnostics uploader: pending reports=1", " -> primary"):
            self.assertIn(line, self.log(scene))

    def test_the_mirror_gets_a_report_that_the_primary_refuses(self) -> None:
        foreign = self.endpoint.on(places.FOREIGN_HOST, PATH, OK)
        for name, reply in (
            ("redirect", redirect(foreign, 307)),
            ("cut", Reply(status=500, body=b"x" * 4000, cut_after=100)),
            ("silent", Reply(silent=True)),
        ):
            with self.subTest(name):
                scene = self.scene(name)
                self.answer(reply, OK)
                self.run_failing(scene)
                self.assertEqual(list(places.REPORT_HOSTS), [post.host for post in self.posts()])
                first, second = json.loads(self.posts()[1].body)["upload_attempts"]
                self.assertEqual([("failed", "primary"), ("attempting", "rf")],
                                 [(attempt["result"], attempt["origin_role"]) for attempt in (first, second)])
                self.assertTrue(first["transport_error"] or first["http_status"] not in range(200, 300))
                self.assertEqual([], self.queued(scene))
                self.assertIn("error_id=QORVA-DIAGNOSTICS-UPLOAD-FAILED", self.log(scene))

    def test_the_next_process_sends_a_report_that_no_origin_took(self) -> None:
        scene = self.scene("kept")
        self.answer(Reply(status=500), Reply(status=502))
        self.run_failing(scene)
        (kept,) = self.queued(scene)
        self.assertEqual([("primary", 500, "failed", "failure"), ("rf", 502, "failed", "failure")],
                         [tuple(attempt[key] for key in ("origin_role", "http_status", "result", "chain_event"))
                          for attempt in kept["upload_attempts"]])
        self.assertEqual(["failed", "rf", 502], [kept[f"last_upload_{key}"]
                                                 for key in ("status", "origin_role", "http_status")])
        self.assertEqual("failed", kept["upload_contract"]["result"])
        self.answer(OK, OK)
        self.run_failing(scene)
        self.assertEqual([1, 3], [len(json.loads(post.body)["upload_attempts"]) for post in self.posts()])
        self.assertEqual([], self.queued(scene))

    def test_reports_that_are_refused_do_not_keep_a_new_one_waiting(self) -> None:
        scene = self.scene("refused")
        packages.write_tree(scene.reports, {f"{number}.json": EARLIER for number in range(25)})
        self.answer(Reply(status=413), Reply(status=413))
        self.run_failing(scene)
        kinds = [json.loads(post.body)["kind"] for post in self.posts()]
        self.assertEqual(["updater_error"] * 2 + ["earlier"] * 48, kinds)
        self.assertEqual(26, len(self.queued(scene)))

    def test_a_report_has_its_own_run_at_the_end_of_a_long_trace(self) -> None:
        scene = self.scene("long trace")
        scene.trace_path.parent.mkdir(parents=True)
        with open(scene.trace_path, "w", encoding="utf-8", newline="\n") as trace:
            for run in range(10):  # as long as ten updates of 300 MB
                event = {"action_id": "update.download", "correlation_id": f"update-176986260512{run}-0",
                         "origin_role": "primary", "stage": "download_progress", "ts": "2026-01-31T12:30:05Z",
                         "url": f"https://{places.PRIMARY_HOST}/releases/package.zip"}
                for number in range(300):
                    line = {**event, "bytes_downloaded": str(number << 20)}
                    trace.write(json.dumps(line, sort_keys=True, separators=(",", ":")) + "\n")
        self.assertGreater(scene.trace_path.stat().st_size, 600_000)
        self.run_failing(scene)
        (post,) = self.posts()
        events = [json.loads(line) for line in json.loads(post.body)["report_text"].splitlines()]
        self.assertEqual(["updater_run_start", "download_primary_fail"],
                         [events[end]["stage"] for end in (0, -1)])
        self.assertEqual(1, len({event["correlation_id"] for event in events}))

    def test_a_hanging_request_delays_the_end_by_a_bounded_time(self) -> None:
        for name, reply in (("silent", Reply(silent=True)),
                            ("dripping", Reply(body=b"x" * 60_000, bytes_per_second=2, block=1))):
            with self.subTest(name):
                scene = self.scene(f"hangs {name}")
                packages.write_tree(scene.reports, {f"{number}.json": EARLIER for number in range(3)})
                self.answer(reply, reply)
                boxes: list[float] = []
                self.run_failing(scene, on_box=lambda: boxes.append(time.monotonic()))
                self.assertLess(time.monotonic() - boxes[0], DRAIN_SECONDS + REQUEST_SECONDS)
                self.assertEqual(4, len(self.queued(scene)), "a report was lost")
                self.assertIn("drain timed out after 15000 ms; requesting cancellation", self.log(scene))
                self.assertIn("cancellation completed; owned upload worker joined.", self.log(scene))


# Each secret has a word that occurs nowhere else, so that also a part of a secret is found.
WORD = re.compile(r"zzq[a-zžýáí]+")
HOME = "C:\\Users\\Zzquser Zzqsurname\\Zzqfolder zzqblank"
UNC = "\\\\zzqserver\\zzqshare zzqpublic\\zzqorders"
EXTENSIONS = "png jpg jpeg tif tiff pdf zip prt prn txt log dmp zulcolor".split()
URL_PRIVATE = ("?token=zzqquery&license_key=zzqlicence-1234&mail=zzqperson@zzqmail.example"
               "#customer_name=zzqfragment")
PRIMARY = f"https://{places.PRIMARY_HOST}/p.zip"


def forms(word: str) -> list[bytes]:
    """The word as it may occur in a body: plain, or escaped once or twice as in JSON inside JSON."""
    escaped = json.dumps(word)[1:-1]
    texts = {word, escaped, json.dumps(escaped)[1:-1]}
    return [text.encode(code).lower() for text in texts for code in ("utf-8", "utf-16-le", "utf-16-be")]


class Privacy(ReportRuns):
    def assert_nothing_private(self, scene: Scene, *more: str) -> list[dict]:
        """Expects that all reports were posted and have neither a planted word nor the scene's own names."""
        self.assertEqual([], self.queued(scene))
        bodies = [post.body for post in self.posts()]
        self.assertTrue(bodies, "nothing was posted")
        for body in bodies:
            text = body.decode().lower()
            self.assertEqual([], WORD.findall(text) + WORD.findall(json.dumps(json.loads(text))), text)
            for form in (form for word in (scene.user, "žluť", *more) for form in forms(word)):
                self.assertNotIn(form, body.lower())
            # UTF-16 copied into a narrow text has a zero after each letter.
            self.assertNotIn("zzq".encode("utf-16-le"), body.lower())
            self.assertNotIn(r"z\u0000z\u0000q", text)
        return [json.loads(body) for body in bodies]

    def test_hides_arguments(self) -> None:
        base = {"pid": "0", "download-url": PRIMARY, "sha256": "0" * 64}
        for name, change in {
            "folders": {"target-dir": HOME, "restart-exe": UNC + "\\zzqapp.exe"},
            "folders in long form": {"target-dir": "\\\\?\\" + HOME,
                                     "restart-exe": "\\\\?\\UNC\\zzqžluťserver\\zzq share\\zzq app.exe"},
            "restart arguments": {"restart-args": "--token=zzqtoken --password zzqsecret zzqargument"},
            "a file name": {"required-payload-file": "zzqdir/zzqartwork zzqblank.tif"},
            "user information": {"download-url": f"https://zzqlogin:zzqword@{places.PRIMARY_HOST}/p.zip"},
            "URLs": {"download-url": PRIMARY + URL_PRIVATE, "sha256": "zzqdigest",
                     "fallback-download-url": f"https://{places.MIRROR_HOST}/zzqperson%40zzqmail.example/"
                                              "a%20zzqblank.zip" + URL_PRIVATE},
        }.items():
            with self.subTest(name):
                self.answer(OK, OK)
                scene = self.scene(name)
                installed = {"target-dir": scene.windows(scene.install),
                             "restart-exe": scene.windows(scene.install / packages.APPLICATION)}
                switches = [f"--{key}={value}" for key, value in {**base, **installed, **change}.items()]
                outcome = scene.run([*switches, "--unknown=zzqunknown", "zzqpositional@zzqmail.example"])
                self.assertEqual(2, outcome.exit_code, (outcome.dialogs, self.log(scene)))
                self.assert_nothing_private(scene)

    def test_hides_urls_and_names_in_a_package(self) -> None:
        names = [f"zzqorders/Acme Zzqcustomer/zzqart{extension} zzqblank.{extension}" for extension in EXTENSIONS]
        names += ["job_name=zzqjob zzqcards, zzqmore.dat", "zzqperson@zzqmail.example/token=zzqtoken.bin"]
        payload = {**self.payload, **dict.fromkeys(names, b"x")}
        package = packages.zip_of(payload)
        for case, message in (
            (Run("no such required file", package=package, arguments={"required": ("missing.dll",)}),
             "Update package contract"),
            (Run("an error page", primary=Reply(status=404, body=b"zzqbody")), NOT_FOUND),
            (Run("a redirect", primary=redirect(f"https://{places.FOREIGN_HOST}/zzqpath zzqmore" + URL_PRIVATE)),
             "Update download failed"),
        ):
            with self.subTest(case.name):
                self.answer(OK, OK)
                case.query = URL_PRIVATE
                scene = self.scene(case.name)
                self.run_failing(scene, case, message)
                (report,) = self.assert_nothing_private(scene)
                self.assertEqual(case.name == "no such required file", "missing: missing.dll" in report["reason"])

    def test_hides_the_paths_of_a_failed_apply(self) -> None:
        scene = self.scene("apply")
        held = "zz_last.dat"
        with programs.Hold(self.sandbox, scene.install / held):
            self.run_failing(scene, Run("", query=URL_PRIVATE), "Automatic update failed during apply stage.")
        (report,) = self.assert_nothing_private(scene, held)
        self.assertIn("target='[redacted-path]', reason=permission_or_lock", report["reason"])
        self.assertEqual("apply", report["details"]["stage"])
