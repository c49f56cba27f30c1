"""Tests how ./dev demo makes its recordings on a Mac, with a stand-in for the system's say."""
import os
import pathlib
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]


class DemoTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_shell(self, script, say='printf "%s|" "$@" >"$4"'):
        """The exit status, the output and the errors of a script with the functions of ./dev."""
        program = self.folder / "say"
        program.write_text(f"#!/bin/sh\n{say}\n")
        program.chmod(0o755)
        run = subprocess.run(["bash", "-euo", "pipefail", "-c",
                              f". tools/dev/common.sh; . tools/dev/demo.sh; {script}"], cwd=ROOT, capture_output=True,
                             text=True, check=False, env={**os.environ, "PATH": f"{self.folder}:{os.environ['PATH']}"})
        return run.returncode, run.stdout, run.stderr

    def test_locale_is_found_among_the_options(self):
        for arguments, locale in (("", "ja-JP"), ("--json --locale en-US", "en-US"), ("--locale=en-GB --json", "en-GB")):
            self.assertEqual(self.run_shell(f"locale_of {arguments}"), (0, f"{locale}\n", ""))

    def test_two_recordings_are_spoken_in_the_language(self):
        for locale, voice in (("ja-JP", "Kyoko"), ("en-US", "Samantha")):
            place = self.folder / "new folder" / locale
            status, output, errors = self.run_shell(f"make_demo_recordings '{place}' {locale}")
            self.assertEqual((status, output, errors), (0, f"{place}/far.wav\n{place}/near.wav\n", ""))
            spoken = [(place / name).read_text().split("|") for name in ("far.wav", "near.wav")]
            for words in spoken:
                self.assertEqual(words[:2], ["-v", voice])
                self.assertIn("--data-format=LEI16@16000", words)
            self.assertNotEqual(spoken[0][5], spoken[1][5])

    def test_missing_voice_and_language_are_errors(self):
        status, _, errors = self.run_shell(f"make_demo_recordings '{self.folder}' ja-JP", say="exit 1")
        self.assertEqual(status, 1)
        self.assertIn("the voice Kyoko is missing", errors)
        status, _, errors = self.run_shell(f"make_demo_recordings '{self.folder}' fr-FR")
        self.assertEqual(status, 1)
        self.assertIn("there is no text to speak for fr-FR", errors)


if __name__ == "__main__":
    unittest.main()
