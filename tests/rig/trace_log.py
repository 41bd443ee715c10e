"""Reads update_trace.log and judges its lines: one JSON object a line, keys in order, and the derived
vocabulary of each event."""

import json
import re
from pathlib import Path
from typing import NamedTuple


class Derived(NamedTuple):
    action_id: str | None
    chain_event: str | None = None
    result: str | None = None
    user_error_id: str | None = None


def failure(action_id: str, what: str) -> Derived:
    return Derived(action_id, "failure", "failed", f"QORVA-UPDATE-{what}-FAILED")


DOWNLOAD, VERIFY, APPLY = "update.download", "update.verify", "update.apply"

# What each event of a run carries beside the fields of its stage.
DERIVED = {
    "relaunch_installed_helper_from_target_root": Derived(None),
    "launch_isolated_updater_helper": Derived(None),
    "updater_run_start": Derived(APPLY, "start"),
    "download_start": Derived(DOWNLOAD, "start"),
    "download_redirect_resolution": Derived(DOWNLOAD),
    "download_progress": Derived(DOWNLOAD),
    "download_complete": Derived(DOWNLOAD, "end", "success"),
    "download_fail": failure(DOWNLOAD, "DOWNLOAD"),
    "download_primary_fail": failure(DOWNLOAD, "DOWNLOAD"),
    "download_fallback_fail": failure(DOWNLOAD, "DOWNLOAD"),
    "download_fallback_ok": Derived(DOWNLOAD, "end", "success"),
    "download_selected": Derived(DOWNLOAD, "end", "success"),
    "checksum_verify": Derived(VERIFY),
    "checksum_primary_fail": failure(VERIFY, "VERIFY"),
    "extract_start": Derived(APPLY, "start"),
    "extract_ok": Derived(APPLY, "end", "success"),
    "extract_fail": failure(APPLY, "APPLY"),
    "apply_start": Derived(APPLY, "start"),
    "payload_binary_signature_validate": Derived(VERIFY),
    "apply_request_close_locking_zul_process": Derived(APPLY),
    "apply_force_close_locking_zul_process": Derived(APPLY),
    "apply_ok": Derived(APPLY, "end", "success"),
    "apply_fail": failure(APPLY, "APPLY"),
    "apply_recovery_required": Derived(APPLY),
    "retired_install_executable_removed": Derived(None),
    "rollback_start": Derived(None, "start"),
    "rollback_ok": Derived(None, "end", "success"),
    "rollback_recovery_required": Derived(None),
    "restart_start": Derived(APPLY, "start"),
    "restart_ok": Derived(APPLY, "end", "success"),
    "restart_fail": failure(APPLY, "APPLY"),
}

# The events of a run without fault, in their order; the download's progress comes between.
CHAIN_BEFORE_REMOVALS = [
    "updater_run_start", "download_start", "download_redirect_resolution", "download_complete",
    "checksum_verify", "checksum_verify", "download_selected", "extract_start", "extract_ok",
    "apply_start"]
CHAIN_AFTER_REMOVALS = ["apply_ok", "restart_start", "restart_ok"]

Event = dict[str, str]


def read(path: Path) -> list[Event]:
    """The events of a trace; none when there is no such file. A torn last line raises."""
    if not path.exists():
        return []
    text = path.read_text("utf-8")
    if text and not text.endswith("\n"):
        raise ValueError(f"the last line of {path} is not complete")
    return [json.loads(line) for line in text.splitlines()]


def names(events: list[Event]) -> list[str]:
    return [event["stage"] for event in events]


def faults(path: Path) -> list[str]:
    """Everything about the lines of one run's trace that is not as it has to be."""
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
            found.append(f"{where}: no such event is known")
            continue
        for key, value in derived._asdict().items():
            if event.get(key) != value:
                found.append(f"{where}: {key} is {event.get(key)!r}, expected {value!r}")
        if ("correlation_id" in event) != (derived.action_id is not None):
            found.append(f"{where}: correlation_id goes with action_id only")
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
