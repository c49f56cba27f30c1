"""What the real helper writes in real conversations follows the schema and the rules: the command loop, over recordings, and the
one-shot modes; and so does the analyzer backend over this machine's recognizer."""

import asyncio
import atexit
import base64
import concurrent.futures
import json
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path
from typing import Any

from recordings import HELPER, ROOT, SIMULATOR, require_jsonschema

require_jsonschema("the lines of live conversations against the schema")

import validate  # noqa: E402
from conversation import Conversation  # noqa: E402

DATA = Path("/usr/share/pocketsphinx/test/data")
CHUNK = 3200  # bytes, 100 ms


class Meeting:
    """A host that paces audio in real time and reads all the while."""

    def __init__(self, command: list[str]) -> None:
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        assert self.process.stdin and self.process.stdout
        self.input = self.process.stdin
        self.output = self.process.stdout
        self.sent = bytearray()
        self.lines: list[str] = []
        self.arrived = threading.Condition()
        atexit.register(self.process.kill)  # also when the test fails halfway
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()
        self.sequence = 0

    def read(self) -> None:
        for line in self.output:
            with self.arrived:
                self.lines.append(line.decode("utf-8").removesuffix("\n"))
                self.arrived.notify_all()

    def raw(self, data: bytes) -> None:
        self.sent += data
        self.input.write(data)
        self.input.flush()

    def say(self, type: str, **keys: Any) -> None:
        self.raw(json.dumps({"type": type, **keys}, ensure_ascii=False).encode() + b"\n")

    def audio(self, session: str, source: str, pcm: bytes) -> None:
        text = base64.b64encode(pcm).decode()
        self.say("audio", sessionId=session, source=source, sequence=self.sequence, capturedAt=time.time() * 1000, pcmBase64=text)
        self.sequence += 1

    def play(self, session: str, sources: dict[str, bytes]) -> None:
        """Plays sources side by side, 100 ms at a time."""
        start = time.monotonic()
        for index in range(max(map(len, sources.values())) // CHUNK):
            for source, pcm in sources.items():
                self.audio(session, source, pcm[index * CHUNK : (index + 1) * CHUNK].ljust(CHUNK, b"\0"))
            time.sleep(max(0, start + (index + 1) / 10 - time.monotonic()))  # the pace of speech

    def wait_for(self, text: str, count: int = 1) -> None:
        def arrived() -> bool:
            return sum(text in line for line in self.lines) >= count

        with self.arrived:
            if not self.arrived.wait_for(arrived, 20):
                raise AssertionError(f"no {text} among {self.lines}")

    def play_quiet_until(self, session: str, sources: list[str], text: str, count: int = 1) -> None:
        """Sends quiet at its pace until `count` lines with the text have arrived: without audio no utterance ends."""
        deadline = time.monotonic() + 40
        while time.monotonic() < deadline:
            for source in sources:
                self.audio(session, source, bytes(CHUNK))
            with self.arrived:
                if self.arrived.wait_for(lambda: sum(text in line for line in self.lines) >= count, 0.1):
                    return
        raise AssertionError(f"no {text} among {self.lines}")

    def end(self) -> Conversation:
        self.input.close()
        self.reader.join(30)
        status = self.process.wait(30)
        self.output.close()
        return Conversation(self.lines, [], bytes(self.sent), True, status)


def whole_meeting(command: list[str]) -> Conversation:
    """Two sources in English, every command, every mistake of a host, and a second session that the end of the input cuts."""
    forward = (DATA / "goforward.raw").read_bytes()
    something = (DATA / "something.raw").read_bytes()
    meeting = Meeting(command)
    meeting.wait_for("helper.status")
    meeting.audio("m", "self", bytes(CHUNK))  # too early
    meeting.say("session.start", sessionId="m", locale="en-US", vocabulary=["Palaver", "田中"])
    meeting.say("ping", sentAt=1234.5)
    meeting.raw(b'{"type":"ping",\n\xff\n[]\n{"type":"ping","sentAt":"1"}\n \n')
    for type in ("session.start", "session.stop", "source.suppress", "audio", "会議\u2028"):
        meeting.say(type)
    meeting.say("audio", sessionId="m", source="self", sequence=0, capturedAt=0, pcmBase64="AAA")
    meeting.say("audio", sessionId="m", source="self", sequence=0, capturedAt=0, pcmBase64="AAAA")
    meeting.wait_for("session.ready")
    meeting.play("m", {"remote": forward, "self": something})
    meeting.play_quiet_until("m", ["remote", "self"], "transcript.final", 2)
    meeting.say("source.suppress", sessionId="m", source="self", suppressed=True)
    meeting.play("m", {"self": something[: 5 * CHUNK]})
    meeting.say("source.suppress", sessionId="m", source="self", suppressed=False)
    meeting.say("session.start", sessionId="m", locale="xx-XX")
    meeting.audio("m", "self", bytes(CHUNK))
    meeting.say("session.start", sessionId="n", locale="en-US")
    meeting.say("session.stop", sessionId="m")
    meeting.say("session.stop", sessionId="m")
    meeting.play("n", {"remote": forward[: 20 * CHUNK]})
    meeting.say("ping")
    meeting.wait_for("pong", 2)
    if command == [HELPER]:
        meeting.wait_for('"sessionId":"n","source":"remote","startedAt"')  # text that the end of the input makes final
    return meeting.end()


def written_lines(run: Conversation) -> list[bytes]:
    return [line for line in (run.input or b"").split(b"\n") if line]


def one_shot(command: list[str], *arguments: str) -> Conversation:
    done = subprocess.run([*command, *arguments], stdin=subprocess.DEVNULL, capture_output=True, timeout=60)
    return Conversation(done.stdout.decode().splitlines(), list(arguments), None, True, done.returncode)


class LiveConversations(unittest.TestCase):
    of_helper: "concurrent.futures.Future[Conversation]"
    of_analyzer: "concurrent.futures.Future[Conversation]"
    schemas = validate.Schemas()

    @classmethod
    def setUpClass(cls) -> None:
        """Begins the two long meetings, which take place side by side."""
        pool = concurrent.futures.ThreadPoolExecutor(2)
        cls.addClassCleanup(pool.shutdown)
        cls.of_helper = pool.submit(whole_meeting, [HELPER])
        cls.of_analyzer = pool.submit(whole_meeting, [SIMULATOR, "analyzer"])

    def assert_valid(self, run: Conversation, *types: str) -> None:
        self.assertEqual(validate.faults(run, self.schemas), [])
        found = {event["type"] for event in run.events}
        self.assertLessEqual(set(types), found)

    def test_helper(self) -> None:
        run = self.of_helper.result()
        self.assert_valid(run, "session.ready", "transcript.partial", "transcript.final", "session.stopped", "source.suppressed")
        finals = [event["text"] for event in run.events if event["type"] == "transcript.final"]
        self.assertIn("go forward ten meters", finals)
        self.assertIn("flush", [event["endpointing"]["reason"] for event in run.events if "endpointing" in event])

    def test_analyzer_backend(self) -> None:
        run = self.of_analyzer.result()
        self.assertEqual(run.backend, "analyzer")
        self.assert_valid(run, "session.ready", "transcript.final", "session.stopped", "source.suppressed")

    def test_simulated_mac(self) -> None:
        meeting = Meeting([SIMULATOR, "live", str(ROOT / "tests/simulator/live-state.json")])
        meeting.wait_for("helper.status")
        meeting.say("session.start", sessionId="m")
        voice = b"".join((3000 if index % 2 else -3000).to_bytes(2, "little", signed=True) for index in range(8000))
        meeting.play("m", {"remote": voice})
        meeting.play_quiet_until("m", ["remote"], "transcript.final")
        meeting.say("shutdown")
        meeting.say("ping")
        self.assert_valid(meeting.end(), "transcript.partial", "transcript.final")

    def test_python_client(self) -> None:
        """What the client writes follows the schema strictly, and so does the conversation."""
        sys.path.insert(0, str(ROOT / "clients/python/src"))
        from palaver_stt import Helper

        async def meet(command: list[str]) -> None:
            async with Helper.start(command) as helper, helper.session("en-US", vocabulary=["Palaver", "田中"]) as session:
                session.send("remote", (DATA / "goforward.raw").read_bytes()[: 10 * CHUNK])
                session.send("self", bytes(CHUNK), captured_at=1)
                await helper.ping()
                await session.suppress("self")
                await session.suppress("self", False)
                await session.stop(drain_ms=0)

        with tempfile.TemporaryDirectory() as folder:
            written, read = Path(folder, "in"), Path(folder, "out")
            asyncio.run(meet(["sh", "-c", 'tee "$1" | "$0" | tee "$2"', HELPER, str(written), str(read)]))
            run = Conversation(read.read_text(encoding="utf-8").splitlines(), [], written.read_bytes(), True, 0)
        self.assert_valid(run, "session.ready", "session.stopped", "source.suppressed", "pong")
        commands = [json.loads(line) for line in written_lines(run)]
        self.assertEqual({command["type"] for command in commands}, {"session.start", "audio", "ping", "source.suppress", "session.stop"})
        for command in commands:
            self.assertEqual(self.schemas.faults(command), [])

    def test_killed_helper(self) -> None:
        meeting = Meeting([HELPER])
        meeting.wait_for("helper.status")
        meeting.say("session.start", sessionId="m", locale="en-US")
        meeting.wait_for("session.ready")
        meeting.process.kill()
        run = meeting.end()
        self.assert_valid(Conversation(run.output, [], run.input), "session.ready")

    def test_one_shot_modes(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            words = Path(folder, "words.json")
            words.write_text('["go", "forward"]')
            wrong = Path(folder, "wrong.json")
            wrong.write_text("{}")
            many = Path(folder, "many.json")
            many.write_text(json.dumps([str(number) for number in range(101)]))
            for command in ([HELPER], [SIMULATOR, "analyzer"]):
                for arguments, last in (
                    (["--health"], "helper.status"),
                    (["--authorize"], "helper.authorization"),
                    (["--install-assets"], None),
                    (["--install-assets", "xx-XX"], "helper.error"),
                    (["--research-transcribe-file"], "helper.error"),
                    (["--research-transcribe-file", str(words), str(wrong)], "helper.error"),
                    (["--research-transcribe-file", str(words), str(many)], "helper.error"),
                    (["--research-transcribe-file", str(words), str(Path(folder, "none"))], "helper.error"),
                    (["--research-transcribe-file", str(words), folder], "helper.error"),
                    (["--research-transcribe-file", str(words), str(words)], "helper.error"),
                ):
                    with self.subTest(command=command, arguments=arguments):
                        run = one_shot(command, *arguments)
                        self.assert_valid(run)
                        if last:
                            self.assertEqual(run.events[-1]["type"], last)

    def test_research(self) -> None:
        import wave

        with tempfile.TemporaryDirectory() as folder:
            sound = Path(folder, "goforward.wav")
            with wave.open(str(sound), "wb") as file:
                file.setnchannels(1)
                file.setsampwidth(2)
                file.setframerate(16000)
                file.writeframes((DATA / "goforward.raw").read_bytes())
            words = Path(folder, "words.json")
            words.write_text('["go", "forward"]')
            run = one_shot([SIMULATOR, "analyzer"], "--research-transcribe-file", str(sound), str(words))
        self.assert_valid(run, "transcript.final", "research.complete")


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
