"""The client against fake helpers that misbehave."""

from __future__ import annotations

import asyncio
import json
import os
import random
import re
import signal
import tempfile
import unittest
from array import array
from pathlib import Path
from typing import Any

from support import FAKE, QUIET, VOICE, ClientTest, process_ends_within

from palaver_stt import (
    Event,
    EventStream,
    Helper,
    HelperClosedError,
    HelperEnded,
    HelperError,
    HelperRestarted,
    HelperStartError,
    RestartPolicy,
    SendResult,
    Session,
    TranscriptFinal,
    UnknownEvent,
    Utterance,
)
from palaver_stt._events import decode_event
from palaver_stt._lines import LineSplitter
from palaver_stt._session import is_voice

NO_RESTART = RestartPolicy(most=1)
DIE = b"die!" + bytes(3196)


async def next_of(stream: EventStream, kind: type[Event]) -> Any:
    async for event in stream:
        if isinstance(event, kind):
            return event
    raise AssertionError(f"no {kind.__name__}")


async def finals(session: Session) -> list[Utterance]:
    return [utterance async for utterance in session.utterances(finals_only=True)]


class Log:
    """The commands that fake helpers have read."""

    def __init__(self, test: unittest.TestCase) -> None:
        folder = tempfile.TemporaryDirectory()
        test.addCleanup(folder.cleanup)
        self.path = Path(folder.name, "log")
        self.path.touch()
        self.env = {**os.environ, "FAKE_LOG": str(self.path)}

    @property
    def commands(self) -> list[dict[str, Any]]:
        return [json.loads(line) for line in self.path.read_text().splitlines()]

    def of_type(self, kind: str) -> list[dict[str, Any]]:
        return [command for command in self.commands if command["type"] == kind]


