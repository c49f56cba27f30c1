"""Compares the macOS helper on stand-ins with the Linux helper on recorded speech. Both use the same recognizer and must
produce the same texts.

Usage: recordings_test.py MACOS_HELPER LINUX_HELPER SIMULATOR
"""

import base64
import json
import os
import subprocess
import sys
import tempfile
import unittest
import wave

MACOS, LINUX, SIMULATOR = sys.argv[1:4]
DATA = "/usr/share/pocketsphinx/test/data/"
SENTENCE = DATA + "librivox/sense_and_sensibility_01_austen_64kb-%s.wav"
RECORDINGS = [SENTENCE % number for number in ("0880", "0890", "0930")]
RATE = 16000  # Hz
CHUNK = 1600  # frames, 100 ms
SILENCE_MS = 900  # wall clock; ends an utterance that has text


def samples(path):
    with wave.open(path) as recording:
        return recording.readframes(recording.getnframes())


class Helper:
    """Runs a helper as the child of a host."""

    def __init__(self, test, command, **environment):
        self.errors = tempfile.TemporaryFile()
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors,
                                        env={**os.environ, **environment})
        test.addCleanup(self.errors.close)
        for end in (self.process.wait, self.process.kill, self.process.stdout.close, self.process.stdin.close):
            test.addCleanup(end)  # runs in reverse order
        self.test = test

    def send(self, **command):
        self.process.stdin.write(json.dumps(command).encode() + b"\n")
        self.process.stdin.flush()

    def receive(self):
        line = self.process.stdout.readline()
        self.test.assertTrue(line, "the helper has ended")
        event = json.loads(line)
        self.test.assertNotEqual(event["type"], "helper.error", event)
        return event

    def receive_type(self, wanted):
        while (event := self.receive())["type"] != wanted:
            pass
        return event

    def start(self, readies):
        self.send(type="session.start", sessionId="a", locale="en-US")
        for _ in range(readies):
            self.test.assertTrue(self.receive_type("session.ready")["available"])

    def send_audio(self, audio, sequence=0):
        self.send(type="audio", sessionId="a", source="remote", sequence=sequence, capturedAt=0,
                  pcmBase64=base64.b64encode(audio).decode())

    def now(self):
        self.send(type="ping", sentAt=0)
        return self.receive_type("pong")["helperAt"]

    def end(self):
        self.process.stdin.close()
        self.test.assertEqual(self.process.stdout.read(), b"")
        self.test.assertEqual(self.process.wait(), 0)
        self.errors.seek(0)
        self.test.assertEqual(self.errors.read().decode(), "")  # sanitizers report here


def words_of_utterance(helper, audio):
    """Returns the final text of one chunk sent to the task-based backend. The next chunk, sent after SILENCE_MS, closes
    the utterance."""
    helper.start(readies=1)
    helper.send_audio(audio)
    sent = helper.now()
    helper.receive_type("transcript.partial")
    while helper.now() < sent + SILENCE_MS:
        pass
    helper.send_audio(b"\0\0" * CHUNK, 1)
    final = helper.receive_type("transcript.final")
    helper.test.assertEqual(final["endpointing"]["reason"], "silence")
    helper.end()
    return final["text"]


def finals_of_session(helper, audio):
    """Returns the finals of a session with analyzers: text and time range."""
    helper.start(readies=2)
    for start in range(0, len(audio), 2 * CHUNK):
        helper.send_audio(audio[start:start + 2 * CHUNK], start // (2 * CHUNK))
    helper.send(type="session.stop", sessionId="a")
    finals = [helper.receive_type("transcript.final") for _ in range(2)]
    helper.end()
    return [(final["text"], final["startedAt"], final["speechEndedAt"]) for final in finals]


def finals_of_research(test, command, recording, **environment):
    with tempfile.NamedTemporaryFile("w", suffix=".json") as vocabulary:
        vocabulary.write("[]")
        vocabulary.flush()
        done = subprocess.run([*command, "--research-transcribe-file", recording, vocabulary.name],
                              stdin=subprocess.DEVNULL, capture_output=True, env={**os.environ, **environment})
    test.assertEqual(done.stderr.decode(), "")
    test.assertEqual(done.returncode, 0)
    events = [json.loads(line) for line in done.stdout.splitlines()]
    test.assertEqual(events[-1]["type"], "research.complete")
    finals = [event for event in events if event["type"] == "transcript.final"]
    return [(final["text"], final["startedAt"], final["speechEndedAt"]) for final in finals]


class RecordingsTest(unittest.TestCase):
    def assert_same_finals(self, here, there):
        """Compares texts exactly, and times to 1e-6 ms because macOS times are whole nanoseconds."""
        self.assertEqual([text for text, *_ in here], [text for text, *_ in there])
        for one, other in zip(here, there):
            for time, expected in zip(one[1:], other[1:]):
                self.assertAlmostEqual(time, expected, delta=1e-6)

    def test_macos_15_matches_linux(self):
        for recording in RECORDINGS:
            with self.subTest(recording):
                audio = samples(recording)
                there = words_of_utterance(Helper(self, [LINUX]), audio)
                here = words_of_utterance(Helper(self, [MACOS], PALAVER_STT_SYSTEM="macOS 15"), audio)
                print("macOS 15:", here)
                self.assertEqual(here, there)

    def test_macos_26_session_matches_linux(self):
        pause = b"\0\0" * (2 * RATE)
        audio = samples(RECORDINGS[0]) + pause + samples(RECORDINGS[2])
        there = finals_of_session(Helper(self, [SIMULATOR, "analyzer"]), audio)
        here = finals_of_session(Helper(self, [MACOS], PALAVER_STT_SYSTEM="macOS 26"), audio)
        self.assert_same_finals(here, there)

    def test_reader_has_user_initiated_quality_of_service(self):
        # The stand-in names a thread after its quality of service.
        helper = Helper(self, [MACOS], PALAVER_STT_SYSTEM="macOS 15")
        helper.now()  # the reader runs
        names = []
        for thread in os.listdir(f"/proc/{helper.process.pid}/task"):
            with open(f"/proc/{helper.process.pid}/task/{thread}/comm", encoding="utf-8") as name:
                names.append(name.read().strip())
        self.assertEqual(names.count("qos 0x19"), 1, names)
        helper.end()

    def test_macos_26_research_mode_matches_linux(self):
        for recording in RECORDINGS:
            with self.subTest(recording):
                there = finals_of_research(self, [SIMULATOR, "analyzer"], recording)
                here = finals_of_research(self, [MACOS], recording, PALAVER_STT_SYSTEM="macOS 26")
                print("macOS 26:", " ".join(text for text, *_ in here))
                self.assertTrue(here)
                self.assert_same_finals(here, there)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
