"""Reads update_trace.log and judges its lines: one JSON object a line, keys in order, and the derived
vocabulary of each event."""

import json
import re
from pathlib import Path


KEYS = ("action_id", "chain_event", "result", "user_error_id")

# What each event of a run carries beside the fields of its stage.
DERIVED = {name: dict(zip(KEYS, values)) for names, *values in (
    ("relaunch_installed_helper_from_target_root launch_isolated_updater_helper "
     "retired_install_executable_removed rollback_recovery_required",),
    ("rollback_start", None, "start"),
    ("rollback_ok", None, "end", "success"),
    ("download_redirect_resolution download_progress", "update.download"),
    ("download_start", "update.download", "start"),
    ("download_complete download_fallback_ok download_selected", "update.download", "end", "success"),
    ("download_fail download_primary_fail download_fallback_fail", "update.download", "failure", "failed",
     "QORVA-UPDATE-DOWNLOAD-FAILED"),
    ("checksum_verify payload_binary_signature_validate", "update.verify"),
    ("checksum_primary_fail", "update.verify", "failure", "failed", "QORVA-UPDATE-VERIFY-FAILED"),
    ("apply_request_close_locking_zul_process apply_force_close_locking_zul_process "
     "apply_recovery_required", "update.apply"),
    ("updater_run_start extract_start apply_start restart_start", "update.apply", "start"),
    ("extract_ok apply_ok restart_ok", "update.apply", "end", "success"),
    ("extract_fail apply_fail restart_fail", "update.apply", "failure", "failed", "QORVA-UPDATE-APPLY-FAILED"),
) for name in names.split()}

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
        for key in KEYS:
            if event.get(key) != derived.get(key):
                found.append(f"{where}: {key} is {event.get(key)!r}, expected {derived.get(key)!r}")
        if ("correlation_id" in event) != bool(derived.get("action_id")):
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