class Meeting(ClientTest):
    async def test_partials_and_final_are_folded(self) -> None:
        async with Helper.start([*FAKE, "echo"]) as helper, helper.session("en-US") as session:
            iterator = session.utterances()
            session.send("remote", VOICE)
            first = await self.within(5, iterator.__anext__())
            self.assertEqual((first.text, first.is_final, first.ended_at), ("words 1", False, None))
            for _ in range(5):
                session.send("remote", VOICE)
            session.send("remote", QUIET)
            await helper.ping()  # by now six updates have arrived; one is left
            last = await self.within(5, iterator.__anext__())
            self.assertEqual((last.id, last.text, last.is_final, last.reason), (first.id, "words 1.", True, "silence"))
            report = await session.stop(drain_ms=0)
            self.assertEqual((report.drained, report.stopped, report.dropped_ms), (True, True, 0))
            self.assertEqual([utterance async for utterance in iterator], [])

    async def test_stop_pads_with_silence_until_the_final(self) -> None:
        log = Log(self)
        async with Helper.start([*FAKE, "echo"], env=log.env) as helper, helper.session("en-US") as session:
            session.send("remote", VOICE)
            report = await self.within(3, session.stop(drain_ms=3000))
            self.assertTrue(report.drained and report.stopped)
            self.assertEqual([utterance.text for utterance in await finals(session)], ["words 1."])
            self.assertGreaterEqual(len(log.of_type("audio")), 9)  # a second of silence
            self.assertIs(session.send("remote", VOICE), SendResult.CLOSED)
            self.assertEqual((await session.stop()).stopped, False)

    async def test_stop_waits_for_speech_without_text(self) -> None:
        """The recognizer may be behind: sound without any partial is waited for, as long as drain_ms allows."""
        log = Log(self)
        async with Helper.start([*FAKE, "errors"], env=log.env) as helper, helper.session("en-US") as session:
            session.send("remote", b"\x00\x10" * 1600)
            await self.within(3, session.stop(drain_ms=2000))
        self.assertGreaterEqual(len(log.of_type("audio")), 17)

    async def test_stop_without_drain_reports_open_utterances(self) -> None:
        async with Helper.start([*FAKE, "echo"]) as helper, helper.session("en-US") as session:
            session.send("remote", VOICE)
            await helper.ping()
            self.assertFalse((await session.stop(drain_ms=0)).drained)
            self.assertEqual([(u.text, u.reason) for u in await finals(session)], [("words 1", "interrupted")])

    async def test_int16_buffers_are_taken(self) -> None:
        log = Log(self)
        async with Helper.start([*FAKE, "echo"], env=log.env) as helper, helper.session("en-US") as session:
            self.assertIs(session.send("self", array("h", [1, -2, 3]), captured_at=12.5), SendResult.SENT)
            self.assertIs(session.send("self", bytearray(4), captured_at=13), SendResult.SENT)
            for wrong, error in (
                (b"odd", ValueError),
                (array("f", [1.0]), TypeError),
                ([1, 2], TypeError),
            ):
                with self.assertRaises(error):
                    session.send("self", wrong)
            with self.assertRaises(ValueError):
                session.send("mic", QUIET)  # type: ignore[arg-type]
            with self.assertRaises(ValueError):
                session.send("self", QUIET, captured_at=float("nan"))
            for wrong_phrases, error in (("word", TypeError), ([1], TypeError), (["\ud800"], ValueError)):
                with self.assertRaises(error):
                    helper.session("en-US", vocabulary=wrong_phrases)  # type: ignore[arg-type]
            await helper.ping()
        sent = [(command["sequence"], command["capturedAt"]) for command in log.of_type("audio")]
        self.assertEqual(sent, [(0, 12.5), (1, 13)])

    async def test_ping_measures_round_trip_and_offset(self) -> None:
        async with Helper.start([*FAKE, "echo"]) as helper:
            ping = await helper.ping()
            self.assertGreater(ping.round_trip_ms, 0)
            self.assertAlmostEqual(ping.clock_offset_ms, 5000, delta=1000)

    async def test_suppress_is_confirmed_and_drops_open_text(self) -> None:
        async with Helper.start([*FAKE, "echo"]) as helper, helper.session("en-US") as session:
            session.send("self", VOICE)
            await session.suppress("self")
            await session.suppress("self", False)
            self.assertTrue((await session.stop(drain_ms=0)).drained)

    async def test_two_clients_at_once(self) -> None:
        async def meeting() -> list[str]:
            async with Helper.start([*FAKE, "echo"]) as helper, helper.session("en-US", id="m") as session:
                for _ in range(20):
                    session.send("remote", VOICE)
                    session.send("remote", QUIET)
                    await helper.ping()
                await session.stop(drain_ms=0)
                return [utterance.text for utterance in await finals(session)]

        first, second = await self.within(10, asyncio.gather(meeting(), meeting()))
        self.assertEqual(first, [f"words {number}." for number in range(1, 21)])
        self.assertEqual(second, first)

    async def test_day_of_clock(self) -> None:
        """A chunk every 10 s for 24 hours: times stay exact and nothing grows."""
        log = Log(self)
        now = [1_700_000_000_000.0]
        helper = Helper.start([*FAKE, "echo"], env=log.env, now_ms=lambda: now[0], monotonic=lambda: now[0] / 1000)
        async with helper, helper.session("en-US") as session:
            start = now[0]
            for index in range(8640):
                now[0] += 10_000
                session.send("remote", VOICE[:320] if index % 2 else QUIET[:320])
                if index % 50 == 0:
                    await helper.ping()
            await helper.ping()
            self.assertEqual(now[0] - start, 24 * 3600 * 1000)
            self.assertLessEqual(len(session._utterances._unread), 1000)
            self.assertLessEqual(len([*session._utterances.open]), 1)
            self.assertGreater(session._utterances.missed, 3000)
        audio = log.of_type("audio")
        self.assertEqual([command["sequence"] for command in audio], list(range(8640)))
        self.assertEqual([command["capturedAt"] for command in audio], [start + 10_000 * (index + 1) - 10 for index in range(8640)])


