"""Every line of every scenario, and of a run of the real helper, follows the schema and the rules. Every change of the schema is
noticed by some of these lines."""

import copy
import json
import sys
import unittest
from typing import Any, Iterator

from recordings import require_jsonschema, scenarios, short_run

require_jsonschema("the lines of the scenarios against the schema")

import validate  # noqa: E402
from conversation import Conversation, code_of, decode_command, input_lines  # noqa: E402

Line = dict[str, Any]
Schema = dict[str, Any]

# Values that a key has from a closed list.
CLOSED = ("type", "status", "implementation", "authorization", "dictation", "source", "provider", "reason", "module", "protocolVersion",
          "threshold", "minSilenceMs")  # fmt: skip
OPEN_STATUS = ("helper.model",)


def signature(value: Any, key: str = "") -> Any:
    """Identifies the kind of a line: its keys, and the values of those with a closed list."""
    if isinstance(value, dict):
        return tuple((name, signature(item, name)) for name, item in sorted(value.items()))
    if key in CLOSED or isinstance(value, bool) or (key == "message" and len(value) > 60):
        return value
    return type(value).__name__


def samples(runs: dict[str, Conversation]) -> list[Line]:
    """One line of each kind: the events, and the commands that are correct."""
    found: dict[Any, Line] = {}
    for run in runs.values():
        for event in run.events:
            found.setdefault(signature(event), event)
        for line in input_lines(run.input or b""):
            command = decode_command(line)
            if command and (set(json.loads(line)) == set(command)) and validate.Schemas().validators.get(command["type"]):
                refused = {"invalid-command", "unsupported-command", "audio-incomplete", "session-start-incomplete"}
                refused |= {"source-suppress-incomplete", "session-stop-incomplete", "payload-not-base64"}
                surplus = command["type"] == "ping" and "sessionId" in command  # accepted, and ignored
                if not surplus and not refused & {code_of(event) for event in run.events}:
                    found.setdefault(signature(command), command)
    return list(found.values())


def wrong(value: Any) -> Any:
    """A value of another JSON type."""
    return 1 if isinstance(value, (str, bool, dict, list)) else "1"


def with_value(line: Line, path: tuple[str, ...], value: Any) -> Line:
    changed = copy.deepcopy(line)
    holder = changed
    for key in path[:-1]:
        holder = holder[key]
    if value is None:
        del holder[path[-1]]
    else:
        holder[path[-1]] = value
    return changed


def paths(line: Line, prefix: tuple[str, ...] = ()) -> Iterator[tuple[tuple[str, ...], Any]]:
    for key, value in line.items():
        yield (*prefix, key), value
        if isinstance(value, dict):
            yield from paths(value, (*prefix, key))


OPTIONAL = {
    "helper.status": ("modelStatus", "dictation", "message"),
    "session.ready": ("source",),
    "helper.error": ("sessionId", "source"),
    "ping": ("sentAt",),
    "session.start": ("locale", "vocabulary"),
}


def broken(line: Line) -> Iterator[Line]:
    """Lines that are wrong however the schema is written, each by one change of a correct one."""
    yield with_value(line, ("surplus",), 1)
    if "endpointing" in line:
        yield with_value(line, ("endpointing", "surplus"), 1)
    for path, value in paths(line):
        if path == ("type",):
            continue
        key = path[-1]
        yield with_value(line, path, wrong(value))
        if key not in OPTIONAL.get(line["type"], ()):
            yield with_value(line, path, None)
        if key in CLOSED and line["type"] not in OPEN_STATUS:
            yield with_value(line, path, value + 0.5 if isinstance(value, (int, float)) else "no-such-word")
        if key in ("text", "utteranceId", "modelStatus") or (key, line["type"]) in (("status", "helper.model"), ("message", "helper.error")):
            yield with_value(line, path, "")
        if key == "latencyMs":
            yield with_value(line, path, -1)
        if isinstance(value, list):
            yield with_value(line, path, [1])


