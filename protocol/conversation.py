"""Checks a whole conversation with the helper against the rules of rules.json.

A conversation is what a host wrote and what one run of the helper wrote. schema.json describes the form of each line.
Python 3.10 or later; standard library only.
"""

from __future__ import annotations

import json
import re
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Callable, Iterator

Event = dict[str, Any]

_FOLDER = Path(__file__).resolve().parent
ERRORS: list[dict[str, Any]] = json.loads((_FOLDER / "errors.json").read_text(encoding="utf-8"))["errors"]
RULES: list[dict[str, Any]] = json.loads((_FOLDER / "rules.json").read_text(encoding="utf-8"))["rules"]

MODES = ("--health", "--authorize", "--install-assets", "--research-transcribe-file")
_INCOMPLETE = ("session-start-incomplete", "audio-incomplete", "source-suppress-incomplete", "session-stop-incomplete")


@dataclass
class Conversation:
    """One run of the helper.

    output: the lines of standard output, without their line feeds.
    arguments: the helper's arguments.
    input: the bytes of standard input, None if they are unknown.
    complete: the input has ended or held a shutdown, and the helper has exited, not been killed.
    exit_status: None if the helper was killed, still runs, or its status is unknown.
    steady_clock: the helper's clock was not set during the run.
    """

    output: list[str]
    arguments: list[str] = field(default_factory=list)
    input: bytes | None = None
    complete: bool = False
    exit_status: int | None = None
    steady_clock: bool = True

    def __post_init__(self) -> None:
        self.events: list[Event] = []
        for line in self.output:
            try:
                event = json.loads(line)
            except ValueError:
                event = {}
            self.events.append(event if isinstance(event, dict) else {})

    @property
    def mode(self) -> str | None:
        """The one-shot mode, None for the command loop."""
        return self.arguments[0] if self.arguments and self.arguments[0] in MODES else None

    @property
    def backend(self) -> str | None:
        """"legacy" or "analyzer"; None if no event names it."""
        for event in self.events:
            if event.get("implementation") in ("sf-speech-recognizer", "speech-analyzer"):
                return "legacy" if event["implementation"] == "sf-speech-recognizer" else "analyzer"
        return None


def errors_of(message: str) -> list[dict[str, Any]]:
    """The entries of errors.json for an error text. One, or the texts are ambiguous or incomplete."""
    matching = [error for error in ERRORS if re.fullmatch(error["pattern"], message)]
    return [error for error in matching if not error.get("general")] or matching


def code_of(event: Event) -> str | None:
    """The code of a helper.error."""
    if event.get("type") != "helper.error":
        return None
    matching = errors_of(str(event.get("message")))
    return str(matching[0]["code"]) if matching else None


# --- Commands as the helper reads them ----------------------------------------------------------------------------------------

_KEY_TYPES: dict[str, Callable[[Any], bool]] = {
    "type": lambda value: isinstance(value, str),
    "sessionId": lambda value: isinstance(value, str),
    "source": lambda value: value in ("remote", "self"),
    "locale": lambda value: isinstance(value, str),
    "vocabulary": lambda value: isinstance(value, list) and all(isinstance(item, str) for item in value),
    "sequence": lambda value: _is_number(value) and value == int(value) and -(2**63) <= value < 2**63,
    "capturedAt": lambda value: _is_number(value),
    "pcmBase64": lambda value: isinstance(value, str),
    "suppressed": lambda value: isinstance(value, bool),
    "sentAt": lambda value: _is_number(value),
}


def _is_number(value: Any) -> bool:
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def decode_command(line: bytes) -> Event | None:
    """A line's known keys, without those that are null. None if the line is not a command. Of a repeated key the first counts."""

    def first(pairs: list[tuple[str, Any]]) -> Event:
        found: Event = {}
        for key, value in pairs:
            found.setdefault(key, value)
        return found

    def number(text: str) -> float:
        value = float(text)
        if value in (float("inf"), float("-inf")):
            raise ValueError("too big")
        return value

    def refused(text: str) -> Any:
        raise ValueError(text)

    try:
        text = line.decode("utf-8")
        value = json.loads(text, object_pairs_hook=first, parse_float=number, parse_constant=refused)
        json.dumps(value, ensure_ascii=False).encode("utf-8")  # no half of a surrogate pair
    except (ValueError, RecursionError):
        return None
    if not isinstance(value, dict):
        return None
    command = {key: item for key, item in value.items() if key in _KEY_TYPES and item is not None}
    if "type" not in command or not all(_KEY_TYPES[key](item) for key, item in command.items()):
        return None
    return command


