"""Writes the models of tests/models again and compares them with the ones there.

usage: test_models_test.py PYTHON   (an interpreter with numpy and onnx)
"""
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
MODELS = ROOT / "tests/models"
CONVERTED = "moonshine-merged-ort"  # needs the ONNX Runtime, which does not write the same bytes each time
PYTHON = sys.argv.pop(1)


def files_below(folder):
    return sorted(file.relative_to(folder) for file in folder.rglob("*") if file.is_file())


class TestModelsTest(unittest.TestCase):
    def test_tool_writes_the_same_files(self):
        with tempfile.TemporaryDirectory() as target:
            subprocess.run([PYTHON, "-B", MODELS / "make_models.py", target], check=True)
            made = files_below(pathlib.Path(target))
            others = ("__pycache__", CONVERTED)
            kept = [name for name in files_below(MODELS) if len(name.parts) == 2 and name.parts[0] not in others]
            self.assertEqual(made, kept)
            for name in made:
                self.assertEqual((MODELS / name).read_bytes(), pathlib.Path(target, name).read_bytes(), name)

    def test_unknown_kind_is_refused(self):
        with tempfile.TemporaryDirectory() as target:
            command = [PYTHON, "-B", MODELS / "make_models.py", target, "whisper"]
            self.assertEqual(subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode, 2)
            self.assertEqual(files_below(pathlib.Path(target)), [])


if __name__ == "__main__":
    unittest.main()
