"""One meeting."""

from __future__ import annotations

import asyncio
import base64
import math
import operator
import sys
from array import array
from dataclasses import dataclass
from types import TracebackType
from typing import TYPE_CHECKING, AsyncIterator, Sequence, TypeVar

from ._process import Item, SendResult, encoded
from ._protocol import (
    AudioCommand,
    AudioSource,
    Command,
    Event,
    SessionReady,
    SessionStartCommand,
    SessionStopped,
    SourceSuppressCommand,
    SourceSuppressed,
    TranscriptFinal,
    TranscriptPartial,
)
from ._streams import Utterance, UtteranceStream

if TYPE_CHECKING:
    from ._helper import Helper

SAMPLES_PER_MS = 16  # 16 kHz
_CHUNK_MS = 100
_QUIET = bytes(_CHUNK_MS * SAMPLES_PER_MS * 2)
_SOURCES: tuple[AudioSource, ...] = ("remote", "self")

T = TypeVar("T")


class PalaverError(Exception):
    """Raised by this client.

    code: stable name, such as "helper-closed".
    """

    def __init__(self, code: str, message: str) -> None:
        super().__init__(message)
        self.code = code


class HelperClosedError(PalaverError):
    """The helper has ended, or ended while its answer was awaited. Code: "helper-closed"."""

    def __init__(self, message: str = "the helper has ended") -> None:
        super().__init__("helper-closed", message)


class SessionUnavailableError(PalaverError):
    """The session cannot be transcribed. Code: "session-unavailable"."""

    def __init__(self, message: str) -> None:
        super().__init__("session-unavailable", message)


@dataclass(frozen=True)
class StopReport:
    """How a session ended.

    drained: the helper has confirmed the end, and every utterance that it reported has its final.
    stopped: the helper has confirmed the end.
    dropped_ms: audio that this client dropped during the session, because the helper did not read it in time.
    missed: updates of utterances dropped because they were not read in time.
    """

    drained: bool
    stopped: bool
    dropped_ms: float
    missed: int


async def answer_within(answer: asyncio.Future[T], timeout: float) -> T:
    """The future's result. Raises asyncio.TimeoutError after `timeout` s.

    Unlike asyncio.wait_for() of Python 3.11 it lets no cancellation get lost that comes with the answer.
    """
    await asyncio.wait([answer], timeout=timeout)
    if not answer.done():
        answer.cancel()
        raise asyncio.TimeoutError
    return answer.result()


def samples_of(pcm: object) -> bytes:
    """The samples as 16-bit little-endian bytes. Takes bytes, or a buffer of int16 such as array("h") or a numpy array."""
    if isinstance(pcm, bytes):
        data = pcm
    else:
        view = memoryview(pcm)  # type: ignore[arg-type]
        if view.format in ("h", "=h", "<h", "@h"):
            data = view.tobytes()
            if sys.byteorder == "big" and view.format != "<h":
                swapped = array("h", data)
                swapped.byteswap()
                data = swapped.tobytes()
        elif view.format in ("B", "b", "c"):
            data = view.tobytes()
        else:
            raise TypeError(f"pcm must be bytes or int16, not {view.format!r}")
    if len(data) % 2:
        raise ValueError(f"pcm must hold whole 16-bit samples, not {len(data)} bytes")
    return data


def is_voice(data: bytes) -> bool:
    """Whether the helper takes the chunk for voice: root mean square of 0.008 of full scale or more."""
    samples: array[int] = array("h", data)
    if sys.byteorder == "big":
        samples.byteswap()
    least = 0.008 * 32768
    if not samples or max(samples) < least > -min(samples):
        return False
    return float(sum(map(operator.mul, samples, samples))) >= least * least * len(samples)


