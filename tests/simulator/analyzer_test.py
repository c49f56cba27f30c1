"""Tests the helper of macOS 26 with real recordings and the recognizer of Linux, and measures its memory.

Usage: analyzer_test.py SIMULATOR STATE [--memory]
"""

import base64
import json
import os
import subprocess
import sys
import tempfile
import time
import unittest
import wave

from checked import faults

SIMULATOR, STATE = sys.argv[1:3]
MEASURES_MEMORY = "--memory" in sys.argv
RECORDINGS = "/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-%s.wav"
RATE = 16000  # Hz
CHUNK = 1600  # frames, 100 ms

# Spoken text, and the minimum number of its words to recognize.
SENTENCES = {
    "0880": ("he was not an ill disposed young man", 4),
    "0930": ("he might even have been made amiable himself", 4),
}


def samples(number):
    with wave.open(RECORDINGS % number) as recording:
        return recording.readframes(recording.getnframes())


def words_heard(said, heard):
    return len(set(said.split()) & set(heard.split()))


class Vocabulary:
    """Writes a vocabulary file with these phrases."""

    def __init__(self, *phrases):
        self.file = tempfile.NamedTemporaryFile("w", suffix=".json")
        json.dump(phrases, self.file)
        self.file.flush()
        self.path = self.file.name


def research(mode, recording, vocabulary):
    """Runs the research mode. Returns the exit status, the events and the peak memory in bytes."""
    with tempfile.TemporaryFile() as output:
        helper = subprocess.Popen([SIMULATOR, *mode, "--research-transcribe-file", recording, vocabulary.path],
                                  stdin=subprocess.DEVNULL, stdout=output)
        _, status, usage = os.wait4(helper.pid, 0)
        helper.returncode = os.waitstatus_to_exitcode(status)
        output.seek(0)
        lines = output.readlines()
        arguments = ["--research-transcribe-file", recording, vocabulary.path]
        assert faults(lines, arguments, helper.returncode) == [], faults(lines, arguments, helper.returncode)
        return helper.returncode, [json.loads(line) for line in lines], usage.ru_maxrss * 1024


class RecordingTest(unittest.TestCase):
    def test_research_mode_transcribes_recordings(self):
        for number, (said, least) in SENTENCES.items():
            with self.subTest(number):
                status, events, _ = research(["analyzer"], RECORDINGS % number, Vocabulary("amiable"))
                self.assertEqual(status, 0)
                self.assertEqual(events[-1], {"type": "research.complete", "implementation": "speech-analyzer",
                                              "module": "SpeechTranscriber", "vocabularyCount": 1})
                finals = [event for event in events if event["type"] == "transcript.final"]
                self.assertGreaterEqual(words_heard(said, " ".join(final["text"] for final in finals)), least, finals)
                partials = [event for event in events if event["type"] == "transcript.partial"]
                self.assertTrue(partials)
                length = len(samples(number)) / 2 / RATE * 1000
                for event in partials + finals:
                    self.assertEqual((event["sessionId"], event["source"]), ("research", "remote"))
                    self.assertTrue(0 <= event["startedAt"] < length, event)
                for final in finals:
                    self.assertTrue(final["startedAt"] < final["speechEndedAt"] <= length, final)
                self.assertLessEqual({final["utteranceId"] for final in finals},
                                     {partial["utteranceId"] for partial in partials})

    @unittest.skipUnless(MEASURES_MEMORY, "memory figures of sanitized programs are meaningless")
    def test_memory_is_independent_of_recording_length(self):
        def peak(seconds):
            with tempfile.NamedTemporaryFile(suffix=".wav") as file:
                with wave.open(file, "wb") as recording:
                    recording.setparams((1, 2, RATE, 0, "NONE", ""))
                    second = b"\0\0" * RATE
                    for _ in range(seconds):
                        recording.writeframesraw(second)
                status, events, memory = research(["live", STATE], file.name, Vocabulary())
            self.assertEqual(status, 0)
            self.assertEqual(events[-1]["type"], "research.complete")
            self.assertEqual(events[-2]["text"], "こんにちは。")
            return memory

        short, long = peak(10), peak(2 * 60 * 60)
        print(f"10 s: {short / 1e6:.1f} MB, 2 h: {long / 1e6:.1f} MB")
        # Two hours of 16-bit samples are 230 MB, as floats 460 MB.
        self.assertLess(long - short, 30e6)


class CommandLoopTest(unittest.TestCase):
    def setUp(self):
        self.helper = subprocess.Popen([SIMULATOR, "analyzer"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(self.helper.stdout.close)
        self.addCleanup(self.helper.kill)
        self.lines = []

    def send(self, **command):
        self.helper.stdin.write(json.dumps(command).encode() + b"\n")
        self.helper.stdin.flush()

    def send_audio(self, source, audio, captured_at):
        for start in range(0, len(audio), 2 * CHUNK):
            self.send(type="audio", sessionId="a", source=source, sequence=0,
                      capturedAt=captured_at + start / 2 / RATE * 1000,
                      pcmBase64=base64.b64encode(audio[start:start + 2 * CHUNK]).decode())

    def receive(self):
        self.lines.append(self.helper.stdout.readline())
        return json.loads(self.lines[-1])

    def test_pause_separates_two_finals_of_one_source(self):
        self.assertEqual(self.receive()["status"], "checking-model")
        self.assertEqual(self.receive()["status"], "ready")
        self.send(type="session.start", sessionId="a", locale="en-US", vocabulary=["amiable"])
        self.assertEqual({self.receive()["source"], self.receive()["source"]}, {"remote", "self"})
        base = time.time() * 1000
        first, second = samples("0880"), samples("0930")
        pause = b"\0\0" * (2 * RATE)
        self.send_audio("remote", first + pause + second, base)
        self.send_audio("self", second, base + 500)
        self.send(type="session.stop", sessionId="a")

        finals = {"remote": [], "self": []}
        stopped = False
        while len(finals["remote"]) < 2 or not finals["self"] or not stopped:
            event = self.receive()
            self.assertNotEqual(event["type"], "helper.error", event)
            stopped = stopped or event["type"] == "session.stopped"
            if event["type"] == "transcript.final":
                finals[event["source"]].append(event)
        for final, number in [*zip(finals["remote"], SENTENCES), (finals["self"][0], "0930")]:
            said, least = SENTENCES[number]
            self.assertGreaterEqual(words_heard(said, final["text"]), least, final)
        seconds = (len(first) + len(pause)) / 2 / RATE
        one, two = finals["remote"]
        self.assertTrue(base <= one["startedAt"] < one["speechEndedAt"] <= base + seconds * 1000, one)
        self.assertTrue(base + seconds * 1000 - 200 <= two["startedAt"] < two["speechEndedAt"], two)
        self.helper.stdin.close()
        self.assertEqual(self.helper.stdout.read(), b"")
        self.assertEqual(self.helper.wait(), 0)
        self.assertEqual(faults(self.lines, status=0), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
