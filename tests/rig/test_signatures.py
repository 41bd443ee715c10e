"""Payloads whose binaries must be signed: by a publisher that the prefix trusts, by an unknown publisher,
with an expired certificate, changed after the signing, or unsigned."""

import json

import end_to_end as e2e
from end_to_end import Run, apply_box
from rig import certificates, packages, programs, trace_log

BINARIES = (packages.APPLICATION, "qorva_updater.exe", "resources/color_engine.DLL")
REQUIRED = "--require-signed-payload-binaries=1"
CHECKED = "payload_binary_signature_validate"
CHAIN = [*trace_log.CHAIN_BEFORE_REMOVALS, CHECKED, *e2e.RETIRED, *trace_log.CHAIN_AFTER_REMOVALS]


class Signatures(e2e.EndToEnd):
    @classmethod
    def setUpClass(cls) -> None:
        super().setUpClass()
        plain = programs.TEST_APPLICATION_2.read_bytes()
        trusted, stranger = map(certificates.make_authority, ("trusted", "stranger"))
        cls.signed = trusted.sign(plain)
        tampered = bytearray(cls.signed)
        tampered[len(plain) // 2] ^= 1
        cls.refused = {  # name: (binary, status, detail)
            "unsigned": (plain, 1, "unsigned"),
            "not a program": (b"MZ without more", 1, "unsigned"),
            "tampered": (bytes(tampered), 2, "WinVerifyTrust status=-2146869232"),  # TRUST_E_BAD_DIGEST
            "untrusted": (stranger.sign(plain), 2, "WinVerifyTrust status=-2146762487"),  # CERT_E_UNTRUSTEDROOT
            "expired": (trusted.sign(plain, "expired"), 2, "WinVerifyTrust status=-2146762495")}  # CERT_E_EXPIRED
        cls.payload = {**cls.payload, **{name: cls.signed for name in BINARIES}}
        cls.payload.pop("color_engine.dll")
        cls.good_package = packages.zip_of(cls.payload)

    def test_installs_binaries_of_a_trusted_publisher(self) -> None:
        self.check(Run("trusted", events=CHAIN, more=(REQUIRED,), details={
            "updater_run_start": {"require_signed_payload_binaries": "1"},
            CHECKED: {"checked_pe_files": "3", "policy": "require_trusted_authenticode"}}))

    def test_refuses_an_unknown_publisher_and_changes_nothing(self) -> None:
        error = (f"Staged update binary is not signed by a trusted publisher: '{BINARIES[2]}' "
                 "(invalid: WinVerifyTrust status=-2146762487)")
        package = packages.zip_of({**self.payload, BINARIES[2]: self.refused["untrusted"][0]})
        self.check(Run("untrusted", 2, apply_box(error), [*e2e.EXTRACTED, "apply_fail"], more=(REQUIRED,),
                       package=package, buttons=e2e.BUTTONS, kept=e2e.STAGED,
                       details={"apply_fail": {"error": error, "rollback_backup_root": ""}}))

    def test_gives_the_publisher_of_valid_signatures_only(self) -> None:
        scene = self.scene("probe")
        cases = {"valid": (self.signed, 0, "valid"), **self.refused}
        files = [scene.notes / f"{name}.exe" for name in cases]
        files.append(scene.notes.joinpath(*["a folder of forty characters, žluťoučký!"] * 8, "x.dll"))
        files[-1].parent.mkdir(parents=True)
        expected = []
        for file, (binary, status, detail) in zip(files, [*cases.values(), cases["valid"]]):
            file.write_bytes(binary)
            signer = "" if detail == "unsigned" else certificates.PUBLISHER
            expected.append({"status": status, "detail": detail, "signer": signer,
                             "publisher": "" if status else signer})
        printed = programs.tool(self.sandbox, "verify", *map(scene.windows, files))
        self.assertEqual(expected, [json.loads(line) for line in printed.splitlines()])
