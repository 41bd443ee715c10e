"""Reads update_trace.log and checks its form: one JSON object a line, sorted keys, and the fields that
follow from the name of the event."""

import json
import re
from pathlib import Path


KEYS = ("action_id", "chain_event", "result", "user_error_id")

# The values of KEYS that follow from the name of an event, in the order of KEYS.
DERIVED: dict[str, tuple[str | None, ...]] = {
    "relaunch_installed_helper_from_target_root": (),
    "launch_isolated_updater_helper": (),
    "updater_run_start": ("update.apply", "start"),
    "download_start": ("update.download", "start"),
    "download_redirect_resolution": ("update.download",),
    "download_progress": ("update.download",),
    "download_complete": ("update.download", "end", "success"),
    "download_fail": ("update.download", "failure", "failed", "QORVA-UPDATE-DOWNLOAD-FAILED"),
    "download_primary_fail": ("update.download", "failure", "failed", "QORVA-UPDATE-DOWNLOAD-FAILED"),
    "download_fallback_ok": ("update.download", "end", "success"),
    "download_fallback_fail": ("update.download", "failure", "failed", "QORVA-UPDATE-DOWNLOAD-FAILED"),
    "checksum_verify": ("update.verify",),
    "checksum_primary_fail": ("update.verify", "failure", "failed", "QORVA-UPDATE-VERIFY-FAILED"),
    "download_selected": ("update.download", "end", "success"),
    "extract_start": ("update.apply", "start"),
    "extract_ok": ("update.apply", "end", "success"),
    "extract_fail": ("update.apply", "failure", "failed", "QORVA-UPDATE-APPLY-FAILED"),
    "apply_start": ("update.apply", "start"),
    "apply_request_close_locking_zul_process": ("update.apply",),
    "apply_force_close_locking_zul_process": ("update.apply",),
    "payload_binary_signature_validate": ("update.verify",),
    "retired_install_executable_removed": (),
    "rollback_start": (None, "start"),
    "rollback_ok": (None, "end", "success"),
    "rollback_recovery_required": (),
    "apply_recovery_required": ("update.apply",),
    "apply_ok": ("update.apply", "end", "success"),
    "apply_fail": ("update.apply", "failure", "failed", "QORVA-UPDATE-APPLY-FAILED"),
    "restart_start": ("update.apply", "start"),
    "restart_ok": ("update.apply", "end", "success"),
    "restart_fail": ("update.apply", "failure", "failed", "QORVA-UPDATE-APPLY-FAILED"),
}

# The events of a run without a fault, in this order. Events of the download's progress come in between.
CHAIN_BEFORE_REMOVALS = [
    "updater_run_start", "download_start", "download_redirect_resolution", "download_complete",
    "checksum_verify", "checksum_verify", "download_selected", "extract_start", "extract_ok",
    "apply_start"]
CHAIN_AFTER_REMOVALS = ["apply_ok", "restart_start", "restart_ok"]

Event = dict[str, str]


def read(path: Path) -> list[Event]:
    """The events of a trace; none when there is no such file. An incomplete last line raises ValueError."""
    if not path.exists():
        return []
    text = path.read_text("utf-8")
    if text and not text.endswith("\n"):
        raise ValueError(f"the last line of {path} is not complete")
    return [json.loads(line) for line in text.splitlines()]


def names(events: list[Event]) -> list[str]:
    return [event["stage"] for event in events]


def faults(path: Path) -> list[str]:
    """Describes every fault in the form of the trace of one run."""
    found: list[str] = []
    correlations = set()
    for number, event in enumerate(read(path), 1):
        name = event.get("stage", "")
        where = f"line {number} ({name})"
        if not all(isinstance(value, str) for value in event.values()):
            found.append(f"{where}: a value is not a string")
        if not re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", event.get("ts", "")):
            found.append(f"{where}: ts is {event.get('ts')!r}")
        if (derived := DERIVED.get(name)) is None:
            found.append(f"{where}: unknown event")
            continue
        expected = dict(zip(KEYS, derived))
        for key in KEYS:
            if event.get(key) != expected.get(key):
                found.append(f"{where}: {key} is {event.get(key)!r}, expected {expected.get(key)!r}")
        if ("correlation_id" in event) != bool(expected.get("action_id")):
            found.append(f"{where}: correlation_id and action_id must come together")
        correlations.add(event.get("correlation_id"))
        if any("?" in event.get(key, "") for key in event if key.endswith("url")):
            found.append(f"{where}: a URL still has its query")
    correlations.discard(None)
    if len(correlations) > 1 or not all(re.fullmatch(r"update-\d{13}-0", c) for c in correlations):
        found.append(f"one run has the correlation ids {sorted(correlations)}")
    for number, line in enumerate(path.read_text("utf-8").splitlines() if path.exists() else [], 1):
        if line != json.dumps(json.loads(line), sort_keys=True, separators=(",", ":"), ensure_ascii=False):
            found.append(f"line {number} is not one compact object with sorted keys")
    return found
