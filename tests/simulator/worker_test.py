"""Tests the helper of Linux on a clock that waits for its speech worker.

Usage: worker_test.py SIMULATOR WORKER
"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SIMULATOR, WORKER = sys.argv[1:3]
BENCH = pathlib.Path(__file__).parents[2] / "bench"
sys.path[:0] = [str(BENCH), str(BENCH / "accuracy")]

import live
import sounds


class ClockThatWaits(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def test_silence_ends_utterances_in_the_time_of_the_audio(self):
        recordings = [recording for recording in sounds.recordings().values() if recording.name.startswith("librivox")][:2]
        stream = sounds.joined(recordings, pauses=(1500,))
        clock = live.Clock(self.folder / "clock")
        meeting = live.Meeting(SIMULATOR, environment={"XDG_DATA_HOME": str(self.folder)}, arguments=["worker", clock.path, WORKER])
        meeting.start(["m"])
        meeting.play({("m", "remote"): stream.samples}, clock=clock)
        meeting.stop(["m"])
        self.assertEqual(meeting.end(), 0)
        self.assertEqual(meeting.errors(), [])
        finals = [heard.event for heard in meeting.heard if heard.event["type"] == "transcript.final"]
        self.assertEqual([final["endpointing"]["reason"] for final in finals], ["silence", "silence"])
        ends = [recording.words[-1][2] for recording in recordings]
        ends[1] += len(recordings[0].samples) / sounds.RATE * 1000 + 1500
        for final, end in zip(finals, ends):
            self.assertAlmostEqual(final["speechEndedAt"] - meeting.begin, end, delta=500)
            self.assertGreaterEqual(final["latencyMs"], 900)
            self.assertLessEqual(final["latencyMs"], 1200)

    def test_invalid_clock_is_named(self):
        empty = self.folder / "empty"
        empty.touch()
        for clock, problem in (self.folder / "absent", "cannot be read"), (empty, "holds no time"):
            ended = subprocess.run([SIMULATOR, "worker", clock, WORKER], stdin=subprocess.DEVNULL, capture_output=True, text=True)
            self.assertEqual((ended.returncode, ended.stdout), (2, ""))
            self.assertIn(str(clock), ended.stderr)
            self.assertIn(problem, ended.stderr)


unittest.main(argv=[sys.argv[0]])
