"""Where the package comes from: both layouts from the primary, the mirror in its cases, and every
origin that must be refused."""

import re
import unittest

import end_to_end as e2e
import packages
import places
import trace_log
from end_to_end import Failure
from https_server import Reply, redirect

PRIMARY_FAILED = [*e2e.PREPARED, *e2e.NOT_FETCHED, "download_primary_fail"]
MIRROR_OK = [*e2e.FETCHED, *e2e.VERIFIED, "download_fallback_ok", "download_selected"]
REST = e2e.SUCCESS[len(e2e.SELECTED):]
MISMATCH = "Downloaded package checksum mismatch."


class Origins(e2e.EndToEnd):
    def update(self, name: str, primary: Reply, mirror: Reply | None = None, *, query: str = "",
               package: bytes | None = None):
        scene = self.scene(name)
        request = {"url": self.serve(scene, places.PRIMARY_HOST, primary) + query,
                   "sha256": packages.sha256_of(package or self.good_package)}
        if mirror:
            request["fallback"] = self.serve(scene, places.MIRROR_HOST, mirror) + query
        return scene, scene.run(scene.arguments(**request))

    def test_updates_from_the_primary(self) -> None:
        package = packages.zip_of(self.payload, wrapper="QORVA-2.0/", level=9)
        scene, outcome = self.update("wrapped", Reply(body=package), package=package)
        self.assert_updated(scene, outcome)
        self.assert_trace(scene, outcome, e2e.SUCCESS)
        (request,) = self.server.requests(f"/{scene.folder.name}/")
        self.assertEqual("zul_updater/1.0", request.headers["user-agent"])
        install = scene.windows(scene.install)
        self.assert_details(outcome, {
            "updater_run_start": {"pid": "0", "target_dir": install, "fallback_download_url": "",
                                  "restart_exe": f"{install}\\{packages.APPLICATION}",
                                  "require_signed_payload_binaries": "0",
                                  "trace_log_path": scene.windows(scene.trace_path)},
            "download_complete": {"origin_role": "primary", "bytes_downloaded": str(len(package))},
            "checksum_verify": {"phase": "ok", "checksum_stage": "ok", "origin_role": "primary"},
            "apply_ok": {"target_dir": install},
            "retired_install_executable_removed": {"rollback": "protected"},
            "restart_start": {"restart_mode": "normal_gui"},
        })
        removed = [event["path"] for event in outcome.trace if "retired" in event["stage"]]
        self.assertEqual([name for name in packages.RETIRED_NAMES if name in self.installed], removed)

    def test_a_token_in_the_query_is_sent_and_never_written(self) -> None:
        # A chunked answer has no length, a redirect inside the list is followed, and such a URL does
        # not end in ".zip", so that the first bytes decide.
        elsewhere = self.server.on(places.DISTRIBUTION_HOST, "/query/package.bin",
                                   Reply(body=self.good_package, chunked=True))
        scene, outcome = self.update("query", redirect(elsewhere + "?token=secret"), query="?token=secret")
        self.assert_updated(scene, outcome)
        self.assert_trace(scene, outcome, e2e.SUCCESS)
        self.assert_details(outcome, {"download_redirect_resolution": {"effective_url": elsewhere}})
        self.assertEqual("/query/package.bin?token=secret", self.server.requests("/query/")[-1].path)
        self.assertNotIn("secret", scene.trace_path.read_text("utf-8"))

    def test_two_runs_in_one_trace_have_ids_of_their_own(self) -> None:
        scene, first = self.update("twice", Reply(status=404))
        second = scene.run(scene.arguments(url=first.trace[0]["download_url"], sha256="0" * 64))
        ids = {event["correlation_id"] for event in second.trace}
        self.assertEqual((2, 2 * len(first.trace)), (len(ids), len(second.trace)))

    def test_updates_from_the_mirror(self) -> None:
        good = Reply(body=self.good_package)
        unverified = [*e2e.PREPARED, *e2e.FETCHED, *e2e.VERIFIED, "checksum_primary_fail"]
        for name, primary, start in [
            ("after a 503", Reply(status=503, body=b"busy"), PRIMARY_FAILED),
            ("after an untrusted redirect", redirect(self.server.url(places.UNTRUSTED_HOST, "/x.zip")),
             PRIMARY_FAILED),
            ("after a wrong checksum", Reply(body=packages.noise(300_000, "wrong")), unverified),
            ("after a cut transfer", Reply(body=self.good_package, cut_after=70_000), unverified),
        ]:
            with self.subTest(name):
                scene, outcome = self.update(name, primary, good)
                self.assert_updated(scene, outcome)
                self.assert_trace(scene, outcome, [*start, *MIRROR_OK, *REST])
                url = self.server.url(places.MIRROR_HOST, f"/{scene.folder.name}/package.zip")
                self.assert_details(outcome, {"download_selected": {"selected_url": url},
                                              "download_complete": {"origin_role": "rf_fallback"}})

    def hops(self, name: str, count: int) -> Reply:
        """An answer that is `count` redirects away from the package, over two hosts in turn."""
        reply = Reply(body=self.good_package)
        for number in range(count):
            host = (places.PRIMARY_HOST, places.DISTRIBUTION_HOST)[number % 2]
            reply = redirect(self.server.on(host, f"/{name}/{number}", reply))
        return reply

    def test_takes_the_package_however_it_is_sent(self) -> None:
        good = self.good_package
        for name, primary in [
            ("ten redirects", self.hops("ten", 10)),
            ("declares more than it sends", Reply(body=good, declared_length=len(good) + 1000)),
            ("declares nothing", Reply(body=good, declared_length=None)),
            ("small chunks", Reply(body=good, chunked=True, block=97)),
            ("partial content", Reply(status=206, body=good)),
        ]:
            with self.subTest(name):
                scene, outcome = self.update(name, primary)
                self.assert_updated(scene, outcome)

    def test_refuses_transfers_that_are_not_the_package(self) -> None:
        good = self.good_package
        mismatch = f"Update checksum validation failed: {MISMATCH}"
        lost = re.compile(r"Update download failed: WinHTTP send/receive failed \(code=\d+\)")
        loop = self.server.on(places.PRIMARY_HOST, "/loop/a", redirect(
            self.server.url(places.DISTRIBUTION_HOST, "/loop/b")))
        self.server.on(places.DISTRIBUTION_HOST, "/loop/b", redirect(loop))
        fetched = [*e2e.PREPARED, *e2e.FETCHED, *e2e.VERIFIED]
        self.check_failures([Failure(name, mismatch, fetched, primary=primary, kept=(e2e.PACKAGE,),
                                     details={"download_complete": {"bytes_downloaded": str(taken)}})
                             for name, primary, taken in (
            # Nothing bounds a drip: only its end does.
            ("drip", Reply(body=good[:8], declared_length=None, bytes_per_second=1, block=1), 8),
            ("declares less than it sends", Reply(body=good, declared_length=len(good) - 1000), len(good) - 1000),
            # On Windows the read fails instead, and the mirror would be asked.
            ("reset", Reply(body=good, cut_after=70_000, reset=True), 70_000),
            ("chunks cut off", Reply(body=good, cut_after=70_000, chunked=True), 70_000),
            ("half as partial content", Reply(status=206, body=good[:50_000]), 50_000),
            ("no content", Reply(status=204, declared_length=None), 0))])
        self.check_failures([Failure(name, lost, PRIMARY_FAILED, primary=primary,
                                     details={"download_fail": {"reason": "winhttp_send_receive",
                                                                "failure_kind": "transport"}})
                             for name, primary in (("redirect loop", redirect(loop)),
                                                   ("eleven redirects", self.hops("eleven", 11)))])

    def test_refuses_origins_without_touching_the_installation(self) -> None:
        failed = [*PRIMARY_FAILED]
        unverified = [*e2e.PREPARED, *e2e.FETCHED, *e2e.VERIFIED]
        wrong = Reply(body=packages.noise(50_000, "wrong"))
        foreign = self.server.on(places.FOREIGN_HOST, "/foreign.zip", Reply(body=self.good_package))
        self.check_failures([
            # A client error is the request's fault: no mirror can cure it.
            Failure("not found", "Update download failed: Update download HTTP status 404", failed,
                    primary=Reply(status=404), mirror=Reply(body=self.good_package),
                    details={"download_fail": {"reason": "http_status", "http_status": "404",
                                               "failure_kind": "http_status", "origin_role": "primary"},
                             "download_primary_fail": {"failure_kind": "http_status",
                                                       "http_status": "404", "bytes_downloaded": "0"}}),
            Failure("both origins",
                    "Update download failed on primary and RF fallback: Update download HTTP status 502",
                    [*failed, *e2e.NOT_FETCHED, "download_fallback_fail"],
                    primary=Reply(status=503), mirror=Reply(status=502),
                    details={"download_primary_fail": {"http_status": "503"},
                             "download_fallback_fail": {"http_status": "502"}}),
            Failure("redirect off the list",
                    f"Update download failed: Update download host is not allowed: {places.FOREIGN_HOST}",
                    failed, primary=redirect(foreign),
                    details={"download_fail": {"reason": "effective_url_host_allowlist",
                                               "effective_url": foreign,
                                               "failure_kind": "transport"}}),
            Failure("downgrade redirect",
                    re.compile(r"Update download failed: WinHTTP send/receive failed \(code=\d+\)"),
                    failed, primary=redirect(self.server.plain_url(places.PRIMARY_HOST, "/p.zip")),
                    details={"download_fail": {"reason": "winhttp_send_receive",
                                               "failure_kind": "transport"}}),
            Failure("untrusted certificate",
                    re.compile(r"Update download failed: WinHTTP send/receive failed \(code=\d+\)"),
                    failed, arguments={"url": self.server.url(places.UNTRUSTED_HOST, "/u/p.zip")},
                    details={"download_fail": {"reason": "winhttp_send_receive",
                                               "failure_kind": "transport"}}),
            Failure("declared too large",
                    "Update download failed: Update package exceeds maximum allowed size", failed,
                    primary=Reply(body=b"x", declared_length=(1 << 30) + 1),
                    details={"download_fail": {"reason": "content_length_cap",
                                               "declared_size": str((1 << 30) + 1),
                                               "failure_kind": "http_status"}}),
            Failure("wrong checksum", f"Update checksum validation failed: {MISMATCH}", unverified,
                    primary=wrong, kept=(e2e.PACKAGE,),
                    details={"checksum_verify": {"phase": "fail", "error": MISMATCH}}),
            Failure("empty body", f"Update checksum validation failed: {MISMATCH}", unverified,
                    primary=Reply(), kept=(e2e.PACKAGE,)),
            Failure("wrong checksum on both",
                    f"Update checksum validation failed on RF fallback: {MISMATCH}",
                    [*unverified, "checksum_primary_fail", *e2e.FETCHED, *e2e.VERIFIED],
                    primary=wrong, mirror=wrong, kept=(e2e.PACKAGE,)),
        ])
        self.assertFalse([r for r in self.server.requests() if not r.secure], "asked in plain text")
        self.assertEqual([], self.server.requests("/u/"), "sent a request to an untrusted server")


