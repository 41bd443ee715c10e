"""Where the package comes from: what the platform's HTTP client makes of odd servers, redirects and
certificates. The choice between the origins is decided natively, in tests/update/driver_test.cpp."""

import end_to_end as e2e
from end_to_end import Run
from rig import packages, places, trace_log
from rig.https_server import Reply, redirect

FROM_MIRROR = [*e2e.FETCHED[1:], "download_fallback_ok", "download_selected", *e2e.SUCCESS[len(e2e.SELECTED):]]
FAILED = "Update download failed: "
LOST = FAILED + "WinHTTP send/receive failed (code=N)"
TRANSPORT = {"download_fail": {"reason": "winhttp_send_receive", "failure_kind": "transport"}}
MISMATCH = "Downloaded package checksum mismatch."
TOO_LARGE = FAILED + "Update package exceeds maximum allowed size"


class Origins(e2e.EndToEnd):
    def hops(self, count: int) -> Reply:
        """The first of `count` redirects, alternately to two hosts, of which the last leads to the package."""
        reply = Reply(body=self.good_package)
        for number in range(count):
            host = (places.PRIMARY_HOST, places.DISTRIBUTION_HOST)[number % 2]
            reply = redirect(self.server.on(host, f"/{count}-hops/{number}", reply))
        return reply

    def test_updates(self) -> None:
        self.check(Run("ten redirects", events=e2e.SUCCESS, primary=self.hops(10)))
        self.check(Run("declares more than it sends", events=e2e.SUCCESS, primary=Reply(
            body=self.good_package, declared_length=len(self.good_package) + 1000)))

    def test_writes_each_step_to_the_trace(self) -> None:
        package = packages.zip_of(self.payload, wrapper="QORVA-2.0/", level=9)
        scene, outcome = self.check(Run("wrapped", events=e2e.SUCCESS, package=package, details={
            "updater_run_start": {"pid": "0", "target_dir": "<install>", "fallback_download_url": "",
                                  "restart_exe": f"<install>\\{packages.APPLICATION}",
                                  "require_signed_payload_binaries": "0"},
            "download_complete": {"origin_role": "primary", "bytes_downloaded": str(len(package))},
            "checksum_verify": {"phase": "ok", "checksum_stage": "ok", "origin_role": "primary"},
            "apply_ok": {"target_dir": "<install>"},
            "retired_install_executable_removed": {"rollback": "protected"},
            "restart_start": {"restart_mode": "normal_gui"}}))
        (request,) = self.server.requests(f"/{scene.folder.name}/")
        self.assertEqual("zul_updater/1.0", request.headers["user-agent"])
        self.assertEqual(scene.windows(scene.trace_path), outcome.trace[0]["trace_log_path"])
        removed = [event["path"] for event in outcome.trace if "retired" in event["stage"]]
        self.assertEqual([name for name in packages.RETIRED_NAMES if name in self.installed], removed)

    def test_sends_the_query_of_a_url_and_never_writes_it(self) -> None:
        # This URL does not end in ".zip", so the first bytes decide about the format.
        elsewhere = self.server.on(places.DISTRIBUTION_HOST, "/query/package.bin",
                                   Reply(body=self.good_package, chunked=True, block=97))
        scene, _ = self.check(Run("query", events=e2e.SUCCESS, query="?token=secret",
                                  primary=redirect(elsewhere + "?token=secret"),
                                  details={"download_redirect_resolution": {"effective_url": elsewhere}}))
        self.assertEqual("/query/package.bin?token=secret", self.server.requests("/query/")[-1].path)
        self.assertNotIn("secret", scene.trace_path.read_text("utf-8"))

    def test_updates_from_the_mirror(self) -> None:
        untrusted = redirect(self.server.url(places.UNTRUSTED_HOST, "/x.zip"))
        unverified = [*e2e.FETCHED, "checksum_primary_fail"]
        for name, primary, events in (
                ("after an untrusted redirect", untrusted, e2e.NOT_FETCHED),
                ("after a cut transfer", Reply(body=self.good_package, cut_after=70_000), unverified),
                ("after a reset", Reply(body=self.good_package, cut_after=70_000, reset=True), e2e.BROKEN_OFF)):
            with self.subTest(name):
                self.check(Run(name, events=[*events, *FROM_MIRROR], primary=primary,
                               mirror=Reply(body=self.good_package),
                               details={"download_complete": {"origin_role": "rf_fallback"}}))

    def test_refuses_transfers_that_are_not_the_package(self) -> None:
        good = self.good_package
        for name, primary, taken in (
                # No limit applies to a slow server that never pauses for long: only its end does.
                ("drip", Reply(body=good[:8], declared_length=None, bytes_per_second=1, block=1), 8),
                ("declares less than it sends", Reply(body=good, declared_length=len(good) - 1000), len(good) - 1000),
                ("chunks cut off", Reply(body=good, cut_after=70_000, chunked=True), 70_000)):
            with self.subTest(name):
                self.check(Run(name, 2, f"Update checksum validation failed: {MISMATCH}", e2e.FETCHED,
                               primary=primary, kept=(e2e.PACKAGE,),
                               details={"download_complete": {"bytes_downloaded": str(taken)},
                                        "checksum_verify": {"phase": "fail", "error": MISMATCH}}))
        wrong = Reply(body=packages.noise(50_000, "wrong"))
        self.check(Run("wrong checksum on both", 2, f"Update checksum validation failed on RF fallback: {MISMATCH}",
                       [*e2e.FETCHED, "checksum_primary_fail", *e2e.FETCHED[1:]], primary=wrong, mirror=wrong,
                       kept=(e2e.PACKAGE,)))

    def test_refuses_origins(self) -> None:
        foreign = self.server.on(places.FOREIGN_HOST, "/foreign.zip", Reply(body=self.good_package))
        self.check_all([
            Run("redirect off the list", 2, FAILED + f"Update download host is not allowed: {places.FOREIGN_HOST}",
                e2e.NOT_FETCHED, primary=redirect(foreign), kept=(),
                details={"download_fail": {"reason": "effective_url_host_allowlist", "effective_url": foreign,
                                           "failure_kind": "transport"}}),
            Run("downgrade redirect", 2, LOST, e2e.NOT_FETCHED, kept=(), details=TRANSPORT,
                primary=redirect(self.server.plain_url(places.PRIMARY_HOST, "/p.zip"))),
            Run("untrusted certificate", 2, LOST, e2e.NOT_FETCHED, kept=(), details=TRANSPORT,
                arguments={"url": self.server.url(places.UNTRUSTED_HOST, "/u/p.zip")}),
            Run("eleven redirects", 2, LOST, e2e.NOT_FETCHED, kept=(), details=TRANSPORT, primary=self.hops(11))])
        self.assertFalse([r for r in self.server.requests() if not r.secure], "a request was sent in plain text")
        self.assertEqual([], self.server.requests("/u/"), "a request was sent to an untrusted server")

    def test_two_runs_in_one_trace_have_ids_of_their_own(self) -> None:
        scene = self.scene("twice")
        first, second = (self.begin(scene, Run("", primary=Reply(status=404))).finish() for _ in range(2))
        ids = {event["correlation_id"] for event in second.trace}
        self.assertEqual((2, 2 * len(first.trace)), (len(ids), len(second.trace)))


