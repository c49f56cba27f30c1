"""Tests that replaying a corpus fails when it must. Argument: a replay program that rejects every exclamation mark."""
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

PROGRAM = sys.argv.pop(1)


class ReplayTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, name, content):
        path = self.folder / name
        path.write_bytes(content)
        return path

    def replay(self, *paths):
        return subprocess.run([PROGRAM, *map(str, paths)], capture_output=True, text=True, check=False)

    def test_every_accepted_input_is_run_in_order(self):
        paths = [self.write("b", b"b"), self.write("a", b""), self.write("c", bytes(range(33)) + b"\xff")]
        run = self.replay(self.folder)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        self.assertEqual(run.stdout.splitlines(), [*map(str, sorted(paths)), "3 inputs passed"])

    def test_rejected_input_aborts_and_is_the_last_named(self):
        self.write("a", b"fine")
        rejected = self.write("b", b"stop!")
        self.write("c", b"fine")
        run = self.replay(self.folder)
        self.assertEqual(run.returncode, -signal.SIGABRT)
        self.assertEqual(run.stdout.splitlines()[-1], str(rejected))
        self.assertIn("an exclamation mark", run.stderr)

    def test_one_file_is_replayed(self):
        self.assertEqual(self.replay(self.write("a", b"fine")).returncode, 0)
        self.assertEqual(self.replay(self.write("b", b"!")).returncode, -signal.SIGABRT)

    def test_corpus_that_is_missing_or_empty_fails(self):
        for paths, error in (((), "usage"), ((self.folder,), "holds no file"), ((self.folder / "none",), "cannot read")):
            run = self.replay(*paths)
            self.assertEqual(run.returncode, 1)
            self.assertIn(error, run.stderr)


if __name__ == "__main__":
    unittest.main()