def input_lines(data: bytes) -> list[bytes]:
    """The lines that the helper decodes: all but those of white space, up to and including a shutdown."""
    lines = [line for line in data.split(b"\n") if line.strip()]
    for index, line in enumerate(lines):
        if (decode_command(line) or {}).get("type") == "shutdown":
            return lines[: index + 1]
    return lines


# --- Rules --------------------------------------------------------------------------------------------------------------------

Check = Callable[[Conversation], Iterator[str]]
CHECKS: dict[str, Check] = {}


def _rule(name: str) -> Callable[[Check], Check]:
    def register(check: Check) -> Check:
        CHECKS[name] = check
        return check

    return register


def violations(conversation: Conversation) -> list[tuple[str, str]]:
    """(rule, what is wrong) for every breach."""
    found: list[tuple[str, str]] = []
    for rule in RULES:
        if conversation.backend not in (None, *rule["backends"]):
            continue
        if rule.get("needs") == "input" and (conversation.input is None or conversation.mode):
            continue
        if rule.get("needs") == "exitStatus" and conversation.exit_status is None:
            continue
        if rule.get("needs") == "steadyClock" and not conversation.steady_clock:
            continue
        try:
            found += [(rule["id"], text) for text in CHECKS[rule["id"]](conversation)]
        except (AttributeError, KeyError, TypeError, ValueError) as error:
            found.append((rule["id"], f"cannot be checked, as an event lacks its form: {error!r}"))
    return found


def _transcripts(conversation: Conversation) -> Iterator[tuple[int, Event]]:
    for index, event in enumerate(conversation.events):
        if event.get("type") in ("transcript.partial", "transcript.final"):
            yield index, event


def _channel(event: Event) -> tuple[Any, Any]:
    return event.get("sessionId"), event.get("source")


@_rule("line-form")
def _line_form(conversation: Conversation) -> Iterator[str]:
    def checked(pairs: list[tuple[str, Any]]) -> Event:
        keys = [key for key, _ in pairs]
        if keys != sorted(set(keys), key=lambda key: key.encode("utf-8")):
            raise ValueError("keys are not sorted, or repeated")
        if any(value is None for _, value in pairs):
            raise ValueError("null")
        return dict(pairs)

    for line in conversation.output:
        try:
            if not isinstance(json.loads(line, object_pairs_hook=checked), dict):
                raise ValueError("not an object")
        except ValueError as error:
            yield f"{error}: {line[:200]}"
            continue
        if re.search(r"\s", re.sub(r'"(?:[^"\\]|\\.)*"', '""', line)):
            yield f"white space between tokens: {line[:200]}"
        for escape in re.finditer(r"\\(u[0-9A-Fa-f]{4}|.)", line):
            if not re.fullmatch(r'["\\bfnrt]|u00(?:[01][0-9a-fA-F]|7[fF])', escape[1]):
                yield f"needless escape {escape[0]}: {line[:200]}"


@_rule("mode-output")
def _mode_output(conversation: Conversation) -> Iterator[str]:
    types = [str(event.get("type")) for event in conversation.events]
    patterns = {
        "--health": r"helper\.status",
        "--authorize": r"helper\.authorization",
        "--install-assets": r"(?:helper\.model ){2,3}|(?:helper\.model ){0,2}helper\.error",
        "--research-transcribe-file": r"(?:transcript\.(?:partial|final) )*(?:research\.complete|(?:helper\.error ?){1,2})",
    }
    if conversation.mode is None:
        for kind in types:
            if kind in ("helper.authorization", "helper.model", "research.complete"):
                yield f"{kind} in the command loop"
        return
    if conversation.exit_status is None:
        return  # it still runs
    if not re.fullmatch(patterns[conversation.mode], " ".join(types) + (" " if types[-1:] == ["helper.model"] else "")):
        yield f"{conversation.mode} wrote {types}"
    for _, event in _transcripts(conversation):
        if _channel(event) != ("research", "remote"):
            yield f"a transcript of {_channel(event)} in {conversation.mode}"


@_rule("status-first")
def _status_first(conversation: Conversation) -> Iterator[str]:
    if conversation.mode is None and conversation.events and conversation.events[0].get("type") != "helper.status":
        yield f"the first event is {conversation.events[0].get('type')}"