class Endless(e2e.EndToEnd):
    """Takes a gigabyte before it gives up, so it runs beside everything else."""

    def test_stops_at_the_largest_size_of_a_package(self) -> None:
        self.check_failure(Failure(
            "endless", "Update download failed: Update package exceeds maximum allowed size",
            [*e2e.PREPARED, "download_start", "download_redirect_resolution", "download_fail",
             "download_primary_fail"],
            primary=Reply(body=bytes(1 << 18), declared_length=None, endless=True), kept=(e2e.PACKAGE,),
            details={"download_fail": {"reason": "download_size_cap", "failure_kind": "file_io"}}))


class Stall(e2e.EndToEnd):
    """Costs the updater's real 30 s of patience, so it runs beside everything else."""

    def test_updates_from_the_mirror_after_a_stalled_primary(self) -> None:
        scene = self.scene("stall")
        package = packages.zip_of(self.payload, ("filler.bin", packages.noise(3 << 20, "filler")))
        stalled = Reply(body=package, stall_after=2_200_000)
        outcome = scene.run(scene.arguments(
            url=self.serve(scene, places.PRIMARY_HOST, stalled),
            fallback=self.serve(scene, places.MIRROR_HOST, Reply(body=package)),
            sha256=packages.sha256_of(package)))
        payload = {**self.payload, "filler.bin": packages.noise(3 << 20, "filler")}
        self.assert_updated(scene, outcome, payload)
        self.assertGreater(outcome.seconds, 29)
        self.assert_trace(scene, outcome, [
            *e2e.PREPARED, "download_start", "download_redirect_resolution", "download_fail",
            "download_primary_fail", *MIRROR_OK, *REST])
        # Windows tells a time-out from a broken connection; Wine does not.
        (failed,) = (event for event in outcome.trace if event["stage"] == "download_primary_fail")
        self.assertIn(failed["failure_kind"], ("timeout", "transport"))
        self.assertEqual("2200000", failed["bytes_downloaded"])
        progress = [int(event["bytes_downloaded"]) for event in outcome.trace
                    if event["stage"] == "download_progress" and event["origin_role"] == "primary"]
        self.assertEqual(2, len(progress), trace_log.names(outcome.trace))


if __name__ == "__main__":
    unittest.main()
