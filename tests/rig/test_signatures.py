"""Payloads whose binaries must be signed: by a publisher that the prefix trusts, by nobody, by one
that it does not trust, by an expired certificate, or changed after the signing.

The publishers' certificates are themselves signed with SHA-1: Wine 8 has room for a digest of that
length only when it looks whether a certificate was disallowed, and passes any longer one without
asking whether its root is trusted.
"""

import json
import unittest

import certificates
import end_to_end as e2e
import packages
import places
import programs
import trace_log
from https_server import Reply
from test_apply import BOX_END, BOX_START, BUTTONS

BINARIES = (packages.APPLICATION, "qorva_updater.exe", "resources/color_engine.DLL")
REQUIRED = "--require-signed-payload-binaries=1"
CHECKED = ["payload_binary_signature_validate"]
PROOF = ".qorva_update_restart_proof.json"

UNSIGNED = "unsigned"
BAD_DIGEST = "WinVerifyTrust status=-2146869232"  # TRUST_E_BAD_DIGEST
UNTRUSTED_ROOT = "WinVerifyTrust status=-2146762487"  # CERT_E_UNTRUSTEDROOT
EXPIRED = "WinVerifyTrust status=-2146762495"  # CERT_E_EXPIRED


class Signatures(e2e.EndToEnd):
    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        plain = programs.TEST_APPLICATION_2.read_bytes()
        trusted = certificates.make_code_authority("trusted")
        stranger = certificates.make_code_authority("stranger")
        cls.signed = trusted.sign(plain)
        tampered = bytearray(cls.signed)
        tampered[len(plain) // 2] ^= 1
        cls.refused = {  # name: (binary, status, detail)
            "unsigned": (plain, 1, UNSIGNED),
            "not a program": (b"MZ, so it says", 1, UNSIGNED),
            "tampered": (bytes(tampered), 2, BAD_DIGEST),
            "untrusted": (stranger.sign(plain), 2, UNTRUSTED_ROOT),
            "expired": (trusted.sign(plain, trusted.expired), 2, EXPIRED)}
        cls.payload = {**cls.payload, **{name: cls.signed for name in BINARIES}}
        cls.payload.pop("color_engine.dll")

    def run_update(self, scene, payload: packages.Tree, *more: str):
        package = packages.zip_of(payload)
        return scene.run([*scene.arguments(
            url=self.serve(scene, places.PRIMARY_HOST, Reply(body=package)),
            sha256=packages.sha256_of(package)), REQUIRED, *more], button="cancel")

    def test_installs_what_a_trusted_publisher_signed(self) -> None:
        scene = self.scene("trusted")
        outcome = self.run_update(scene, self.payload)
        self.assert_updated(scene, outcome)
        self.assert_trace(scene, outcome, [*trace_log.CHAIN_BEFORE_REMOVALS, *CHECKED, *e2e.RETIRED,
                                           *trace_log.CHAIN_AFTER_REMOVALS])
        self.assert_details(outcome, {
            "updater_run_start": {"require_signed_payload_binaries": "1"},
            CHECKED[0]: {"checked_pe_files": "3", "policy": "require_trusted_authenticode"}})

    def test_installs_a_payload_without_binaries(self) -> None:
        scene = self.scene("none")
        package = packages.zip_of({"readme.txt": b"new"})
        outcome = scene.run([*scene.arguments(
            url=self.serve(scene, places.PRIMARY_HOST, Reply(body=package)),
            sha256=packages.sha256_of(package), required=("readme.txt",)), REQUIRED])
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_details(outcome, {CHECKED[0]: {"checked_pe_files": "0"}})
        self.assertEqual(b"new", (scene.install / "readme.txt").read_bytes())

    def test_proves_the_version_without_a_window(self) -> None:
        scene = self.scene("headless")
        outcome = self.run_update(scene, self.payload, "--headless-restart-version-proof=1")
        self.assertEqual((0, []), (outcome.exit_code, outcome.dialogs))
        self.assert_marks(scene, "start 2.0.0 qorva_gui.exe ",
                          "proof " + scene.windows(scene.install / PROOF))
        self.assert_details(outcome, {"restart_start": {"restart_mode": "headless_version_proof"}})
        self.assertEqual("2.0.0", json.loads((scene.install / PROOF).read_bytes())["version"])
        (scene.install / PROOF).unlink()
        self.assert_installed(scene, packages.updated_tree(self.installed, self.payload))
        self.assert_no_workspace(scene)

    def test_refuses_every_other_signature_and_changes_nothing(self) -> None:
        for (name, (binary, status, detail)), path in zip(self.refused.items(), BINARIES * 2):
            with self.subTest(name):
                scene = self.scene(name)
                outcome = self.run_update(scene, {**self.payload, path: binary})
                self.assertEqual(2, outcome.exit_code)
                error = ("Staged update binary is not signed by a trusted publisher: "
                         f"'{path}' ({('unsigned', 'invalid')[status - 1]}: {detail})")
                self.assert_dialog(outcome, BOX_START + error + BOX_END, buttons=BUTTONS)
                self.assert_trace(scene, outcome,
                                  [*e2e.SELECTED, *e2e.EXTRACTED, "apply_start", "apply_fail"])
                self.assert_details(outcome, {"apply_fail": {"error": error,
                                                             "rollback_backup_root": ""}})
                self.assert_installed(scene, self.installed)
                self.assert_workspace(scene, (e2e.PACKAGE, "stage"))
                self.assertEqual([], scene.running())

    def test_names_the_publisher_of_what_is_valid(self) -> None:
        scene = self.scene("probe")
        cases = {"valid": (self.signed, 0, "valid"), **self.refused}
        files = [scene.notes / f"{name}.exe" for name in cases]
        files.append(scene.notes.joinpath(*["a folder of forty characters, žluťoučký!"] * 8, "x.dll"))
        files[-1].parent.mkdir(parents=True)
        expected = []
        for file, (binary, status, detail) in zip(files, [*cases.values(), cases["valid"]]):
            file.write_bytes(binary)
            signer = "" if detail == UNSIGNED else certificates.PUBLISHER
            expected.append({"status": status, "detail": detail, "signer": signer,
                             "publisher": "" if status else signer})
        printed = self.sandbox.run(scene.windows(programs.SIGNATURE_PROBE),
                                   *map(scene.windows, files))
        self.assertEqual(expected, [json.loads(line) for line in printed.splitlines()])


if __name__ == "__main__":
    unittest.main()
