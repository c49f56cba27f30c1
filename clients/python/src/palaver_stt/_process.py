"""One helper process: its pipes, the queue of what is to be written, and its end."""

from __future__ import annotations

import asyncio
import enum
import json
from collections import deque
from typing import Callable, Collection, Mapping, NamedTuple, Sequence, cast

from ._lines import LineSplitter
from ._protocol import Command

STDERR_TAIL = 8192  # bytes kept of standard error
_PIPE_BUFFER = 16 << 10  # bytes that the event loop holds beyond what the pipe takes


class SendResult(enum.Enum):
    """What became of a chunk of audio."""

    SENT = "sent"  # handed to the helper's pipe
    QUEUED = "queued"  # waits until the helper reads
    DROPPED = "dropped"  # waits too, and the oldest waiting audio of this source was dropped for it
    CLOSED = "closed"  # not taken: the session is not open, or the helper has ended


class Item(NamedTuple):
    """What waits to be written. `channel` and `ms` are set for audio only."""

    data: bytes
    channel: tuple[str, str] | None
    ms: float


def encoded(command: Command) -> bytes:
    """The line that carries a command."""
    return json.dumps(command, ensure_ascii=False, separators=(",", ":")).encode() + b"\n"


class SendQueue:
    """Commands and audio in their order. Bounded for audio: beyond `max_audio_ms` of one channel its oldest audio is dropped.

    Commands are never dropped.
    """

    def __init__(self, max_audio_ms: float) -> None:
        self._max_audio_ms = max_audio_ms
        self._items: deque[Item] = deque()
        self._waiting_ms: dict[tuple[str, str], float] = {}
        self.dropped_ms = 0.0

    def __len__(self) -> int:
        return len(self._items)

    def add(self, item: Item) -> bool:
        """Adds an item. Returns whether audio was dropped for it."""
        self._items.append(item)
        if item.channel is None:
            return False
        self._waiting_ms[item.channel] = self._waiting_ms.get(item.channel, 0) + item.ms
        dropped = False
        while self._waiting_ms[item.channel] > self._max_audio_ms:
            index = next(index for index, other in enumerate(self._items) if other.channel == item.channel)
            if self._items[index] is item:
                break  # the newest chunk stays, however long it is
            self.dropped_ms += self._items[index].ms
            self._waiting_ms[item.channel] -= self._items[index].ms
            del self._items[index]
            dropped = True
        return dropped

    def take(self) -> Item:
        item = self._items.popleft()
        self._count_out(item)
        return item

    def keep_audio_of(self, session_ids: Collection[str]) -> None:
        """Drops commands, and the audio of other sessions."""
        kept = [item for item in self._items if item.channel is not None and item.channel[0] in session_ids]
        self._items.clear()
        self._waiting_ms.clear()
        for item in kept:
            self.add(item)

    def put_first(self, items: Sequence[Item]) -> None:
        """Puts commands ahead of what waits, in their order."""
        self._items.extendleft(reversed(items))

    def _count_out(self, item: Item) -> None:
        if item.channel is not None:
            self._waiting_ms[item.channel] -= item.ms
            if self._waiting_ms[item.channel] <= 0:
                del self._waiting_ms[item.channel]