def status(**changes: Any) -> Line:
    ready: Line = {
        "type": "helper.status",
        "status": "ready",
        "available": True,
        "implementation": "sf-speech-recognizer",
        "authorization": "authorized",
        "modelStatus": "installed",
        "dictation": "enabled",
        "protocolVersion": 1,
    }
    return {key: value for key, value in {**ready, **changes}.items() if value is not None}


ANALYZER: Line = {"implementation": "speech-analyzer", "authorization": "not-required", "dictation": None}
MISSING: Line = {"status": "setup-required", "available": False}
CHECKING: Line = {**ANALYZER, "status": "checking-model", "available": False, "modelStatus": None}
UNAVAILABLE: Line = {**ANALYZER, "status": "unavailable", "available": False, "modelStatus": "unsupported"}
LEGACY_END: Line = {"provider": "apple-sfspeech", "reason": "silence", "threshold": 0.008, "minSilenceMs": 900}
ANALYZER_END: Line = {"provider": "apple-speech-analyzer", "reason": "framework"}


def final(**endpointing: Any) -> Line:
    line: Line = {"type": "transcript.final", "sessionId": "a", "source": "self", "utteranceId": "u", "text": "t", "startedAt": 1}
    return {**line, "transcribedAt": 3, "speechEndedAt": 2, "latencyMs": 1, "endpointing": endpointing}


def ready(**changes: Any) -> Line:
    line: Line = {"type": "session.ready", "sessionId": "a", "available": True, "locale": "ja-JP"}
    return {**line, **changes}


def authorization(status: str, authorized: bool) -> Line:
    return {"type": "helper.authorization", "status": status, "authorized": authorized}


def audio(**changes: Any) -> Line:
    line: Line = {"type": "audio", "sessionId": "a", "source": "self", "sequence": 0, "capturedAt": 0, "pcmBase64": "AAA="}
    return {**line, **changes}


def complete(count: int) -> Line:
    return {"type": "research.complete", "implementation": "speech-analyzer", "module": "SpeechTranscriber", "vocabularyCount": count}


