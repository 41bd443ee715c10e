"""Compares the events that the code can write to the trace, and their fields, with docs/formats/update_trace.md
and with the events that qorva_inspect knows."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FIELD = re.compile(r'\{"(\w+)",\s(?!\{)|emplace_back\("(\w+)"')
Events = dict[str, set[str]]


def fields_in(code: str) -> set[str]:
    return {first or second for first, second in FIELD.findall(code)}


def calls_in(code: str) -> list[str]:
    """The argument lists of all calls of EmitChainEvent."""
    calls = []
    for start in re.finditer(r"\bEmitChainEvent\(", code):
        depth, end = 1, start.end()
        while depth:
            depth += {"(": 1, ")": -1}.get(code[end], 0)
            end += 1
        calls.append(code[start.end():end - 1])
    return calls


def events_in(code: str) -> Events:
    """A call with a variable instead of names or fields gets those that the rest of the file has."""
    calls = calls_in(code)
    rest = code
    for call in calls:
        rest = rest.replace(call, "")
    passed_on = set(re.findall(r'\bEmit\w+Failure\("(\w+)"', rest))
    events: Events = {}
    for call in calls:
        names = set(re.findall(r'"(\w+)"', call.partition("{")[0])) or passed_on
        for name in names:
            events.setdefault(name, set()).update(fields_in(call) or fields_in(rest))
    return events


def events_of_the_code() -> Events:
    events: Events = {}
    for path in (ROOT / "src").rglob("*.cpp"):
        code = path.read_text("utf-8")
        if "void EmitChainEvent(" in code:
            continue
        for name, fields in events_in(code).items():
            events.setdefault(name, set()).update(fields)
    return events


def events_of_the_page() -> Events:
    page = (ROOT / "docs" / "formats" / "update_trace.md").read_text("utf-8")
    table = page[page.index("| event |"):]
    events: Events = {}
    for name, cell in re.findall(r"^\| `(\w+)` \| (.*?) \|", table, re.M):
        values = set(re.findall(r"= `(\w+)`|phase `(\w+)`|with `(\w+)`", cell))
        events[name] = set(re.findall(r"`(\w+)`", cell)) - {word for found in values for word in found}
    return events


def events_of_the_inspector() -> set[str]:
    code = (ROOT / "src" / "inspect" / "trace_runs.cpp").read_text("utf-8")
    return set(re.findall(r'\{"(\w+)", Act::', code))


def main() -> int:
    code, page, inspector = events_of_the_code(), events_of_the_page(), events_of_the_inspector()
    faults = [f"{name}: the code writes {sorted(code.get(name, ()))}, the page lists {sorted(page.get(name, ()))}"
              for name in sorted(code.keys() | page.keys()) if code.get(name) != page.get(name)]
    faults += [f"{name}: only one of qorva_inspect and the code knows it" for name in sorted(inspector ^ code.keys())]
    print(*faults, f"{len(code)} events", sep="\n")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
