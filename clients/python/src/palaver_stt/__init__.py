"""Turns meeting audio into text with PalaverSTTHelper, on the device. asyncio; no dependencies.

See README.md for the smallest host.
"""

from ._events import HelperEnded, HelperError, HelperRestarted
from ._helper import Helper, HelperStartError, Ping, RestartPolicy
from ._locate import find_helper
from ._process import SendResult
from ._protocol import (
    PROTOCOL_VERSION,
    AudioSource,
    Endpointing,
    ErrorCode,
    Event,
    HelperAuthorization,
    HelperModel,
    HelperStatus,
    Pong,
    ResearchComplete,
    SessionReady,
    SessionStopped,
    SourceSuppressed,
    TranscriptFinal,
    TranscriptPartial,
    UnknownEvent,
)
from ._session import HelperClosedError, PalaverError, Session, SessionUnavailableError, StopReport
from ._streams import EventStream, Utterance

__all__ = [
    "PROTOCOL_VERSION",
    "AudioSource",
    "Endpointing",
    "ErrorCode",
    "Event",
    "EventStream",
    "Helper",
    "HelperAuthorization",
    "HelperClosedError",
    "HelperEnded",
    "HelperError",
    "HelperModel",
    "HelperRestarted",
    "HelperStartError",
    "HelperStatus",
    "PalaverError",
    "Ping",
    "Pong",
    "ResearchComplete",
    "RestartPolicy",
    "SendResult",
    "Session",
    "SessionReady",
    "SessionStopped",
    "SessionUnavailableError",
    "SourceSuppressed",
    "StopReport",
    "TranscriptFinal",
    "TranscriptPartial",
    "UnknownEvent",
    "Utterance",
    "find_helper",
]