# Lines whose keys contradict each other, or that are out of range.
CONTRADICTIONS: list[Line] = [
    status(available=False),
    status(implementation="speech-analyzer"),
    status(dictation="disabled"),
    status(dictation=None),
    status(modelStatus=None),
    status(modelStatus="unavailable"),
    status(authorization="denied"),
    status(authorization="not-required"),
    status(message="Soon."),
    status(status="checking-model"),
    status(status="unavailable"),
    status(**{**MISSING, "available": True}),
    status(**{**MISSING, "implementation": "speech-analyzer"}),
    status(**{**MISSING, "authorization": "not-required"}),
    status(**{**MISSING, "modelStatus": "supported"}),
    status(**{**MISSING, "modelStatus": None}),
    status(**{**MISSING, "dictation": None}),
    status(**{**MISSING, "message": "On-device Japanese speech recognition is ready."}),
    status(**{**ANALYZER, "implementation": "sf-speech-recognizer"}),
    status(**{**ANALYZER, "status": "checking-model"}),
    status(**{**ANALYZER, "dictation": "enabled"}),
    status(**{**ANALYZER, "available": False}),
    status(**{**ANALYZER, "authorization": "authorized"}),
    status(**{**ANALYZER, "modelStatus": "supported"}),
    status(**{**ANALYZER, "modelStatus": None}),
    status(**{**ANALYZER, "message": "Soon."}),
    status(**{**ANALYZER, **MISSING, "dictation": "enabled", "modelStatus": "supported"}),
    status(**{**ANALYZER, **MISSING, "implementation": "sf-speech-recognizer", "modelStatus": "supported"}),
    status(**{**ANALYZER, **MISSING, "available": True, "modelStatus": "supported"}),
    status(**{**ANALYZER, **MISSING, "authorization": "authorized", "modelStatus": "supported"}),
    status(**{**ANALYZER, **MISSING, "modelStatus": None}),
    status(**{**ANALYZER, **MISSING, "modelStatus": "supported", "message": "Soon."}),
    status(**{**CHECKING, "available": True}),
    status(**{**CHECKING, "authorization": "authorized"}),
    status(**{**CHECKING, "modelStatus": "installed"}),
    status(**{**CHECKING, "dictation": "enabled"}),
    status(**{**CHECKING, "message": "Soon."}),
    status(**{**CHECKING, "implementation": "sf-speech-recognizer"}),
    status(**{**UNAVAILABLE, "available": True}),
    status(**{**UNAVAILABLE, "status": "checking-model"}),
    status(**{**UNAVAILABLE, "authorization": "authorized"}),
    status(**{**UNAVAILABLE, "modelStatus": "installed"}),
    status(**{**UNAVAILABLE, "dictation": "enabled"}),
    status(**{**UNAVAILABLE, "message": "Soon."}),
    status(**{**UNAVAILABLE, "implementation": "sf-speech-recognizer"}),
    ready(implementation="sf-speech-recognizer", source="self"),
    ready(implementation="speech-analyzer"),
    ready(implementation="speech-analyzer", source="self", available=False),
    final(**{**LEGACY_END, "reason": "framework"}),
    final(provider="apple-sfspeech", reason="silence", threshold=0.008),
    final(provider="apple-sfspeech", reason="silence", minSilenceMs=900),
    final(**{**ANALYZER_END, "reason": "silence"}),
    final(**{**ANALYZER_END, "threshold": 0.008}),
    final(**{**ANALYZER_END, "minSilenceMs": 900}),
    *(authorization(word, True) for word in ("denied", "restricted", "not-determined", "unknown")),
    *(authorization(word, False) for word in ("authorized", "not-required")),
    audio(sequence=2**63),
    audio(sequence=-(2**63) - 1),
    audio(sequence=0.5),
    audio(pcmBase64="AAA"),
    audio(pcmBase64="AAA=\n"),
    complete(101),
    complete(-1),
    complete(1.5),  # type: ignore[arg-type]
]


def mutants(node: Any, path: tuple[Any, ...] = ()) -> Iterator[tuple[tuple[Any, ...], Any]]:
    """(where, replacement) for every single change of a schema."""
    if not isinstance(node, dict):
        return
    for key in ("additionalProperties", "minimum", "maximum", "minLength", "pattern", "const", "enum"):
        if key in node:
            yield (*path, "-" + key), {name: value for name, value in node.items() if name != key}
    for name in node.get("required", []):
        yield (*path, "required", "-" + name), {**node, "required": [other for other in node["required"] if other != name]}
    for name in node.get("properties", {}):
        if name not in node.get("required", []) and "additionalProperties" in node:
            yield (*path, "required", "+" + name), {**node, "required": [*node.get("required", []), name]}
        kept = {other: value for other, value in node["properties"].items() if other != name}
        yield (*path, "properties", "-" + name), {**node, "properties": kept}
    for word in node.get("enum", []):
        yield (*path, "enum", word), {**node, "enum": [other for other in node["enum"] if other != word]}
    if "const" in node:
        yield (*path, "const"), {**node, "const": "another"}
    if "type" in node:
        yield (*path, "type"), {**node, "type": "array" if node["type"] != "array" else "string"}
        yield (*path, "-type"), {name: value for name, value in node.items() if name != "type"}
    if "oneOf" in node:
        yield (*path, "-oneOf"), {name: value for name, value in node.items() if name != "oneOf"}
        for index in range(len(node["oneOf"])):
            yield (*path, "oneOf", index), {**node, "oneOf": node["oneOf"][:index] + node["oneOf"][index + 1 :]}
    for name, value in node.get("properties", {}).items():
        for where, changed in mutants(value, (*path, name)):
            yield where, {**node, "properties": {**node["properties"], name: changed}}
        if value is False:
            yield (*path, name, "true"), {**node, "properties": {**node["properties"], name: True}}
    if "items" in node:
        for where, changed in mutants(node["items"], (*path, "items")):
            yield where, {**node, "items": changed}
    for index, value in enumerate(node.get("oneOf", [])):
        for where, changed in mutants(value, (*path, "oneOf", index)):
            yield where, {**node, "oneOf": [*node["oneOf"][:index], changed, *node["oneOf"][index + 1 :]]}