class Decoding(unittest.TestCase):
    """Needs no process. Examples are those of protocol/schema.json."""

    def setUp(self) -> None:
        schema = json.loads((Path(__file__).resolve().parents[3] / "protocol/schema.json").read_text(encoding="utf-8"))
        names = [reference["$ref"].rsplit("/", 1)[1] for reference in schema["$defs"]["Event"]["oneOf"]]
        self.examples = [example for name in names for example in schema["$defs"][name]["examples"]]

    def test_every_event_is_known(self) -> None:
        self.assertEqual(len(self.examples), 11)
        for example in self.examples:
            event = decode_event(json.dumps(example).encode())
            self.assertEqual(event.TYPE, example["type"])  # type: ignore[attr-defined]
            self.assertEqual(event.raw, example)
            for key, value in example.items():
                attribute = re.sub(r"(?<=[a-z])([A-Z])", r"_\1", key).lower()
                if key not in ("type", "endpointing"):
                    self.assertEqual(getattr(event, attribute), value)

    def test_additions_change_nothing_and_damage_is_unknown(self) -> None:
        for example in self.examples:
            known = decode_event(json.dumps(example).encode())
            for value in (1, "x", None, [], {"a": 1}):
                self.assertEqual(decode_event(json.dumps({**example, "added": value}).encode()), known)
            for key in example:
                for value in (None, [], {}):
                    event = decode_event(json.dumps({**example, key: value}).encode())
                    optional = key in ("message", "modelStatus", "dictation", "sessionId", "source") and type(event) is type(known)
                    self.assertTrue(optional or isinstance(event, UnknownEvent), event)

    def test_nothing_raises(self) -> None:
        chance = random.Random(1)
        for _ in range(3000):
            line = bytearray(json.dumps(chance.choice(self.examples)).encode())
            for _ in range(chance.randint(1, 4)):
                line[chance.randrange(len(line))] = chance.randrange(256)
            self.assertIsInstance(decode_event(bytes(line)), Event)
        self.assertIsInstance(decode_event(b"[" * 100_000), UnknownEvent)
        self.assertIsInstance(decode_event(b'{"type":' + b"9" * 5000 + b"}"), UnknownEvent)

    def test_lines_are_cut_at_line_feeds_only(self) -> None:
        chance = random.Random(2)
        text = "".join(chance.choice("a\u2028\u2029\x85\r語👍\n") for _ in range(3000)).encode()
        splitter = LineSplitter()
        lines: list[bytes] = []
        start = 0
        while start < len(text):
            end = start + chance.randint(1, 40)
            lines += splitter.feed(text[start:end])
            start = end
        self.assertEqual(lines, text.split(b"\n")[:-1])

    def test_endless_line_is_skipped(self) -> None:
        splitter = LineSplitter(longest=10)
        lines = [line for piece in (b"short\n123456", b"789012", b"345\nnext", b"\n") for line in splitter.feed(piece)]
        self.assertEqual(lines, [b"short", b"next"])


class Loudness(unittest.TestCase):
    def test_threshold_is_that_of_the_helper(self) -> None:
        for level, expected in ((0, False), (262, False), (263, True), (-263, True), (-32768, True)):
            self.assertEqual(is_voice(array("h", [level] * 1600).tobytes()), expected, level)
        self.assertFalse(is_voice(array("h", [5000] + [0] * 1599).tobytes()))  # a click
        self.assertFalse(is_voice(b""))


