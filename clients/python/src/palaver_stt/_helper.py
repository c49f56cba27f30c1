"""The helper as a child process of this program."""

from __future__ import annotations

import asyncio
import os
import time
import uuid
import weakref
from collections import deque
from dataclasses import dataclass
from types import TracebackType
from typing import Callable, Mapping, Sequence

from ._events import ErrorFolder, HelperEnded, HelperRestarted, decode_event
from ._locate import find_helper
from ._process import HelperProcess, Item, SendQueue, SendResult, encoded
from ._protocol import PROTOCOL_VERSION, Command, Event, HelperErrorEvent, HelperStatus, Pong, SessionReady, SessionStopped
from ._session import HelperClosedError, PalaverError, Session, answer_within
from ._streams import EventStream


@dataclass(frozen=True)
class RestartPolicy:
    """When a helper that ended unexpectedly is started again.

    The `most`-th end within `within_s` seconds is final. So is an end before the first status. most=1: never restart.
    """

    most: int = 5
    within_s: float = 180


@dataclass(frozen=True)
class Ping:
    """round_trip_ms: time until all earlier commands were handled. clock_offset_ms: helper's clock less this program's clock."""

    round_trip_ms: float
    clock_offset_ms: float


class HelperStartError(PalaverError):
    """The helper could not be started, or wrote no status in time. Code: "helper-not-started"."""

    def __init__(self, message: str) -> None:
        super().__init__("helper-not-started", message)


