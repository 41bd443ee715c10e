"""Packages that arrive whole, with the right digest, and still must be refused."""

import unittest

import end_to_end as e2e
import packages
import places
from end_to_end import Failure
from https_server import Reply

UNEXTRACTED = [*e2e.SELECTED, "extract_start", "extract_fail"]
REFUSED = "Cannot extract update package: "
LAYOUT = ("Update package contract validation failed: Update package layout mismatch. "
          "Required files are missing: ")
LAYOUT_HINT = (" Supported layout is either flat ZIP root or a single top-level wrapper folder "
               "containing those files.")


class Packages(e2e.EndToEnd):
    def extraction(self, name: str, error: str, package: bytes) -> Failure:
        return Failure(name, REFUSED + error, UNEXTRACTED, package=package, kept=(e2e.PACKAGE,),
                       details={"extract_fail": {"error": error}})

    def layout(self, name: str, missing: str, payload: packages.Tree, *, hint: str = LAYOUT_HINT,
               required: tuple[str, ...] = (packages.APPLICATION,), wrapper: str = "") -> Failure:
        return Failure(name, LAYOUT + missing + "." + hint, UNEXTRACTED,
                       package=packages.zip_of(payload, wrapper=wrapper),
                       arguments={"required": required}, kept=(e2e.PACKAGE, "stage"),
                       details={"extract_fail": {"reason": "package_layout_contract"}})

    def test_refuses_packages_that_cannot_be_extracted(self) -> None:
        # What is refused at which archive stands in hostile_archives.py.
        self.check_failures([
            self.extraction("not a ZIP", "ZIP end record not found", packages.noise(80_000, "no zip")),
            self.extraction("wrong CRC", "ZIP entry CRC mismatch",
                            packages.with_damaged_entry(self.payload, "zz_last.dat")),
        ])

    def test_refuses_packages_that_break_the_layout_contract(self) -> None:
        without = {path: data for path, data in self.payload.items() if path != packages.APPLICATION}
        required = (packages.APPLICATION, "color_engine.dll")
        self.check_failures([
            self.layout("missing required file", packages.APPLICATION, without, required=required),
            self.layout("wrapped twice", ", ".join(required), self.payload, required=required,
                        wrapper="outer/inner/"),
            self.layout("empty package", packages.APPLICATION, {}, hint=""),
            Failure("no contract",
                    "Update package contract validation failed: Update package required file contract "
                    "is empty or too large.", UNEXTRACTED, arguments={"required": ()},
                    kept=(e2e.PACKAGE, "stage")),
        ])

    def test_refuses_what_is_no_package_by_name_and_bytes(self) -> None:
        body = b"Rar!" + packages.noise(9_000, "rar")
        url = self.server.on(places.PRIMARY_HOST, "/format/package.rar", Reply(body=body))
        self.check_failure(Failure(
            "another format", "Unsupported update package format. Only .zip packages are supported.",
            e2e.SELECTED, package=body, arguments={"url": url}, kept=(e2e.PACKAGE,)))


if __name__ == "__main__":
    unittest.main()