@_rule("one-backend")
def _one_backend(conversation: Conversation) -> Iterator[str]:
    names = {event["implementation"] for event in conversation.events if "implementation" in event}
    if len(names) > 1:
        yield f"events name {sorted(names)}"


@_rule("model-check")
def _model_check(conversation: Conversation) -> Iterator[str]:
    if conversation.mode or conversation.backend != "analyzer":
        return
    checks = [
        event
        for event in conversation.events[1:]
        if event.get("type") == "helper.status" or code_of(event) == "japanese-unsupported"
    ]
    if len(checks) > 1:
        yield f"{len(checks)} results of the model check"
    if conversation.events[0].get("status") not in ("checking-model", "unavailable"):
        yield f"the first status is {conversation.events[0].get('status')}"
    if any(event.get("status") in ("checking-model", "unavailable") for event in checks):
        yield "the second status is one of the first"


@_rule("error-code")
def _error_code(conversation: Conversation) -> Iterator[str]:
    for event in conversation.events:
        if event.get("type") != "helper.error":
            continue
        matching = errors_of(str(event.get("message")))
        if len(matching) != 1:
            yield f"{len(matching)} codes for {event.get('message')!r}"
        elif conversation.backend not in (None, *matching[0]["backends"]):
            yield f"the {conversation.backend} backend wrote {event.get('message')!r}"


@_rule("error-names")
def _error_names(conversation: Conversation) -> Iterator[str]:
    for event in conversation.events:
        if event.get("type") != "helper.error":
            continue
        for error in errors_of(str(event.get("message"))):
            names = "no" if conversation.mode else error["names"]
            named = ["sessionId" in event, "source" in event]
            if (names == "no" and any(named)) or (names == "yes" and not all(named)):
                yield f"keys {sorted(event)} in {event.get('message')!r}"


@_rule("status-follows")
def _status_follows(conversation: Conversation) -> Iterator[str]:
    # Errors of the command reader come from another thread and may precede it.
    events = [event for event in conversation.events if code_of(event) != "invalid-command"]
    for event, after in zip(events, [*events[1:], None]):
        unavailable = event.get("type") == "session.ready" and event.get("available") is False
        if not unavailable and code_of(event) != "dictation-disabled":
            continue
        if after is None and not conversation.complete:
            continue
        if after is None or after.get("type") != "helper.status":
            yield f"no status after {event}"


@_rule("dictation-once")
def _dictation_once(conversation: Conversation) -> Iterator[str]:
    reported: set[tuple[Any, Any]] = set()
    for event in conversation.events:
        kind = event.get("type")
        if kind == "helper.status" and event.get("dictation") != "disabled":
            reported.clear()
        elif kind in ("session.ready", "session.stopped"):
            reported = {key for key in reported if key[0] != event.get("sessionId")}
        elif code_of(event) == "dictation-disabled":
            if _channel(event) in reported:
                yield f"reported twice: {_channel(event)}"
            reported.add(_channel(event))


@_rule("ready-first")
def _ready_first(conversation: Conversation) -> Iterator[str]:
    if conversation.mode:
        return
    ready: set[Any] = set()
    for event in conversation.events:
        if event.get("type") == "session.ready":
            ready.add(_channel(event) if conversation.backend == "analyzer" else event.get("sessionId"))
        elif event.get("type") in ("transcript.partial", "transcript.final"):
            key = _channel(event) if conversation.backend == "analyzer" else event.get("sessionId")
            if key not in ready:
                yield f"a transcript of {_channel(event)} before its session.ready"


@_rule("stopped-silent")
def _stopped_silent(conversation: Conversation) -> Iterator[str]:
    stopped: set[Any] = set()
    legacy = conversation.backend == "legacy"
    for event in conversation.events:
        session = event.get("sessionId")
        kind = event.get("type")
        if kind == "session.stopped":
            if session in stopped and legacy:
                yield f"session {session!r} was stopped twice"
            stopped.add(session)
        elif kind == "session.ready":
            stopped.discard(session)
        elif session in stopped and kind in ("transcript.partial", "transcript.final"):
            if legacy:
                yield f"a transcript of the stopped session {session!r}"
        elif session in stopped and kind == "helper.error" and legacy:
            if code_of(event) not in ("session-unknown", "unsupported-command"):
                yield f"an error of the stopped session {session!r}: {event.get('message')!r}"