class Reading(ClientTest):
    async def test_japanese_byte_by_byte_with_line_separator(self) -> None:
        async with Helper.start([*FAKE, "japanese"]) as helper, helper.session("en-US") as session:
            utterance = await self.within(5, session.utterances().__anext__())
            self.assertEqual(utterance.text, "会議\u2028を始めます。👍")

    async def test_long_line_and_unknown_events_are_delivered(self) -> None:
        async with Helper.start([*FAKE, "long-line"]) as helper:
            events = helper.events()
            async with helper.session("en-US") as session:
                error = await self.within(5, next_of(events, HelperError))
                self.assertEqual((error.code, len(error.message)), ("unsupported-command", 200_026))
                unknown = [await self.within(5, next_of(events, UnknownEvent)) for _ in range(5)]
                self.assertEqual([event.type for event in unknown], ["weather", "pong", "", "", ""])
                self.assertEqual(unknown[0].raw["forecast"], "rain")
                final = await self.within(5, next_of(events, TranscriptFinal))
                self.assertEqual((final.text, final.raw["mood"]), ("still here", "good"))
                self.assertEqual((await session.utterances().__anext__()).text, "still here")

    async def test_unread_iterators_are_bounded(self) -> None:
        async with Helper.start([*FAKE, "flood"]) as helper:
            events = helper.events()
            async with helper.session("en-US") as session:
                await self.within(20, helper.ping(timeout=20))
                self.assertEqual((len(events._events), len(session._utterances._unread)), (1000, 1000))
                self.assertGreater(events.missed, 38_000)
                report = await session.stop(drain_ms=0)
                self.assertEqual(report.missed, 19_000)
                self.assertEqual((await finals(session))[-1].id, "u19999")

    async def test_megabyte_of_standard_error_is_drained(self) -> None:
        async with Helper.start([*FAKE, "stderr"]) as helper:
            await self.within(5, helper.ping())
            while not helper.stderr_tail.endswith("last words"):
                await helper.ping()
            self.assertLessEqual(len(helper.stderr_tail), 8192)

    async def test_repeated_errors_are_folded(self) -> None:
        helper = Helper.start([*FAKE, "errors"])
        async with helper:
            events = helper.events()
            async with helper.session("ja-JP") as session:
                for index in range(250):  # 25 s
                    session.send("remote", VOICE, captured_at=index * 100)
                    if index % 10 == 0:
                        await helper.ping()
                await helper.ping()
        errors = [event async for event in events if isinstance(event, HelperError)]
        self.assertEqual([(error.code, error.count) for error in errors], [("model-missing", n) for n in (1, 100, 100, 49)])
        self.assertIn("install the model", errors[0].cure)


