#!/usr/bin/env python3
"""Validates the output of a helper.

    protocol/validate.py EVENTS [--input COMMANDS] [ARGUMENT...]

EVENTS: what the helper wrote to standard output. COMMANDS: what it read from standard input; without it the answers are not
checked. ARGUMENT: the helper's own arguments. Prints each breach in a line; exit status 1 if there is one. Needs jsonschema.
"""

from __future__ import annotations

import json
import sys
from pathlib import Path
from typing import Any

import jsonschema

sys.path.insert(0, str(Path(__file__).resolve().parent))
import conversation  # noqa: E402

SCHEMA: dict[str, Any] = json.loads((Path(__file__).resolve().parent / "schema.json").read_text(encoding="utf-8"))


class Schemas:
    """The schema of each command and event, by the value of `type`."""

    def __init__(self, schema: dict[str, Any] = SCHEMA) -> None:
        self.definitions: dict[str, str] = {}
        self.validators: dict[str, Any] = {}
        for union in ("Command", "Event"):
            for reference in schema["$defs"][union]["oneOf"]:
                name = reference["$ref"].rsplit("/", 1)[1]
                kind = schema["$defs"][name]["properties"]["type"]["const"]
                self.definitions[kind] = name
                self.validators[kind] = jsonschema.Draft202012Validator({**reference, "$defs": schema["$defs"]})

    def faults(self, value: Any) -> list[str]:
        """What is wrong with a command or an event; empty if nothing is."""
        kind = value.get("type") if isinstance(value, dict) else None
        if kind not in self.validators:
            return [f"no command or event: {json.dumps(value)[:200]}"]
        return [f"{kind}: {error.message[:200]}" for error in self.validators[kind].iter_errors(value)]

    def is_valid(self, value: dict[str, Any]) -> bool:
        return value.get("type") in self.validators and self.validators[value["type"]].is_valid(value)


def faults(run: conversation.Conversation, schemas: Schemas) -> list[str]:
    """Every breach of the schema and of the rules."""
    found = [fault for event in run.events for fault in schemas.faults(event)]
    found += [f"{rule}: {text}" for rule, text in conversation.violations(run)]
    if run.input is not None and run.mode is None:
        valid = [schemas.is_valid(conversation.decode_command(line) or {}) for line in conversation.input_lines(run.input)]
        codes = {conversation.code_of(event) for event in run.events}
        refused = codes & {"invalid-command", "unsupported-command", "audio-incomplete", "session-start-incomplete"}
        if all(valid) and refused:
            found.append(f"commands that the schema allows were refused: {sorted(map(str, refused))}")
    return found


def main(arguments: list[str]) -> int:
    if not arguments:
        print(__doc__, file=sys.stderr)
        return 2
    events, *rest = arguments
    data = None
    if rest[:1] == ["--input"]:
        data = Path(rest[1]).read_bytes()
        rest = rest[2:]
    output = Path(events).read_text(encoding="utf-8").split("\n")
    found = faults(conversation.Conversation([line for line in output if line], rest, data), Schemas())
    print("\n".join(found) or "valid")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
