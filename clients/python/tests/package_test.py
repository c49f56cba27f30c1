"""The package is typed and can be built without a network. Exit status 77 with a line if a tool is missing."""

from __future__ import annotations

import importlib.util
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile
from pathlib import Path

CLIENT = Path(__file__).resolve().parents[1]


def find_mypy() -> list[str] | None:
    if importlib.util.find_spec("mypy"):
        return [sys.executable, "-m", "mypy"]
    program = shutil.which("mypy") or shutil.which("mypy", path="/usr/bin")
    return [program] if program else None


def builder() -> str | None:
    """An interpreter whose setuptools can build a wheel."""
    for python in (sys.executable, "/usr/bin/python3"):
        probe = [python, "-c", "import setuptools, wheel; assert int(setuptools.__version__.split('.')[0]) >= 61"]
        if Path(python).exists() and subprocess.run(probe, capture_output=True).returncode == 0:
            return python
    return None


class Package(unittest.TestCase):
    def test_types_are_strict(self) -> None:
        mypy = find_mypy()
        if mypy is None:
            self.skipTest("types of the Python client not checked: mypy is missing (Debian: mypy)")
        with tempfile.TemporaryDirectory() as cache:
            done = subprocess.run(
                [*mypy, "--strict", "--python-version", "3.10", "--cache-dir", cache, "-p", "palaver_stt"],
                cwd=CLIENT / "src",
                capture_output=True,
                text=True,
            )
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_wheel_holds_the_package(self) -> None:
        python = builder()
        if python is None:
            self.skipTest("wheel not built: setuptools 61 or wheel is missing (Debian: python3-setuptools, python3-wheel)")
        with tempfile.TemporaryDirectory() as folder:
            source = Path(folder, "client")
            shutil.copytree(CLIENT, source, ignore=shutil.ignore_patterns("__pycache__", "*.egg-info", "build"))
            build = "from setuptools import build_meta; print(build_meta.build_wheel('.'))"
            done = subprocess.run([python, "-c", build], cwd=source, capture_output=True, text=True)
            self.assertEqual(done.returncode, 0, done.stderr)
            with zipfile.ZipFile(next(source.glob("*.whl"))) as wheel:
                names = wheel.namelist()
        for path in (CLIENT / "src/palaver_stt").glob("*.py*"):
            if path.is_file():
                self.assertIn(f"palaver_stt/{path.name}", names)
        self.assertFalse([name for name in names if "test" in name])


if __name__ == "__main__":
    result = unittest.main(exit=False, verbosity=1).result
    for _, reason in result.skipped:
        print(f"SKIPPED: {reason}")
    sys.exit(1 if not result.wasSuccessful() else 77 if result.skipped else 0)
