"""Tests a conversation with the simulated helper in real time.

Usage: live_test.py SIMULATOR STATE
"""

import base64
import json
import subprocess
import sys
import time
import unittest

from checked import faults

SIMULATOR, STATE = sys.argv[1:3]


class LiveTest(unittest.TestCase):
    def setUp(self):
        self.helper = subprocess.Popen([SIMULATOR, "live", STATE], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(self.helper.stdout.close)
        self.addCleanup(self.helper.kill)
        self.lines = []

    def send(self, **command):
        self.helper.stdin.write(json.dumps(command).encode() + b"\n")
        self.helper.stdin.flush()

    def send_audio(self, amplitude):
        samples = amplitude.to_bytes(2, "little") * 1600
        self.send(type="audio", sessionId="a", source="remote", sequence=0, capturedAt=time.time() * 1000,
                  pcmBase64=base64.b64encode(samples).decode())

    def expect(self, type, **values):
        self.lines.append(self.helper.stdout.readline())
        event = json.loads(self.lines[-1])
        self.assertEqual(event["type"], type, event)
        for key, value in values.items():
            self.assertEqual(event[key], value, event)
        return event

    def test_silence_closes_utterance(self):
        self.expect("helper.status", available=True, implementation="sf-speech-recognizer", dictation="enabled")
        self.send(type="session.start", sessionId="a")
        self.expect("session.ready", available=True)
        self.send_audio(3000)
        first = self.expect("transcript.partial", text="こん")
        self.send_audio(3000)
        self.expect("transcript.partial", text="こんにちは", utteranceId=first["utteranceId"])
        voice = time.time()
        while time.time() - voice < 1.0:  # a microphone delivers silence in a pause
            self.send_audio(0)
            time.sleep(0.05)
        final = self.expect("transcript.final", text="こんにちは。", utteranceId=first["utteranceId"])
        self.assertEqual(final["endpointing"]["reason"], "silence")
        self.helper.stdin.close()
        self.assertEqual(self.helper.stdout.read(), b"")
        self.assertEqual(self.helper.wait(), 0)
        self.assertEqual(faults(self.lines, status=0), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
