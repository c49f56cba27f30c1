"""Builds the model of tones again and compares it with the one in tests/models/tones.

usage: tones_model_test.py PYTHON   (an interpreter with numpy and onnx)
"""
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
PYTHON = sys.argv.pop(1)


class TonesModelTest(unittest.TestCase):
    def test_tool_makes_the_same_files(self):
        with tempfile.TemporaryDirectory() as target:
            subprocess.run([PYTHON, ROOT / "tools/models/make_tones.py", target], check=True)
            expected = ROOT / "tests/models/tones"
            names = sorted(file.name for file in expected.iterdir())
            self.assertEqual(names, sorted(file.name for file in pathlib.Path(target).iterdir()))
            for name in names:
                self.assertEqual((expected / name).read_bytes(), pathlib.Path(target, name).read_bytes(), name)


if __name__ == "__main__":
    unittest.main()