class Endless(e2e.EndToEnd):
    """The updater reads a gigabyte before it gives up, so this runs beside all other tests."""

    def test_stops_at_the_largest_size_of_a_package(self) -> None:
        self.check(Run("endless", 2, TOO_LARGE, e2e.BROKEN_OFF, kept=(e2e.PACKAGE,),
                       primary=Reply(body=bytes(1 << 18), declared_length=None, endless=True),
                       details={"download_fail": {"reason": "download_size_cap", "failure_kind": "file_io"}}))


class Stall(e2e.EndToEnd):
    """The updater waits for 30 s, so this runs beside all other tests."""

    def test_updates_from_the_mirror_after_a_stalled_primary(self) -> None:
        payload = {**self.payload, "filler.bin": packages.noise(3 << 20, "filler")}
        package = packages.zip_of(payload)
        _, outcome = self.check(Run(
            "stall", events=[*e2e.BROKEN_OFF, *FROM_MIRROR], package=package, payload=payload,
            primary=Reply(body=package, stall_after=2_200_000), mirror=Reply(body=package),
            details={"download_primary_fail": {"bytes_downloaded": "2200000"}}))
        self.assertGreater(outcome.seconds, 29)
        # Windows distinguishes a time-out from a broken connection; Wine does not.
        (failed,) = (event for event in outcome.trace if event["stage"] == "download_primary_fail")
        self.assertIn(failed["failure_kind"], ("timeout", "transport"))
        progress = [event for event in outcome.trace
                    if event["stage"] == "download_progress" and event["origin_role"] == "primary"]
        self.assertEqual(2, len(progress), trace_log.names(outcome.trace))