class Session:
    """One meeting with up to two sources, made by `Helper.session()`. Lives on the helper's event loop.

    available: whether its language can be transcribed, as far as the helper has reported.
    """

    def __init__(self, helper: Helper, id: str, locale: str, vocabulary: Sequence[str], require_available: bool) -> None:
        self._helper = helper
        self._require_available = require_available
        self.id = id
        self.locale = locale
        self.vocabulary = tuple(vocabulary)
        self.available = False
        self._utterances = UtteranceStream()
        self._sequence: dict[AudioSource, int] = {}
        self._ready_sources: set[str] = set()
        self._suppressed: set[AudioSource] = set()
        self._suppress_waiters: list[tuple[AudioSource, bool, asyncio.Future[None]]] = []
        self._ready: asyncio.Future[None] | None = None
        self._stopped: asyncio.Future[bool] | None = None
        self._state = "new"  # new, opening, open, stopping, ended
        self._dropped_ms = 0.0
        # Per source, ms on the host's clock: the end of the last chunk with voice, and of the last word with a final.
        self._voice_until: dict[AudioSource, float] = {}
        self._final_until: dict[AudioSource, float] = {}

    # For users

    async def __aenter__(self) -> Session:
        """Opens the session and waits until it is ready.

        Raises SessionUnavailableError if it cannot be transcribed, unless the session was made with require_available=False.
        Raises HelperClosedError if the helper ends.
        """
        if self._state != "new":
            raise RuntimeError("a session is opened once")
        self._helper._check_open()
        self._state = "opening"
        self._ready = asyncio.get_running_loop().create_future()
        self._helper._add_session(self)
        self._helper._command(self._start_command())
        try:
            await asyncio.wait([self._ready], timeout=self._helper.answer_timeout)
            if self._ready.done():
                self._ready.result()
            elif not self._ready_sources:
                why = await self._helper._why_unavailable(self.locale)
                raise SessionUnavailableError(f"no answer to session.start within {self._helper.answer_timeout} s: {why}")
            if self._require_available and not self.available:
                raise SessionUnavailableError(await self._helper._why_unavailable(self.locale))
        except BaseException:
            self._helper._command({"type": "session.stop", "sessionId": self.id})
            self._end()
            raise
        self._state = "open"
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        if self._state == "open":
            await self.stop(drain_ms=0)

    def send(self, source: AudioSource, pcm: object, captured_at: float | None = None) -> SendResult:
        """Sends a chunk of 16 kHz mono 16-bit audio, best 100 ms. Returns immediately and never raises for a dead helper.

        pcm: bytes (little-endian) or a buffer of int16.
        captured_at: time of the first sample, ms since the Unix epoch; by default now less the chunk's length.
        Raises ValueError or TypeError if an argument is wrong; nothing is sent then. Not for other threads: use
        `loop.call_soon_threadsafe(session.send, source, pcm, captured_at)` there.
        """
        if source not in _SOURCES:
            raise ValueError(f'source must be "remote" or "self", not {source!r}')
        data = samples_of(pcm)
        ms = len(data) / 2 / SAMPLES_PER_MS
        if captured_at is None:
            captured_at = self._helper._now_ms() - ms
        captured_at = float(captured_at)
        if not math.isfinite(captured_at):
            raise ValueError(f"captured_at must be finite, not {captured_at}")
        if self._state not in ("open", "stopping") or self._helper.is_closed:
            return SendResult.CLOSED
        if is_voice(data):
            self._voice_until[source] = captured_at + ms
        sequence = self._sequence.get(source, 0)
        self._sequence[source] = sequence + 1
        command: AudioCommand = {
            "type": "audio",
            "sessionId": self.id,
            "source": source,
            "sequence": sequence,
            "capturedAt": captured_at,
            "pcmBase64": base64.b64encode(data).decode(),
        }
        before = self._helper._queue.dropped_ms
        result = self._helper._enqueue(Item(encoded(command), (self.id, source), ms))
        self._dropped_ms += self._helper._queue.dropped_ms - before
        return result

    async def utterances(self, *, finals_only: bool = False) -> AsyncIterator[Utterance]:
        """Updates of utterances: partials and the final under one id. Ends when the session has ended and all were read.

        Unread updates wait: the newest of each utterance, of the newest 1000 utterances. Two iterators share them.
        """
        async for utterance in self._utterances:
            if utterance.is_final or not finals_only:
                yield utterance

    async def suppress(self, source: AudioSource, suppressed: bool = True) -> None:
        """Mutes or unmutes a source and waits for the helper's confirmation.

        Speech of a muted source that has no final yet is dropped. A restarted helper mutes it again.
        Raises HelperClosedError if the helper has ended, asyncio.TimeoutError if it does not answer.
        """
        if source not in _SOURCES:
            raise ValueError(f'source must be "remote" or "self", not {source!r}')
        self._helper._check_open()
        if self._state != "open":
            raise HelperClosedError("the session has ended")
        (self._suppressed.add if suppressed else self._suppressed.discard)(source)
        waiter: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._suppress_waiters.append((source, suppressed, waiter))
        self._helper._command(self._suppress_command(source, suppressed))
        await answer_within(waiter, self._helper.answer_timeout)

    async def stop(self, drain_ms: float = 3000) -> StopReport:
        """Ends the session. Never raises; a second call returns immediately.

        First sends quiet audio at its natural pace, at least 1 s and at most `drain_ms`, until every utterance has its final. Speech
        of which the recognizer has returned nothing yet counts as an utterance; noise without words takes the whole `drain_ms`.
        With 0 the helper turns the last texts into finals. Then waits for the end of the session, at most 5 s.
        """
        if self._state != "open":
            return self._report(False)
        self._state = "stopping"
        loop = asyncio.get_running_loop()
        self._stopped = loop.create_future()
        stopped = False
        try:
            try:
                if drain_ms > 0:
                    await self._drain(loop.time(), drain_ms / 1000)
            finally:  # also when this call is cancelled
                self._helper._command({"type": "session.stop", "sessionId": self.id})
            if not self._helper.is_closed:
                await asyncio.wait([self._stopped], timeout=5)
                stopped = self._stopped.done() and self._stopped.result()
            if stopped and self._helper._is_analyzer:
                await asyncio.sleep(1)  # the last finals follow session.stopped, and nothing says which is the last
            return self._report(stopped)
        finally:
            self._end()

    # For the helper

    def _start_command(self) -> SessionStartCommand:
        command: SessionStartCommand = {"type": "session.start", "sessionId": self.id, "locale": self.locale}
        if self.vocabulary:
            command["vocabulary"] = list(self.vocabulary)
        return command

    def _suppress_command(self, source: AudioSource, suppressed: bool) -> SourceSuppressCommand:
        return {"type": "source.suppress", "sessionId": self.id, "source": source, "suppressed": suppressed}

    @property
    def _is_open(self) -> bool:
        return self._state in ("opening", "open")

    def _reopening_commands(self) -> list[Command]:
        """What a restarted helper needs to know."""
        if not self._is_open:
            return []
        mutes = [self._suppress_command(source, True) for source in _SOURCES if source in self._suppressed]
        return [self._start_command(), *mutes]

    def _on_event(self, event: Event) -> None:
        if isinstance(event, TranscriptPartial):
            self._utterances.partial(event)
        elif isinstance(event, TranscriptFinal):
            self._utterances.final(event)
            self._final_until[event.source] = event.speech_ended_at
        elif isinstance(event, SessionReady):
            self.available = event.available
            if event.source is not None:
                self._ready_sources.add(event.source)
            is_ready = event.source is None or self._ready_sources.issuperset(_SOURCES)
            if is_ready and self._ready is not None and not self._ready.done():
                self._ready.set_result(None)
        elif isinstance(event, SourceSuppressed):
            if event.suppressed:
                self._utterances.discard(event.source)
                self._voice_until.pop(event.source, None)
            for entry in self._suppress_waiters:
                if entry[:2] == (event.source, event.suppressed):
                    self._suppress_waiters.remove(entry)
                    _settle(entry[2])
                    break
        elif isinstance(event, SessionStopped):
            if self._stopped is not None and not self._stopped.done():
                self._stopped.set_result(True)

    def _on_interruption(self, is_final: bool) -> None:
        """The helper has ended. `is_final`: no other takes its place."""
        self._utterances.interrupt()
        for _, _, waiter in self._suppress_waiters:
            _settle(waiter)  # the mute applies again after the restart
        self._suppress_waiters.clear()
        if self._stopped is not None and not self._stopped.done():
            self._stopped.set_result(False)
        if self._ready is not None and not self._ready.done() and self._state == "opening" and is_final:
            self._ready.set_exception(HelperClosedError())
        if is_final and self._state == "open":
            self._end()

    def _end(self) -> None:
        self._state = "ended"
        self._utterances.interrupt()
        self._utterances.close()
        self._helper._remove_session(self)

    def _report(self, stopped: bool) -> StopReport:
        return StopReport(stopped and self._utterances.idle.is_set(), stopped, self._dropped_ms, self._utterances.missed)

    def _awaits_text(self) -> bool:
        """Whether speech was sent that no final covers. The last word may end a while before the last sound."""
        never = float("-inf")
        return any(until - self._final_until.get(source, never) > 1500 for source, until in self._voice_until.items())

    async def _drain(self, start: float, seconds: float) -> None:
        loop = asyncio.get_running_loop()
        assert self._stopped is not None
        try:
            # The helper has handled all audio so far when it answers.
            await self._helper.ping(timeout=seconds)
        except (PalaverError, asyncio.TimeoutError):
            pass
        least = loop.time() + 1
        while loop.time() < start + seconds and not self._helper.is_closed and not self._stopped.done():
            if loop.time() >= least and self._utterances.idle.is_set() and not self._awaits_text():
                return
            for source in self._sequence:
                if source not in self._suppressed:
                    self.send(source, _QUIET)
            await asyncio.wait([self._stopped], timeout=_CHUNK_MS / 1000)  # the pace of speech


def _settle(waiter: asyncio.Future[None]) -> None:
    if not waiter.done():
        waiter.set_result(None)
