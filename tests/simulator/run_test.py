"""Tests that a crash while one scenario is played loses no report of the others.

usage: run_test.py SIMULATOR SCENARIO

The crash is a stack overflow, by a command that is nested too deeply for a small stack.
"""
import pathlib
import resource
import subprocess
import sys
import tempfile

simulator, scenario = sys.argv[1], pathlib.Path(sys.argv[2])
with tempfile.TemporaryDirectory() as directory:
    deep = pathlib.Path(directory) / "deep.json"
    depth = 20_000
    deep.write_text('{"title": "t", "conversation": [{"host": ' + '{"a":' * depth + "1" + "}" * depth + "}]}")
    run = subprocess.run(
        [simulator, "run", str(scenario), str(deep), str(scenario)],
        stdout=subprocess.PIPE,
        text=True,
        # Reading the nested command needs a larger stack.
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_STACK, (256 << 10, 256 << 10)),
    )
lines = run.stdout.splitlines()
expected = [
    f"passed {scenario.stem}",
    "FAILED deep",
    f"passed {scenario.stem}",
    "3 scenarios, 1 failed",
]
assert [line for line in lines if not line.startswith("  ")] == expected, run.stdout
assert lines[2].startswith("  the process that played it ended with "), run.stdout
assert run.returncode == 1, run.returncode
