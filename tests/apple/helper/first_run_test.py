"""Runs tools/dev/first_run.py against the macOS helper on stand-ins, as macOS 15 and as macOS 26, in good and bad states.

Usage: first_run_test.py MACOS_HELPER
"""

import os
import pathlib
import stat
import subprocess
import sys
import tempfile
import threading
import unittest

HELPER = os.path.abspath(sys.argv[1])
TOOL = pathlib.Path(__file__).resolve().parents[3] / "tools/dev/first_run.py"
SENTENCE = "/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-%s.wav"
RECORDINGS = [SENTENCE % number for number in ("0880", "0930")]


class FirstRunTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def go(self, system, state, *options):
        """The exit status and the report."""
        report = self.folder / f"{system} {state}.txt"
        report.write_text("an old report")
        report.chmod(0o644)
        recordings = [argument for recording in RECORDINGS for argument in ("--recording", recording)]
        done = subprocess.run([sys.executable, TOOL, "--helper", HELPER, "--report", report, "--long", "12", *recordings,
                               *options], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                              env={**os.environ, "PALAVER_STT_SYSTEM": system, "PALAVER_STT_STATE": state})
        self.assertEqual(done.stderr, "")
        self.assertEqual(stat.S_IMODE(report.stat().st_mode), 0o600)
        text = report.read_text()
        self.assertNotIn("an old report", text)
        self.assertEqual(done.stdout, f"{text}report: {report}\n")
        return done.returncode, text

    def test_both_systems_in_good_state(self):
        results = {}

        def run(system, *options):
            results[system] = self.go(system, "ready", *options)

        # Side by side, as both wait for the pace of a microphone.
        runs = [threading.Thread(target=run, args=arguments)
                for arguments in (("macOS 15", "--authorize"), ("macOS 26", "--words-in-report"))]
        for thread in runs:
            thread.start()
        for thread in runs:
            thread.join()

        status, report = results["macOS 15"]
        self.assertEqual(status, 0, report)
        self.assertIn("permission: as expected", report)
        self.assertIn("both sources: as expected", report)
        self.assertIn("12 s without a pause: as expected", report)
        self.assertIn("seen: finals of both sources", report)
        self.assertIn("seen: answered authorized after", report)
        self.assertNotIn("young man", report, "the words of given recordings stay out of the report")

        status, report = results["macOS 26"]
        self.assertEqual(status, 0, report)
        for step in ("model", "one recording", "empty recording", "both sources", "four sessions", "end in a session"):
            self.assertIn(f"\n{step}: as expected", report)
        self.assertIn("seen: 8 of 8 sources have finals", report)
        self.assertIn("seen: a new process reports installed; the model was there before", report)
        self.assertIn("young man", report)

    def check_bad_state(self, system, state, sentence, *expected):
        with self.subTest(system=system, state=state):
            status, report = self.go(system, state)
            self.assertIn(f"Nothing was transcribed: {sentence}", report)
            for text in expected:
                self.assertIn(text, report)
            self.assertEqual(status, 1 if "DIFFERS" in report else 0)
            return report

    def test_bad_states_of_macos_15(self):
        self.check_bad_state("macOS 15", "not-determined", f"it needs the permission: run {HELPER} --authorize")
        self.check_bad_state("macOS 15", "denied", "the permission is denied: grant it in System Settings")
        self.check_bad_state("macOS 15", "restricted", "the permission is restricted: the administrator")
        self.check_bad_state("macOS 15", "no-recognizer", "the model is missing: turn on Dictation")
        self.check_bad_state("macOS 15", "no-model", "the model is missing: turn on Dictation")
        self.check_bad_state("macOS 15", "dictation-off", "Dictation is off: turn it on in System Settings",
                             "seen: the status says that Dictation is off, so its error was recognized")

    def test_bad_states_of_macos_26(self):
        self.check_bad_state("macOS 26", "no-transcriber", "this Mac has no transcriber for the language",
                             "health: as expected", "SpeechAnalyzer does not support locale ja-JP")
        self.check_bad_state("macOS 26", "no-network", f"the model is missing: run {HELPER} --install-assets while online", "model: DIFFERS",
                             "The Internet connection appears to be offline.; exit status 1")
        self.check_bad_state("macOS 26", "no-model", f"the model is missing: run {HELPER} --install-assets while online", "model: DIFFERS",
                             "supported > downloading > installed; a new process reports supported")

    def test_missing_step_is_printed_alone(self):
        for system, state, step in (("macOS 15", "ready", ""), ("macOS 26", "ready", ""),
                                    ("macOS 15", "dictation-off",
                                     "Dictation is off: turn it on in System Settings > Keyboard > Dictation\n"),
                                    ("macOS 26", "no-model",
                                     f"the model is missing: run {HELPER} --install-assets while online\n")):
            done = subprocess.run([sys.executable, TOOL, "--helper", HELPER, "--missing-step"], stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True, check=False, cwd=self.folder,
                                  env={**os.environ, "PALAVER_STT_SYSTEM": system, "PALAVER_STT_STATE": state})
            self.assertEqual((done.returncode, done.stdout), (0, step), done.stderr)
            self.assertEqual(os.listdir(self.folder), [], "no report is written")

    def test_broken_helper_is_reported(self):
        helper = self.folder / "helper"
        helper.write_text("#!/bin/sh\necho '{\"type\":\"other\"}'\nexit 3\n")
        helper.chmod(0o755)
        report = self.folder / "report.txt"
        done = subprocess.run([sys.executable, TOOL, "--helper", helper, "--report", report], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 1, done.stdout + done.stderr)
        self.assertIn("start: DIFFERS", done.stdout)
        self.assertIn("health: DIFFERS", done.stdout)
        self.assertTrue(report.exists())

    def test_invalid_arguments_are_refused(self):
        for arguments in ((), ("--helper", "/nowhere"), ("--helper", HELPER, "--recording", __file__)):
            done = subprocess.run([sys.executable, TOOL, *arguments], capture_output=True, text=True, check=False)
            self.assertEqual(done.returncode, 2, arguments)
            self.assertIn("error:", done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