def is_implied(definition: Schema, where: tuple[Any, ...]) -> bool:
    """Whether the variants of the definition, or the constant beside it, say the same. Such a keyword serves readers and clients."""
    key, *rest = where
    if where == ("-type",):
        return "oneOf" in definition  # more than one variant matches what is no object
    if rest not in (["-type"], ["-enum"], ["-const"]) or key not in definition["properties"]:
        return False
    value = definition["properties"][key]
    if rest == ["-type"] and "const" in value:
        return True
    return all(key in variant["properties"] for variant in definition.get("oneOf", [{"properties": {}}])) or (
        definition is validate.SCHEMA["$defs"]["HelperStatusEvent"] and key in ("dictation", "message", "protocolVersion")
    )


class ScenarioLines(unittest.TestCase):
    runs: dict[str, Conversation] = {}
    lines: list[Line] = []

    @classmethod
    def setUpClass(cls) -> None:
        cls.runs = {**scenarios(), "the real helper": short_run()}
        cls.lines = samples(cls.runs)

    def test_every_line_follows_schema_and_rules(self) -> None:
        schemas = validate.Schemas()
        self.assertGreater(len(self.runs), 250)
        for name, run in self.runs.items():
            with self.subTest(name):
                self.assertEqual(validate.faults(run, schemas), [])

    def test_every_message_occurs(self) -> None:
        self.assertEqual({line["type"] for line in self.lines}, set(validate.Schemas().validators))

    def test_wrong_lines_are_refused(self) -> None:
        schemas = validate.Schemas()
        for line in [*(wrong for line in self.lines for wrong in broken(line)), *CONTRADICTIONS]:
            self.assertFalse(schemas.is_valid(line), line)

    def test_every_change_of_the_schema_is_noticed(self) -> None:
        wrong_lines = [wrong for line in self.lines for wrong in broken(line)] + CONTRADICTIONS
        survivors = []
        count = 0
        for name, definition in validate.SCHEMA["$defs"].items():
            if name in ("Command", "Event"):
                continue
            for where, changed in mutants(definition):
                if "properties" in definition and is_implied(definition, where):
                    continue
                count += 1
                schema = {**validate.SCHEMA, "$defs": {**validate.SCHEMA["$defs"], name: changed}}
                if not self.is_noticed(schema, name, wrong_lines):
                    survivors.append((name, *where))
        self.assertGreater(count, 300)
        self.assertEqual(survivors, [], f"{len(survivors)} of {count} changes pass unnoticed")

    def is_noticed(self, schema: Schema, name: str, wrong_lines: list[Line]) -> bool:
        """Whether a correct line is refused, or a wrong one passes."""
        try:
            schemas = validate.Schemas(schema)
        except KeyError:
            return True  # a message without a type
        own = {kind for kind, definition in validate.Schemas().definitions.items() if definition == name}
        types = own or set(schemas.validators)
        for kind in own:
            line = next(line for line in self.lines if line["type"] == kind)
            untyped = {key: value for key, value in line.items() if key != "type"}
            if kind not in schemas.validators or any(schemas.validators[kind].is_valid(wrong) for wrong in ([], untyped)):
                return True
        return any(not schemas.is_valid(line) for line in self.lines if line["type"] in types) or any(
            schemas.is_valid(line) for line in wrong_lines if line["type"] in types
        )


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