class Helper:
    """A running PalaverSTTHelper. Use it as `async with Helper.start() as helper`. Lives on one event loop.

    status: the newest helper.status. It is always about Japanese; `Session.available` is about a session's own language.
    """

    def __init__(
        self,
        command: Sequence[str],
        env: Mapping[str, str] | None,
        restart: RestartPolicy,
        start_timeout: float,
        answer_timeout: float,
        max_queued_ms: float,
        now_ms: Callable[[], float],
        monotonic: Callable[[], float],
    ) -> None:
        self._command_line = command
        self._env = env
        self._policy = restart
        self._start_timeout = start_timeout
        self.answer_timeout = answer_timeout
        self._now_ms = now_ms
        self._monotonic = monotonic
        self._queue = SendQueue(max_queued_ms)
        self._process: HelperProcess | None = None
        self._sessions: dict[str, Session] = {}
        self._streams: weakref.WeakSet[EventStream] = weakref.WeakSet()
        self._errors = ErrorFolder()
        self._pings: deque[tuple[float, asyncio.Future[Pong]]] = deque()
        self._ping_number = 0
        self._first_status: asyncio.Future[None] | None = None
        self._status_changed = asyncio.Event()
        self._ends: deque[float] = deque()
        self._restarting: asyncio.Task[None] | None = None
        self._closing = False
        self._ended: HelperEnded | None = None
        self.status: HelperStatus | None = None

    # For users

    @classmethod
    def start(
        cls,
        command: str | os.PathLike[str] | Sequence[str] | None = None,
        *,
        env: Mapping[str, str] | None = None,
        restart: RestartPolicy = RestartPolicy(),
        start_timeout: float = 10,
        answer_timeout: float = 10,
        max_queued_ms: float = 5000,
        now_ms: Callable[[], float] = lambda: time.time() * 1000,
        monotonic: Callable[[], float] = time.monotonic,
    ) -> Helper:
        """A helper that starts when it is entered with `async with`.

        command: the program's path, or program and arguments; by default that of find_helper.
        env: the helper's environment; by default that of this program.
        start_timeout: s until the first status; a Mac may take 2.5 s.
        answer_timeout: s until the answer to a command.
        max_queued_ms: audio per source that waits for a helper that does not read; beyond it the oldest is dropped.
        now_ms, monotonic: the clocks, ms since the Unix epoch and s.
        """
        if command is None:
            command = find_helper()
        words = [os.fspath(command)] if isinstance(command, (str, os.PathLike)) else [*command]
        return cls(words, env, restart, start_timeout, answer_timeout, max_queued_ms, now_ms, monotonic)

    async def __aenter__(self) -> Helper:
        """Starts the helper and waits for its first status. Raises HelperStartError."""
        if self._process is not None:
            raise RuntimeError("a helper is started once")
        try:
            await self._spawn()
        except BaseException:
            await self.close()
            raise
        assert self._process is not None
        self._process.release()
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        await self.close()

    def session(
        self, locale: str = "ja-JP", *, vocabulary: Sequence[str] = (), id: str | None = None, require_available: bool = True
    ) -> Session:
        """A session that opens when it is entered with `async with`.

        vocabulary: phrases to prefer; the first 100 count.
        id: by default a random one.
        require_available: whether entering raises SessionUnavailableError when the language cannot be transcribed now.
        """
        if isinstance(vocabulary, str):
            raise TypeError("vocabulary must be a sequence of phrases")
        id = id if id is not None else uuid.uuid4().hex
        for text in (id, locale, *vocabulary):
            if not isinstance(text, str):
                raise TypeError(f"id, locale and phrases must be str, not {type(text).__name__}")
            text.encode("utf-8")  # raises UnicodeEncodeError, a ValueError, for half of a surrogate pair
        return Session(self, id, locale, vocabulary, require_available)

    def events(self) -> EventStream:
        """Every event from now on: those of the helper, unknown ones as UnknownEvent, errors as HelperError with their code; and
        HelperRestarted and HelperEnded of this client. Ends after HelperEnded."""
        stream = EventStream()
        if self._ended is not None:
            stream.add(self._ended)
            stream.close()
        else:
            self._streams.add(stream)
        return stream

    async def ping(self, timeout: float = 5) -> Ping:
        """Waits until the helper has handled every command sent so far.

        timeout: s. Raises asyncio.TimeoutError after it, HelperClosedError if the helper ends meanwhile.
        """
        self._check_open()
        self._ping_number += 1
        number = float(self._ping_number)  # identifies the answer
        answer: asyncio.Future[Pong] = asyncio.get_running_loop().create_future()
        self._pings.append((number, answer))
        sent, sent_at = self._monotonic(), self._now_ms()
        try:
            self._command({"type": "ping", "sentAt": number})
            pong = await answer_within(answer, timeout)
        finally:
            self._pings = deque(entry for entry in self._pings if entry[1] is not answer)
        received_at = self._now_ms()
        return Ping((self._monotonic() - sent) * 1000, pong.helper_at - (sent_at + received_at) / 2)

    async def close(self, timeout: float = 2) -> None:
        """Ends the helper by closing its input, which turns the last texts into finals. Never raises.

        timeout: s until a helper that hangs is killed. Takes at most two seconds more.
        """
        self._closing = True
        if self._restarting is not None:
            self._restarting.cancel()
            await asyncio.wait([self._restarting], timeout=1)
        if self._process is not None:
            await self._process.close(timeout)
        self._finish("closed")

    @property
    def is_closed(self) -> bool:
        """Whether the helper has ended and will not be restarted."""
        return self._ended is not None or self._closing

    @property
    def pid(self) -> int | None:
        """Process id of the running helper."""
        return self._process.pid if self._process is not None and not self._process.ended.done() else None

    @property
    def stderr_tail(self) -> str:
        """The last 8 KiB of the helper's standard error. With PALAVER_STT_DEBUG=1 it holds spoken words."""
        return self._process.stderr_tail if self._process is not None else ""

    # For sessions

    def _check_open(self) -> None:
        if self._process is None:
            raise HelperClosedError("the helper has not been started")
        if self.is_closed:
            raise HelperClosedError()

    def _add_session(self, session: Session) -> None:
        if session.id in self._sessions:
            raise ValueError(f"there is a session {session.id!r} already")
        self._sessions[session.id] = session

    def _remove_session(self, session: Session) -> None:
        self._sessions.pop(session.id, None)

    def _command(self, command: Command) -> None:
        self._enqueue(_item(command))

    def _enqueue(self, item: Item) -> SendResult:
        process = self._process
        if self.is_closed or process is None:
            return SendResult.CLOSED
        direct = process.is_writable
        dropped = self._queue.add(item)
        if direct:
            process.flush()
            return SendResult.SENT
        return SendResult.DROPPED if dropped else SendResult.QUEUED

    @property
    def _is_analyzer(self) -> bool:
        return self.status is not None and self.status.implementation == "speech-analyzer"

    async def _why_unavailable(self, locale: str) -> str:
        """The reason why a session is not available, from the status that follows."""
        try:
            await self.ping()
        except (PalaverError, asyncio.TimeoutError):
            pass
        why = "check the locale, and that its model is installed"
        # The status is about Japanese; the permission and Dictation are about all languages.
        if self.status is not None and not self.status.available and self.status.message:
            is_permitted = self.status.authorization in ("authorized", "not-required")
            if locale.startswith("ja") or not is_permitted or self.status.dictation == "disabled":
                why = self.status.message
        return f"speech in {locale!r} cannot be transcribed now: {why}"

    # The process

    async def _spawn(self) -> None:
        """Starts a process and waits for its first status. Raises HelperStartError."""
        self._first_status = asyncio.get_running_loop().create_future()
        try:
            self._process = await HelperProcess.spawn(
                self._command_line, self._env, self._queue, self._on_line, self._on_process_end
            )
        except OSError as error:
            raise HelperStartError(f"{self._command_line[0]}: {error.strerror or error}") from None
        either = [self._first_status, self._process.ended]
        await asyncio.wait(either, timeout=self._start_timeout, return_when=asyncio.FIRST_COMPLETED)
        if not self._first_status.done():
            ended = self._process.ended.done()
            await self._process.close(0.1)
            how = f"ended with status {self._process.exit_status}" if ended else f"wrote nothing for {self._start_timeout} s"
            raise HelperStartError(f"{self._command_line[0]} {how} before its first status")
        assert self.status is not None
        if self.status.protocol_version != PROTOCOL_VERSION:
            version = self.status.protocol_version
            self._first_status = None  # this end calls for no restart
            await self._process.close(0.1)
            raise HelperStartError(f"the helper speaks protocol version {version}, this client {PROTOCOL_VERSION}")

    def _on_line(self, line: bytes) -> None:
        event = decode_event(line)
        if isinstance(event, HelperErrorEvent):
            error = self._errors.add(event)
            if error is not None:
                self._deliver(error)
            return
        if isinstance(event, HelperStatus):
            self.status = event
            if self._first_status is not None and not self._first_status.done():
                self._first_status.set_result(None)
        elif isinstance(event, Pong):
            for number, answer in self._pings:
                if number == event.sent_at and not answer.done():
                    answer.set_result(event)
        session_id = getattr(event, "session_id", None)
        if isinstance(event, (SessionReady, SessionStopped)):
            for held in self._errors.flush(session_id):
                self._deliver(held)
        if session_id in self._sessions:
            self._sessions[session_id]._on_event(event)
        self._deliver(event)

    def _deliver(self, event: Event) -> None:
        for stream in [*self._streams]:
            stream.add(event)

    def _on_process_end(self) -> None:
        if self._first_status is None or not self._first_status.done() or self._ended is not None:
            return  # _spawn() reports it
        now = self._monotonic()
        self._ends.append(now)
        while self._ends[0] <= now - self._policy.within_s:
            self._ends.popleft()
        may_restart = not self._closing and len(self._ends) < self._policy.most
        self._queue.keep_audio_of({session.id for session in self._sessions.values() if session._is_open})
        reopening = [command for session in self._sessions.values() for command in session._reopening_commands()]
        self._fail_pings()
        for session in [*self._sessions.values()]:
            session._on_interruption(is_final=not may_restart)
        if may_restart:
            assert self._process is not None
            self._restarting = asyncio.ensure_future(self._restart(reopening, self._process.exit_status))
        elif not self._closing:
            self._finish(f"the helper ended {len(self._ends)} times within {self._policy.within_s:g} s")

    async def _restart(self, reopening: list[Command], exit_status: int | None) -> None:
        """Starts another process and opens the sessions again, ahead of the audio and commands that have been queued since."""
        ended_at = self._now_ms()
        try:
            await self._spawn()
        except PalaverError as error:
            self._finish(str(error))
            return
        assert self._process is not None
        if self._process.ended.done():
            return  # it ended right after its first status; the next restart is under way
        self._queue.put_first([_item(command) for command in reopening])
        self._process.release()
        self._deliver(HelperRestarted({}, ended_at, self._now_ms(), exit_status))

    def _fail_pings(self) -> None:
        for _, answer in self._pings:
            if not answer.done():
                answer.set_exception(HelperClosedError())

    def _finish(self, reason: str) -> None:
        """Ends all sessions and streams, once."""
        if self._ended is not None:
            return
        for error in self._errors.flush():
            self._deliver(error)
        self._ended = HelperEnded({}, reason, self._process.exit_status if self._process is not None else None)
        self._fail_pings()
        for session in [*self._sessions.values()]:
            session._on_interruption(is_final=True)
        self._deliver(self._ended)
        for stream in [*self._streams]:
            stream.close()


def _item(command: Command) -> Item:
    return Item(encoded(command), None, 0)