class Ends(ClientTest):
    async def test_start_errors_are_clear(self) -> None:
        with tempfile.NamedTemporaryFile() as file:
            for command, text in (
                ("/nonexistent/helper", "No such file"),
                (file.name, "Permission denied"),
                ([*FAKE, "exits"], "ended with status 3"),
                ([*FAKE, "silent"], "wrote nothing for 0.5 s"),
                ([*FAKE, "version-2"], "protocol version 2"),
            ):
                with self.subTest(text), self.assertRaisesRegex(HelperStartError, text):
                    await self.within(5, Helper.start(command, start_timeout=0.5 if "silent" in command else 5).__aenter__())

    async def test_kill_in_mid_line_settles_everything(self) -> None:
        """SIGKILL while a line is half written: every await ends within 2 s."""
        helper = Helper.start([*FAKE, "echo"], restart=NO_RESTART)
        async with helper, helper.session("en-US") as session:
            events = helper.events()
            session.send("remote", VOICE)
            await helper.ping()
            assert helper.pid
            os.kill(helper.pid, signal.SIGSTOP)  # so that nothing below is answered
            waiting = [
                asyncio.ensure_future(awaitable)
                for awaitable in (helper.ping(), session.suppress("self"), finals(session), next_of(events, HelperEnded))
            ]
            opening = asyncio.ensure_future(helper.session("ja-JP").__aenter__())
            await asyncio.sleep(0)
            session.send("remote", DIE)
            os.kill(helper.pid, signal.SIGCONT)
            results = await self.within(2, asyncio.gather(*waiting, opening, return_exceptions=True))
            self.assertTrue(results[1] is None or isinstance(results[1], HelperClosedError))
            self.assertEqual([(u.text, u.reason) for u in results[2]], [("words 1", "interrupted")])
            self.assertEqual(results[3].exit_status, -signal.SIGKILL)
            self.assertTrue(helper.is_closed)
            self.assertIs(session.send("remote", VOICE), SendResult.CLOSED)
            with self.assertRaises(HelperClosedError):
                await helper.ping()
            self.assertFalse((await self.within(1, session.stop())).stopped)
        self.assertEqual([type(event) async for event in helper.events()], [HelperEnded])

    async def test_kill_while_stopping_settles(self) -> None:
        helper = Helper.start([*FAKE, "echo"], restart=NO_RESTART)
        async with helper, helper.session("en-US") as session:
            assert helper.pid
            os.kill(helper.pid, signal.SIGSTOP)
            stopping = asyncio.ensure_future(session.stop(drain_ms=60_000))
            await asyncio.sleep(0)
            os.kill(helper.pid, signal.SIGKILL)
            report = await self.within(2, stopping)
            self.assertFalse(report.stopped or report.drained)

    async def test_cancelled_stop_ends_the_session(self) -> None:
        log = Log(self)
        async with Helper.start([*FAKE, "echo"], env=log.env) as helper, helper.session("en-US") as session:
            stopping = asyncio.ensure_future(session.stop(drain_ms=60_000))
            await helper.ping()
            stopping.cancel()
            self.assertEqual(await self.within(1, finals(session)), [])
            await helper.ping()
            self.assertEqual(len(log.of_type("session.stop")), 1)

    async def test_close_is_bounded_and_never_raises(self) -> None:
        for behaviour, seconds in (("echo", 1.5), ("stubborn", 3)):
            helper = await Helper.start([*FAKE, behaviour]).__aenter__()
            pid = helper.pid
            assert pid
            await self.within(seconds, helper.close(timeout=1))
            await self.within(0.5, helper.close())
            self.assertTrue(process_ends_within(pid, 1))
        stopped = await Helper.start([*FAKE, "echo"]).__aenter__()
        assert stopped.pid
        os.kill(stopped.pid, signal.SIGSTOP)
        await self.within(2, stopped.close(timeout=0.3))
        await Helper.start("/nonexistent").close()

    async def test_close_ends_sessions_and_streams(self) -> None:
        async with Helper.start([*FAKE, "echo"]) as helper:
            events = helper.events()
            session = await helper.session("en-US").__aenter__()
            reading = asyncio.ensure_future(finals(session))
            await asyncio.sleep(0)
        self.assertEqual(await self.within(1, reading), [])
        self.assertEqual([event async for event in events][-1], HelperEnded({}, "closed", 0))

    async def test_killed_launcher_whose_child_holds_the_pipes(self) -> None:
        helper = Helper.start([*FAKE, "launcher", *FAKE, "echo"], restart=NO_RESTART)
        async with helper, helper.session("en-US") as session:
            events = helper.events()
            session.send("remote", VOICE)
            await helper.ping()
            child = int(helper.stderr_tail.split()[1])
            assert helper.pid
            os.kill(helper.pid, signal.SIGKILL)
            ended = await self.within(2, next_of(events, HelperEnded))
            self.assertEqual(ended.exit_status, -signal.SIGKILL)
            self.assertTrue(process_ends_within(child, 1))
            self.assertEqual([u.reason for u in await self.within(1, finals(session))], ["interrupted"])
        await self.within(1, helper.close())


class BackPressure(ClientTest):
    async def test_stopped_helper_loses_oldest_audio_but_no_command(self) -> None:
        log = Log(self)
        helper = Helper.start([*FAKE, "echo"], env=log.env, max_queued_ms=2000)
        async with helper, helper.session("en-US") as session:
            assert helper.pid
            os.kill(helper.pid, signal.SIGSTOP)
            results = [session.send("remote", VOICE) for _ in range(10)]
            muting = asyncio.ensure_future(session.suppress("self"))
            await asyncio.sleep(0)
            results += [session.send("remote", VOICE) for _ in range(90)]
            with self.assertRaises(asyncio.TimeoutError):
                await helper.ping(timeout=1.5)  # the helper is stopped for seconds
            self.assertEqual(results[0], SendResult.SENT)
            self.assertIn(SendResult.QUEUED, results)
            self.assertEqual(results[-1], SendResult.DROPPED)
            self.assertLessEqual(sum(item.ms for item in helper._queue._items if item.channel), 2000)
            os.kill(helper.pid, signal.SIGCONT)
            await self.within(5, muting)
            session.send("remote", QUIET)
            await helper.ping()
            report = await session.stop(drain_ms=0)
            self.assertEqual(report.drained, True)
            received = [command["sequence"] for command in log.of_type("audio")]
            self.assertEqual(received, sorted(received))
            self.assertEqual(received[-20:], list(range(81, 101)))  # the newest 2 s
            self.assertEqual(report.dropped_ms, (101 - len(received)) * 100)
            self.assertEqual(len(log.of_type("source.suppress")), 1)


