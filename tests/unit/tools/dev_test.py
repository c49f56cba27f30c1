"""Tests that ./dev refuses arguments that it would not use."""
import pathlib
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]


class DevTest(unittest.TestCase):
    def test_part_without_options_refuses_a_second_argument(self):
        for part in ("arm64", "macos-cross", "macos-sources"):
            with self.subTest(part):
                run = subprocess.run([ROOT / "dev", "test", part, "dev"], capture_output=True, text=True, check=False)
                self.assertEqual((run.returncode, run.stdout), (2, ""))
                self.assertEqual(run.stderr, f"error: 'test {part}' takes no further argument, such as 'dev'\n")


unittest.main()
