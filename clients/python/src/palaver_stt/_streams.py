"""Bounded buffers between the event loop's callbacks and asynchronous iterators."""

from __future__ import annotations

import asyncio
from collections import OrderedDict, deque
from dataclasses import dataclass, replace
from typing import Generic, Iterable, TypeVar

from ._protocol import AudioSource, Event, TranscriptFinal, TranscriptPartial

T = TypeVar("T")


class _Iterator(Generic[T]):
    """An asynchronous iterator over a buffer that subclasses fill. Ends when it is closed and empty."""

    def __init__(self) -> None:
        self._arrived = asyncio.Event()
        self._closed = False

    def __aiter__(self) -> _Iterator[T]:
        return self

    async def __anext__(self) -> T:
        while True:
            item = self._pop()
            if item is not None:
                return item
            if self._closed:
                raise StopAsyncIteration
            self._arrived.clear()
            await self._arrived.wait()

    def close(self) -> None:
        """Ends the iteration after what has arrived."""
        self._closed = True
        self._arrived.set()

    def _pop(self) -> T | None:
        raise NotImplementedError


class EventStream(_Iterator[Event]):
    """Every event since the stream was made. Keeps the newest 1000 unread ones.

    missed: how many events were dropped unread.
    """

    def __init__(self, limit: int = 1000) -> None:
        super().__init__()
        self._events: deque[Event] = deque()
        self._limit = limit
        self.missed = 0

    def add(self, event: Event) -> None:
        if self._closed:
            return
        self._events.append(event)
        if len(self._events) > self._limit:
            self._events.popleft()
            self.missed += 1
        self._arrived.set()

    def _pop(self) -> Event | None:
        return self._events.popleft() if self._events else None


@dataclass(frozen=True)
class Utterance:
    """The text of an utterance so far, or its final text.

    id: the same in all updates of one utterance.
    source: "remote" or "self".
    text: the complete text; replaces that of earlier updates.
    is_final: no update follows.
    started_at: start of the first word, ms since the Unix epoch, host's clock.
    ended_at: end of the last word, ms since the Unix epoch, host's clock; None until final.
    latency_ms: time from the end of speech to the final; None until final.
    reason: why the utterance ended: one of the helper's reasons, or "interrupted" if the helper ended; None until final.
    replaces: ids of earlier updates that this final replaces although its id differs. Remove them from the display.
    """

    id: str
    source: AudioSource
    text: str
    is_final: bool
    started_at: float
    ended_at: float | None = None
    latency_ms: float | None = None
    reason: str | None = None
    replaces: tuple[str, ...] = ()


class UtteranceStream(_Iterator[Utterance]):
    """Updates of a session's utterances. Of several unread updates of one utterance only the newest is kept.

    Keeps the newest 1000 unread utterances. missed: how many were dropped unread.
    """

    def __init__(self, limit: int = 1000) -> None:
        super().__init__()
        self._unread: OrderedDict[str, Utterance] = OrderedDict()
        self._open: dict[str, Utterance] = {}
        self._limit = limit
        self.missed = 0
        self.idle = asyncio.Event()  # set while every utterance has its final
        self.idle.set()

    @property
    def open(self) -> Iterable[Utterance]:
        """Those without a final so far."""
        return self._open.values()

    def partial(self, event: TranscriptPartial) -> None:
        utterance = Utterance(event.utterance_id, event.source, event.text, False, event.started_at)
        self._open.pop(utterance.id, None)
        self._open[utterance.id] = utterance
        if len(self._open) > self._limit:  # a helper that never ends an utterance
            self._open.pop(next(iter(self._open)))
        self._add(utterance)

    def final(self, event: TranscriptFinal) -> None:
        # Where the final has another id than its partials, they are those that start before its end.
        replaced = [
            other.id
            for other in self._open.values()
            if other.source == event.source and other.id != event.utterance_id and other.started_at < event.speech_ended_at
        ]
        for id in (*replaced, event.utterance_id):
            self._open.pop(id, None)
        for id in replaced:
            self._unread.pop(id, None)
        self._add(
            Utterance(
                event.utterance_id,
                event.source,
                event.text,
                True,
                event.started_at,
                event.speech_ended_at,
                event.latency_ms,
                event.endpointing.reason,
                tuple(replaced),
            )
        )

    def interrupt(self) -> None:
        """Makes finals of what is open, as no other will come."""
        for utterance in [*self._open.values()]:
            self._add(replace(utterance, is_final=True, reason="interrupted"))
        self._open.clear()
        self._note_open()

    def discard(self, source: str) -> None:
        """Forgets what is open of a muted source."""
        for utterance in [*self._open.values()]:
            if utterance.source == source:
                del self._open[utterance.id]
        self._note_open()

    def _note_open(self) -> None:
        if self._open:
            self.idle.clear()
        else:
            self.idle.set()

    def _add(self, utterance: Utterance) -> None:
        self._note_open()
        if self._closed:
            return
        self._unread.pop(utterance.id, None)
        self._unread[utterance.id] = utterance
        if len(self._unread) > self._limit:
            self._unread.popitem(last=False)
            self.missed += 1
        self._arrived.set()

    def _pop(self) -> Utterance | None:
        return self._unread.popitem(last=False)[1] if self._unread else None
