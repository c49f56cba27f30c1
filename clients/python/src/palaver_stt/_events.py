"""Decodes lines of the helper into events, tolerantly."""

from __future__ import annotations

import json
from dataclasses import dataclass, replace
from typing import Any, Literal

from ._protocol import (
    ERROR_DEFINITIONS,
    EVENT_CLASSES,
    EVENT_KEYS,
    AudioSource,
    Endpointing,
    ErrorCode,
    Event,
    HelperErrorEvent,
    UnknownEvent,
)


@dataclass(frozen=True)
class HelperError(Event):
    """Something failed in the helper. Errors that repeat with each chunk of audio are folded into one with a count.

    code: stable name of the error; "unknown" for a text that this version does not know.
    message: the helper's text, in English, for logs and developers.
    at: ms since the Unix epoch, helper's clock, of the newest repetition.
    count: number of errors folded into this one.
    cause, cure: what happened and what to do; empty for an unknown error.
    """

    code: ErrorCode | Literal["unknown"]
    message: str
    at: float
    session_id: str | None = None
    source: AudioSource | None = None
    count: int = 1
    cause: str = ""
    cure: str = ""


@dataclass(frozen=True)
class HelperRestarted(Event):
    """The helper ended unexpectedly and a new one has taken its place. Written by this client, not by the helper.

    Sessions are open again and mutes apply again. Audio that the old helper held is lost.

    ended_at, restarted_at: ms since the Unix epoch.
    exit_status: of the old helper, negative for a signal; None if it is unknown.
    """

    ended_at: float
    restarted_at: float
    exit_status: int | None


@dataclass(frozen=True)
class HelperEnded(Event):
    """The helper has ended and will not be restarted: it was closed, or it ended and the restart policy allows no further restart.

    reason: "closed", or why there is no other helper.
    exit_status: negative for a signal; None if it is unknown.
    """

    reason: str
    exit_status: int | None


_JSON_TYPES: dict[str, tuple[type, ...]] = {"string": (str,), "number": (int, float), "boolean": (bool,), "object": (dict,)}


def _has_type(value: object, name: str) -> bool:
    return isinstance(value, _JSON_TYPES[name]) and (name == "boolean" or not isinstance(value, bool))


def _fields(kind: str, value: dict[str, Any]) -> dict[str, Any] | None:
    """Constructor arguments; None if a required key is missing or of another type. Optional keys of another type are left out."""
    fields: dict[str, Any] = {}
    for key, attribute, json_type, required in EVENT_KEYS[kind]:
        if key in value and _has_type(value[key], json_type):
            fields[attribute] = value[key]
        elif required:
            return None
    return fields


def decode_event(line: bytes) -> Event:
    """Decodes one line. Never raises: what is not a known event is an UnknownEvent."""
    try:
        value = json.loads(line.decode("utf-8", "replace"))
    except (ValueError, RecursionError):
        return UnknownEvent({}, "")
    if not isinstance(value, dict):
        return UnknownEvent({}, "")
    kind = value.get("type")
    if not isinstance(kind, str):
        return UnknownEvent(value, "")
    fields = _fields(kind, value) if kind in EVENT_CLASSES else None
    if fields is not None and "endpointing" in fields:
        endpointing = _fields("endpointing", fields["endpointing"])
        if endpointing is None:
            return UnknownEvent(value, kind)
        fields["endpointing"] = Endpointing(**endpointing)
    if fields is None:
        return UnknownEvent(value, kind)
    return EVENT_CLASSES[kind](raw=value, **fields)


def describe_error(event: HelperErrorEvent) -> tuple[HelperError, bool]:
    """The error with its code, and whether it repeats with each chunk or command."""
    for definition in ERROR_DEFINITIONS:
        if definition.pattern.search(event.message):
            error = HelperError(
                event.raw,
                definition.code,
                event.message,
                event.at,
                event.session_id,
                event.source,
                cause=definition.cause,
                cure=definition.cure,
            )
            return error, definition.repeats != "once"
    return HelperError(event.raw, "unknown", event.message, event.at, event.session_id, event.source), False


class ErrorFolder:
    """Folds repeated errors: the first of a kind passes, the next ones are counted and pass together every `window_ms`.

    Main use: a session whose model is missing has one error per chunk, ten a second. Times are those of the events.
    """

    def __init__(self, window_ms: float = 10_000) -> None:
        self._window_ms = window_ms
        # Per kind: time of the newest that passed, those counted since, the newest of them.
        self._held: dict[tuple[str | None, str | None, str], tuple[float, int, HelperError | None]] = {}

    def add(self, event: HelperErrorEvent) -> HelperError | None:
        """The error to deliver now, if any."""
        error, repeats = describe_error(event)
        if not repeats:
            return error
        key = (error.session_id, error.source, error.message)
        if key not in self._held:
            if len(self._held) >= 100:  # texts that differ each time
                return error
            self._held[key] = (error.at, 0, None)
            return error
        passed_at, count, _ = self._held[key]
        if abs(error.at - passed_at) < self._window_ms:
            self._held[key] = (passed_at, count + 1, error)
            return None
        self._held[key] = (error.at, 0, None)
        return replace(error, count=count + 1)

    def flush(self, session_id: str | None = None) -> list[HelperError]:
        """The errors still held back, of one session or of all, each with its count."""
        keys = [key for key in self._held if session_id is None or key[0] == session_id]
        held = [self._held.pop(key) for key in keys]
        return [replace(error, count=count) for _, count, error in held if error is not None]