class HelperProcess(asyncio.SubprocessProtocol):
    """A running helper. Lives on one event loop.

    on_line: called with each complete line of standard output.
    on_end: called once, when the process has ended and its output was read, or was given up.
    """

    def __init__(self, queue: SendQueue, on_line: Callable[[bytes], None], on_end: Callable[[], None]) -> None:
        self._loop = asyncio.get_running_loop()
        self._queue = queue
        self._on_line = on_line
        self._on_end = on_end
        self._lines = LineSplitter()
        self._stderr = bytearray()
        self._held = True
        self._paused = False
        self._input_closed = False
        self._input_lost = False
        self._exited = False
        self._ended = False
        self._transport: asyncio.SubprocessTransport | None = None
        self._input: asyncio.WriteTransport | None = None
        self.ended: asyncio.Future[None] = self._loop.create_future()

    @classmethod
    async def spawn(
        cls,
        command: Sequence[str],
        env: Mapping[str, str] | None,
        queue: SendQueue,
        on_line: Callable[[bytes], None],
        on_end: Callable[[], None],
    ) -> HelperProcess:
        """Starts the program. Raises OSError."""
        loop = asyncio.get_running_loop()
        # A session of its own keeps the terminal's signals away: Ctrl-C would end the helper before its last final.
        _, process = await loop.subprocess_exec(
            lambda: cls(queue, on_line, on_end), *command, env=dict(env) if env is not None else None, start_new_session=True
        )
        return process

    @property
    def pid(self) -> int | None:
        return self._transport.get_pid() if self._transport else None

    @property
    def exit_status(self) -> int | None:
        """Negative for a signal; None while the process runs."""
        return self._transport.get_returncode() if self._transport else None

    @property
    def stderr_tail(self) -> str:
        return bytes(self._stderr).decode("utf-8", "replace")

    # Writing

    def release(self) -> None:
        """Begins to write what waits; until then the queue is left alone."""
        self._held = False
        self.flush()

    def flush(self) -> None:
        """Writes what waits, as far as the pipe takes it."""
        if self._input is None or self._held or self._input_closed or self._ended:
            return
        while len(self._queue) and not self._paused and not self._input.is_closing():
            self._input.write(self._queue.take().data)

    @property
    def is_writable(self) -> bool:
        return not (self._held or self._paused or self._input_closed or self._ended) and not len(self._queue)

    def close_input(self) -> None:
        """Writes what waits, then ends the helper's standard input. The event loop does it as the helper reads."""
        if self._input is None or self._input_closed:
            return
        self._input_closed = True
        if not (self._held or self._ended or self._exited):
            while len(self._queue):
                self._input.write(self._queue.take().data)
        self._input.close()

    async def close(self, timeout: float) -> None:
        """Ends the helper: the end of its input first, then SIGTERM, then SIGKILL. Takes at most `timeout` + 1 s."""
        self.close_input()
        for wait, signal in ((timeout, "terminate"), (0.5, "kill"), (0.5, None)):
            await asyncio.wait([self.ended], timeout=wait)
            if self.ended.done() or signal is None:
                break
            assert self._transport is not None
            try:
                getattr(self._transport, signal)()
            except ProcessLookupError:
                pass
        self._end()

    # Callbacks of the event loop

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        self._transport = cast(asyncio.SubprocessTransport, transport)
        self._input = cast(asyncio.WriteTransport, self._transport.get_pipe_transport(0))
        if not self._input.is_closing():
            self._input.set_write_buffer_limits(high=_PIPE_BUFFER)

    def pause_writing(self) -> None:
        self._paused = True

    def resume_writing(self) -> None:
        self._paused = False
        self.flush()

    def pipe_data_received(self, fd: int, data: bytes) -> None:
        if self._ended:
            return
        if fd == 2:
            self._stderr += data[-STDERR_TAIL:]
            del self._stderr[:-STDERR_TAIL]
            return
        for line in self._lines.feed(data):
            if line.strip():
                self._on_line(line)

    def pipe_connection_lost(self, fd: int, exc: Exception | None) -> None:
        if fd == 1:
            if self._exited:
                self._end()
            else:
                # The helper has closed its output, or is about to be reaped.
                self.close_input()
                self._loop.call_later(1, self._give_up)
        elif fd == 0:
            self._input_closed = self._input_lost = True

    def process_exited(self) -> None:
        # A child of the program may still hold the pipes, as on macOS, where the helper runs in a second process. It ends with
        # its input. Its last lines are read, but not waited for longer than a second.
        self._exited = True
        self.close_input()
        stdout = self._transport.get_pipe_transport(1) if self._transport else None
        if stdout is None or stdout.is_closing():
            self._end()
        else:
            self._loop.call_later(1, self._end)

    def _give_up(self) -> None:
        if self._transport is not None and not self._exited:
            self._transport.kill()
        self._end()

    def _end(self) -> None:
        if self._ended:
            return
        self._ended = True
        if self._input is not None and not self._input_lost:
            self._input.abort()  # what a process that does not read has left
        if self._transport is not None:
            self._transport.close()  # closes the pipes, and kills the process if it still runs
        if not self.ended.done():
            self.ended.set_result(None)
        self._on_end()
