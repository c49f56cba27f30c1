"""The client against the real helper and its recognizer: English recordings, in real time."""

from __future__ import annotations

import asyncio
import os
import signal
import subprocess
import sys
import unittest
from pathlib import Path

from support import DATA, HELPER, SIMULATOR, ClientTest, process_ends_within

from palaver_stt import Helper, HelperError, RestartPolicy, Session, SessionUnavailableError, Utterance

CHUNK = 3200  # bytes, 100 ms
NO_RESTART = RestartPolicy(most=1)


async def play(session: Session, source: str, pcm: bytes) -> None:
    """Sends audio at the pace of speech."""
    loop = asyncio.get_running_loop()
    start = loop.time()
    for index in range(0, len(pcm), CHUNK):
        session.send(source, pcm[index : index + CHUNK])  # type: ignore[arg-type]
        await asyncio.sleep(start + (index / CHUNK + 1) / 10 - loop.time())


async def utterances_of(session: Session) -> list[Utterance]:
    return [utterance async for utterance in session.utterances()]


def recording(name: str) -> bytes:
    return (DATA / name).read_bytes()


class RealHelper(ClientTest):
    async def test_two_clients_transcribe_two_meetings(self) -> None:
        async def meeting(name: str, source: str) -> list[Utterance]:
            async with Helper.start(HELPER, restart=NO_RESTART) as helper, helper.session("en-US") as session:
                reading = asyncio.ensure_future(utterances_of(session))
                await play(session, source, recording(name))
                report = await session.stop(drain_ms=5000)
                self.assertEqual((report.drained, report.stopped, report.dropped_ms), (True, True, 0))
                return await reading

        first, second = await asyncio.gather(meeting("goforward.raw", "remote"), meeting("something.raw", "self"))
        last = first[-1]
        self.assertEqual((last.text, last.is_final, last.source), ("go forward ten meters", True, "remote"))
        self.assertEqual(last.reason, "silence")
        self.assertIsNotNone(last.ended_at)
        self.assertGreater(len(first), 1)  # partials came too
        self.assertEqual({utterance.id for utterance in first}, {last.id})
        self.assertTrue(second[-1].is_final and second[-1].source == "self")

    async def test_meeting_goes_on_after_the_helper_was_stopped(self) -> None:
        """SIGSTOP for two seconds of speech."""
        async with Helper.start(HELPER, restart=NO_RESTART) as helper, helper.session("en-US") as session:
            pcm = recording("goforward.raw")
            await play(session, "remote", pcm[: 8 * CHUNK])
            assert helper.pid
            os.kill(helper.pid, signal.SIGSTOP)
            await play(session, "remote", pcm[8 * CHUNK :])
            os.kill(helper.pid, signal.SIGCONT)
            report = await session.stop(drain_ms=5000)
            self.assertEqual((report.drained, report.dropped_ms), (True, 0))
            words = " ".join(utterance.text for utterance in await utterances_of(session) if utterance.is_final)
            self.assertIn("ten meters", words)

    async def test_analyzer_backend(self) -> None:
        """The backend of macOS 26 over this machine's recognizer: ready per source, finals after session.stopped."""
        helper = Helper.start([SIMULATOR, "analyzer"], restart=NO_RESTART)
        async with helper, helper.session("en-US") as session:
            await play(session, "remote", recording("goforward.raw"))
            self.assertTrue((await session.stop(drain_ms=5000)).stopped)
            finals = [utterance for utterance in await utterances_of(session) if utterance.is_final]
        self.assertEqual([(final.text, final.reason) for final in finals], [("go forward ten meters", "framework")])

    async def test_closing_keeps_the_last_words(self) -> None:
        async with Helper.start(HELPER, restart=NO_RESTART) as helper:
            async with helper.session("en-US") as session:
                pcm = recording("goforward.raw")
                await play(session, "remote", pcm)
                await helper.ping()
            last = (await utterances_of(session))[-1]
            self.assertTrue(last.is_final)
            self.assertIn("forward", last.text)

    async def test_unsupported_language_is_a_clear_error(self) -> None:
        async with Helper.start(HELPER, restart=NO_RESTART) as helper:
            with self.assertRaisesRegex(SessionUnavailableError, "speech in 'xx-XX' cannot be transcribed"):
                await helper.session("xx-XX").__aenter__()
            async with helper.session("xx-XX", require_available=False) as session:
                events = helper.events()
                self.assertFalse(session.available)
                for _ in range(3):
                    session.send("remote", bytes(CHUNK))
                await helper.ping()
                await session.stop(drain_ms=0)
            await helper.close()
            errors = [event async for event in events if isinstance(event, HelperError)]
            self.assertEqual([(error.code, error.count) for error in errors], [("model-missing", 1), ("model-missing", 2)])

    async def test_killed_helper_is_replaced(self) -> None:
        async with Helper.start(HELPER) as helper, helper.session("en-US") as session:
            pcm = recording("goforward.raw")
            await play(session, "remote", pcm[: 10 * CHUNK])
            assert helper.pid
            os.kill(helper.pid, signal.SIGKILL)
            await play(session, "remote", pcm)
            await session.stop(drain_ms=5000)
            finals = [utterance for utterance in await utterances_of(session) if utterance.is_final]
            self.assertEqual(finals[-1].text, "go forward ten meters")

    def test_killed_host_leaves_no_helper(self) -> None:
        host = subprocess.Popen([sys.executable, str(Path(__file__).with_name("host.py")), HELPER], stdout=subprocess.PIPE)
        assert host.stdout
        helper = int(host.stdout.readline())
        self.assertFalse(process_ends_within(helper, 0))
        host.kill()
        self.assertTrue(process_ends_within(helper, 1))
        host.wait()
        host.stdout.close()

    def test_smallest_host_of_the_readme(self) -> None:
        """The program in README.md runs as it is printed, and is as long as the page says."""
        page = Path(__file__).resolve().parents[1].joinpath("README.md").read_text(encoding="utf-8")
        program = page.split("```python\n")[1].split("```")[0]
        self.assertIn(f"{len(program.splitlines())} lines", page)
        environment = {**os.environ, "PYTHONPATH": str(Path(__file__).resolve().parents[1] / "src")}
        done = subprocess.run(
            [sys.executable, "-X", "dev", "-c", program, HELPER, str(DATA / "goforward.raw")],
            capture_output=True,
            text=True,
            timeout=30,
            env=environment,
        )
        self.assertEqual((done.stdout, done.stderr, done.returncode), ("remote: go forward ten meters\n", "", 0))


if __name__ == "__main__":
    unittest.main()