@_rule("muted-silent")
def _muted_silent(conversation: Conversation) -> Iterator[str]:
    muted: set[tuple[Any, Any]] = set()
    for event in conversation.events:
        kind = event.get("type")
        if kind == "source.suppressed":
            (muted.add if event.get("suppressed") else muted.discard)(_channel(event))
        elif kind in ("session.ready", "session.stopped"):
            muted = {key for key in muted if key[0] != event.get("sessionId")}
        elif kind in ("transcript.partial", "transcript.final") and _channel(event) in muted:
            yield f"a transcript of the muted source {_channel(event)}"


@_rule("one-final")
def _one_final(conversation: Conversation) -> Iterator[str]:
    seen: set[Any] = set()
    for _, event in _transcripts(conversation):
        if event["type"] == "transcript.final":
            unknown_start = conversation.backend == "analyzer" and str(event.get("utteranceId")).endswith("-0")
            if event.get("utteranceId") in seen and not unknown_start:
                yield f"a second final of {event.get('utteranceId')}"
            seen.add(event.get("utteranceId"))


@_rule("final-last")
def _final_last(conversation: Conversation) -> Iterator[str]:
    closed: set[Any] = set()
    for _, event in _transcripts(conversation):
        if event["type"] == "transcript.final":
            closed.add(event.get("utteranceId"))
        elif event.get("utteranceId") in closed:
            yield f"a partial after the final of {event.get('utteranceId')}"


@_rule("one-utterance-one-source")
def _one_utterance_one_source(conversation: Conversation) -> Iterator[str]:
    channels: dict[Any, tuple[Any, Any]] = {}
    for _, event in _transcripts(conversation):
        if channels.setdefault(event.get("utteranceId"), _channel(event)) != _channel(event):
            yield f"utterance {event.get('utteranceId')} of {_channel(event)} and {channels[event.get('utteranceId')]}"


@_rule("shared-id")
def _shared_id(conversation: Conversation) -> Iterator[str]:
    current: dict[tuple[Any, Any], Any] = {}
    for event in conversation.events:
        kind = event.get("type")
        key = _channel(event)
        if kind in ("transcript.partial", "transcript.final"):
            if current.setdefault(key, event.get("utteranceId")) != event.get("utteranceId"):
                yield f"{kind} of {event.get('utteranceId')} while {current[key]} is open"
            if kind == "transcript.final":
                del current[key]
        elif kind == "source.suppressed":
            current.pop(key, None)  # what was not final is dropped
        elif kind in ("session.ready", "session.stopped"):
            current = {other: value for other, value in current.items() if other[0] != event.get("sessionId")}


@_rule("utterance-id")
def _utterance_id(conversation: Conversation) -> Iterator[str]:
    for _, event in _transcripts(conversation):
        pattern = r"[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"
        if conversation.backend == "analyzer":
            pattern = re.escape(f"{event.get('sessionId')}-{event.get('source')}-") + r"[0-9A-F]{8}-[0-9]+"
        if not re.fullmatch(pattern, str(event.get("utteranceId")), re.DOTALL):
            yield f"utterance id {event.get('utteranceId')}"


@_rule("text-trimmed")
def _text_trimmed(conversation: Conversation) -> Iterator[str]:
    for _, event in _transcripts(conversation):
        text = str(event.get("text"))
        if text != text.strip(" \t\r\n"):
            yield f"text {text!r}"


@_rule("times")
def _times(conversation: Conversation) -> Iterator[str]:
    for _, event in _transcripts(conversation):
        if event["type"] == "transcript.partial":
            continue
        started, ended, made = (float(event[key]) for key in ("startedAt", "speechEndedAt", "transcribedAt"))
        if ended < started:
            yield f"speechEndedAt {ended} before startedAt {started}"
        if event.get("latencyMs") != max(0, made - ended):
            yield f"latencyMs {event.get('latencyMs')} for {made} - {ended}"


@_rule("provider")
def _provider(conversation: Conversation) -> Iterator[str]:
    wanted = {"legacy": "apple-sfspeech", "analyzer": "apple-speech-analyzer"}.get(str(conversation.backend))
    for _, event in _transcripts(conversation):
        if event["type"] == "transcript.final" and wanted and event.get("endpointing", {}).get("provider") != wanted:
            yield f"endpointing {event.get('endpointing')} on the {conversation.backend} backend"