class Restarts(ClientTest):
    async def test_session_and_mute_survive(self) -> None:
        log = Log(self)
        async with Helper.start([*FAKE, "echo"], env=log.env) as helper:
            events = helper.events()
            async with helper.session("en-US", vocabulary=["Palaver"], id="m") as session:
                await session.suppress("self")
                session.send("remote", VOICE)
                session.send("remote", DIE)
                restarted = await self.within(5, next_of(events, HelperRestarted))
                self.assertEqual(restarted.exit_status, -signal.SIGKILL)
                self.assertGreaterEqual(restarted.restarted_at, restarted.ended_at)
                session.send("remote", VOICE)
                session.send("remote", QUIET)
                await self.within(5, helper.ping())
                await session.stop(drain_ms=0)
                texts = [(u.text, u.reason) for u in await finals(session)]
        self.assertEqual(texts, [("words 1", "interrupted"), ("words 1.", "silence")][-len(texts) :])
        kinds = [command["type"] for command in log.commands]
        again = kinds.index("session.start", 1)
        self.assertEqual(kinds[again : again + 3], ["session.start", "source.suppress", "audio"])
        self.assertEqual(log.of_type("session.start")[1], log.of_type("session.start")[0])
        self.assertEqual(log.of_type("session.start")[1]["vocabulary"], ["Palaver"])

    async def test_what_is_sent_in_the_gap_follows_the_reopening(self) -> None:
        log = Log(self)
        async with Helper.start([*FAKE, "echo"], env=log.env) as helper, helper.session("en-US") as session:
            assert helper.pid
            old = helper._process
            os.kill(helper.pid, signal.SIGKILL)
            assert old is not None
            await old.ended
            self.assertIs(session.send("remote", VOICE), SendResult.QUEUED)
            muting = asyncio.ensure_future(session.suppress("self"))
            pinging = asyncio.ensure_future(helper.ping())
            async with helper.session("ja-JP", id="other"):
                await self.within(5, asyncio.gather(muting, pinging))
        kinds = [command["type"] for command in log.commands][1:]
        self.assertEqual(kinds[:2], ["session.start", "audio"])
        self.assertEqual(sorted(kinds[2:5]), ["ping", "session.start", "source.suppress"])

    async def test_fifth_end_within_three_minutes_is_final(self) -> None:
        now = [0.0]
        async with Helper.start([*FAKE, "echo"], monotonic=lambda: now[0]) as helper:
            events = helper.events()
            async with helper.session("en-US") as session:
                for _ in range(6):  # four hours apart
                    now[0] += 4 * 3600
                    session.send("remote", DIE)
                    await self.within(5, next_of(events, HelperRestarted))
                for _ in range(3):  # with the last one above, four within three minutes
                    now[0] += 10
                    session.send("remote", DIE)
                    await self.within(5, next_of(events, HelperRestarted))
                session.send("remote", DIE)
                ended = await self.within(5, next_of(events, HelperEnded))
                self.assertEqual(ended.reason, "the helper ended 5 times within 180 s")
                self.assertIs(session.send("remote", VOICE), SendResult.CLOSED)

    async def test_end_before_first_status_is_final(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            async with Helper.start([*FAKE, "dies-when-started-again", f"{folder}/once"]) as helper:
                events = helper.events()
                async with helper.session("en-US") as session:
                    session.send("remote", DIE)
                    ended = await self.within(5, next_of(events, HelperEnded))
                    self.assertIn("ended with status 4 before its first status", ended.reason)

    async def test_close_during_restart(self) -> None:
        async with Helper.start([*FAKE, "echo"]) as helper:
            old = helper._process
            assert helper.pid and old is not None
            os.kill(helper.pid, signal.SIGKILL)
            await old.ended
            await self.within(3, helper.close())
        self.assertTrue(helper.is_closed)


if __name__ == "__main__":
    unittest.main()