@_rule("clock-order")
def _clock_order(conversation: Conversation) -> Iterator[str]:
    latest = float("-inf")
    for event in conversation.events:
        if code_of(event) == "invalid-command":
            continue
        for key in ("at", "helperAt", "transcribedAt"):
            if key in event:
                if event[key] < latest:
                    yield f"{key} {event[key]} after {latest}"
                latest = event[key]


def _expected_answers(conversation: Conversation) -> Iterator[tuple[Any, ...]]:
    assert conversation.input is not None
    open_sessions: set[str] = set()
    required = {
        "session.start": ("sessionId",),
        "audio": ("sessionId", "source", "sequence", "capturedAt", "pcmBase64"),
        "source.suppress": ("sessionId", "source", "suppressed"),
        "session.stop": ("sessionId",),
    }
    for line in input_lines(conversation.input):
        command = decode_command(line)
        if command is None:
            continue
        kind = command["type"]
        session = command.get("sessionId")
        if kind in required and any(key not in command for key in required[kind]):
            yield ("error", kind.replace(".", "-") + "-incomplete")
        elif kind == "ping":
            yield ("pong", float(command.get("sentAt", 0)))
        elif kind in ("session.start", "session.stop"):
            if session in open_sessions:
                yield ("session.stopped", session)
            open_sessions.discard(str(session))
            if kind == "session.start":
                open_sessions.add(str(session))
                if conversation.backend == "legacy":
                    yield ("session.ready", session, command.get("locale", "ja-JP"))
        elif kind == "source.suppress":
            yield ("source.suppressed", session, command["source"], command["suppressed"])
        elif kind not in required and kind != "shutdown":
            yield ("error", "unsupported-command", kind, session, command.get("source"))


def _answer(conversation: Conversation, event: Event) -> tuple[Any, ...] | None:
    kind = event.get("type")
    if kind == "pong":
        return ("pong", float(event["sentAt"]))
    if kind == "session.stopped":
        return ("session.stopped", event.get("sessionId"))
    if kind == "session.ready" and conversation.backend == "legacy":
        return ("session.ready", event.get("sessionId"), event.get("locale"))
    if kind == "source.suppressed":
        return ("source.suppressed", event.get("sessionId"), event.get("source"), event.get("suppressed"))
    code = code_of(event)
    if code in _INCOMPLETE:
        return ("error", code)
    if code == "unsupported-command":
        word = str(event.get("message")).removeprefix("Unsupported command type: ")
        return ("error", code, word, event.get("sessionId"), event.get("source"))
    return None


@_rule("answers")
def _answers(conversation: Conversation) -> Iterator[str]:
    expected = list(_expected_answers(conversation))
    answers = [answer for event in conversation.events if (answer := _answer(conversation, event))]
    for index, answer in enumerate(answers):
        if index >= len(expected):
            yield f"no command asked for {answer}"
        elif answer != expected[index]:
            yield f"{answer} instead of {expected[index]}"
            return
    if conversation.complete and len(answers) < len(expected):
        yield f"no answer {expected[len(answers)]}"


@_rule("undecodable-lines")
def _undecodable_lines(conversation: Conversation) -> Iterator[str]:
    assert conversation.input is not None
    lines = [line for line in conversation.input.split(b"\n") if line.strip()]
    wrong = sum(decode_command(line) is None for line in lines)
    # The reader may be ahead of the handler: what follows a shutdown may or may not have been read.
    least = sum(decode_command(line) is None for line in input_lines(conversation.input)) if conversation.complete else 0
    errors = sum(code_of(event) == "invalid-command" for event in conversation.events)
    if not least <= errors <= wrong:
        yield f"{errors} errors for {wrong} lines that are not commands"


@_rule("exit-status")
def _exit_status(conversation: Conversation) -> Iterator[str]:
    last = conversation.events[-1] if conversation.events else {}
    status = 0
    if code_of(last) == "helper-ends":
        status = 1
    elif conversation.mode and last.get("type") == "helper.error":
        matching = errors_of(str(last.get("message")))
        status = matching[0].get("exitStatus", 1) if matching else 1
    elif conversation.mode == "--install-assets" and last.get("status") != "installed":
        status = 1
    elif conversation.mode == "--health" and last.get("status") == "unavailable":
        status = 1
    if conversation.exit_status != status:
        yield f"exit status {conversation.exit_status} instead of {status}"
