"""Tests ./dev fuzz with stand-ins for the fuzzers: its arguments, how findings are reported, and how corpora are merged."""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT / "tools/dev"))
sys.dont_write_bytecode = True
import fuzz_coverage

# A fuzzer that writes what libFuzzer writes when it ends.
FINE = """echo "$0 $*" >>calls
echo "stat::number_of_executed_units: 1234" >&2"""
CRASH = """for option; do case $option in -artifact_prefix=*) prefix=${option#*=} ;; esac; done
mkdir -p "$prefix" && echo bad >"${prefix}crash-1"
echo "fuzzer: different values" >&2
echo "artifact_prefix='$prefix'; Test unit written to ${prefix}crash-1" >&2
echo "Base64: YmFkCg==" >&2
echo "stat::number_of_executed_units: 7" >&2
exit 77"""
# Puts the first input of each length into the first folder, as a merge puts the first input of each coverage.
MERGE = """for option; do case $option in -*) shift ;; esac; done
merged=$1
shift
for folder; do for input in "$folder"/*; do
  [ -f "$input" ] || continue
  for other in "$merged"/*; do [ "$(wc -c <"$other" 2>/dev/null)" != "$(wc -c <"$input")" ] || continue 2; done
  cp "$input" "$merged/$(sha1sum <"$input" | cut -c 1-40)"
done; done"""


class FuzzTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        (self.folder / "fuzz").mkdir()
        (self.folder / "fuzz/dictionaries").symlink_to(ROOT / "fuzz/dictionaries")

    def write(self, path, content):
        path = self.folder / path
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(content)
        return path

    def add_fuzzer(self, name, script):
        self.write(f"fuzz/fuzz_{name}.cpp", "")
        self.write(f"build/fuzz/fuzz/fuzz_{name}", f"#!/usr/bin/env bash\n{script}\n").chmod(0o755)

    def fuzz(self, *arguments, can_fuzz="true", more=""):
        """The exit status, the output and the errors of ./dev fuzz, without a build."""
        script = f""". "{ROOT}/tools/dev/common.sh"
. "{ROOT}/tools/dev/build.sh"
. "{ROOT}/tools/dev/fuzz.sh"
is_debian() {{ false; }}
can_fuzz() {{ {can_fuzz}; }}
build() {{ say "built $*"; }}
{more}
run_fuzzers "$@"
"""
        run = subprocess.run(["bash", "-euo", "pipefail", "-c", script, "dev", *arguments], cwd=self.folder, capture_output=True,
                             text=True, check=False)
        return run.returncode, run.stdout, run.stderr

    def test_each_fuzzer_runs_with_its_dictionary_and_both_corpora(self):
        for name in ("base64", "event"):
            self.add_fuzzer(name, FINE)
            self.write(f"fuzz/corpus/{name}/1", "input")
        status, output, errors = self.fuzz("7")
        self.assertEqual(status, 0, errors)
        self.assertRegex(output, r"(?m)^fuzz_base64 +1234 executions, +\d+ s, no finding$")
        self.assertRegex(output, r"(?m)^fuzz_event +1234 executions, +\d+ s, no finding$")
        calls = (self.folder / "calls").read_text().splitlines()
        self.assertEqual(len(calls), 2)
        for call, name in zip(calls, ("base64", "event")):
            self.assertIn("-max_total_time=7 ", call)
            self.assertIn(f"-dict=build/fuzz-dictionaries/{name}.dict", call)
            self.assertTrue(call.endswith(f"build/fuzz-corpus/fuzz_{name} fuzz/corpus/{name}"), call)
        joined = (self.folder / "build/fuzz-dictionaries/event.dict").read_text()
        for part in ("json", "command"):
            self.assertIn((ROOT / f"fuzz/dictionaries/{part}.dict").read_text(), joined)

    def test_finding_is_reported_and_others_still_run(self):
        self.add_fuzzer("base64", CRASH)
        self.add_fuzzer("event", FINE)
        self.add_fuzzer("onnx", CRASH)
        self.add_fuzzer("sound", FINE)
        for options in ([], ["--jobs", "2"], ["--jobs=9"]):
            status, output, errors = self.fuzz("1", *options)
            self.assertEqual(status, 1)
            self.assertIn("2 of the fuzzers have a finding", errors)
            self.assertRegex(output, r"(?m)^fuzz_base64 +7 executions, +\d+ s, FINDING$")
            self.assertRegex(output, r"(?m)^fuzz_sound +1234 executions, +\d+ s, no finding$")
            self.assertIn("FINDING of fuzz_onnx: fuzzer: different values\n"
                          "  input: build/fuzz-findings/fuzz_onnx/crash-1\n"
                          "  reproduce: build/fuzz/fuzz/fuzz_onnx build/fuzz-findings/fuzz_onnx/crash-1\n"
                          "  the input in Base64: YmFkCg==\n"
                          "  log: build/logs/fuzz_onnx.log\n", output)
        self.assertEqual(len((self.folder / "calls").read_text().splitlines()), 6)

    def test_fuzzer_that_ends_without_an_input_is_a_finding(self):
        self.add_fuzzer("base64", "echo 'cannot start'; exit 1")
        status, output, _ = self.fuzz("1")
        self.assertEqual(status, 1)
        self.assertIn("FINDING of fuzz_base64: cannot start\n  log: build/logs/fuzz_base64.log\n", output)

    def test_named_targets_run_alone(self):
        for name in ("base64", "event", "onnx"):
            self.add_fuzzer(name, FINE)
        self.assertEqual(self.fuzz("onnx", "3", "base64")[0], 0)
        calls = (self.folder / "calls").read_text()
        self.assertIn("fuzz_base64 ", calls)
        self.assertIn("fuzz_onnx ", calls)
        self.assertNotIn("fuzz_event ", calls)
        self.assertIn("-max_total_time=3 ", calls)

    def test_wrong_arguments_are_usage_errors(self):
        self.add_fuzzer("base64", FINE)
        for arguments, error in ((["0"], "not '0'"), (["no-target"], "there are base64"), (["--often"], "no option '--often'"),
                                 (["--jobs"], "--jobs takes"), (["--jobs", "0"], "--jobs takes"), (["--jobs=x"], "--jobs takes")):
            status, _, errors = self.fuzz(*arguments)
            self.assertEqual(status, 2, arguments)
            self.assertIn(error, errors)
        self.assertFalse((self.folder / "calls").exists())

    def test_missing_compiler_skips_with_one_line(self):
        self.add_fuzzer("base64", FINE)
        status, output, errors = self.fuzz("1", can_fuzz="false")
        self.assertEqual((status, output), (0, ""))
        self.assertRegex(errors, r"\Askipped: fuzzing; .*\n\Z")

    def test_coverage_without_its_tools_skips_with_one_line(self):
        self.add_fuzzer("base64", FINE)
        status, output, errors = self.fuzz("--coverage", more="command() { return 1; }")
        self.assertEqual((status, output), (0, ""))
        self.assertRegex(errors, r"(?m)^skipped: the coverage of the fuzzers; .*$")

    def test_coverage_of_functions_counts_lines_and_outcomes(self):
        # A function of the lines 10 to 14 that was called 5 times, with code of its own in lines 11 and 12 to 13.
        function = {"regions": [[10, 1, 14, 2, 5, 0, 0, 0], [11, 9, 11, 20, 0, 0, 0, 0], [12, 8, 13, 9, 3, 0, 0, 0],
                                [13, 1, 13, 5, 9, 0, 0, 3]],
                    "branches": [[11, 5, 11, 8, 0, 5, 0, 0, 4], [12, 5, 12, 7, 3, 2, 0, 0, 4]]}
        self.assertEqual(fuzz_coverage.coverage_of_functions([function]), [5, 5, 3, 4])
        never = {"regions": [[20, 1, 22, 2, 0, 0, 0, 0]], "branches": []}
        self.assertEqual(fuzz_coverage.coverage_of_functions([function, never]), [5, 8, 3, 4])
        # Another instance of the same template.
        other = {"regions": [[20, 1, 22, 2, 1, 0, 0, 0]], "branches": []}
        self.assertEqual(fuzz_coverage.coverage_of_functions([never, other]), [3, 3, 0, 0])

    def test_every_target_names_the_files_that_it_tests(self):
        targets = {source.stem.removeprefix("fuzz_") for source in (ROOT / "fuzz").glob("fuzz_*.cpp")}
        self.assertEqual(targets, set(fuzz_coverage.FILES))
        for entries in fuzz_coverage.FILES.values():
            for entry in entries:
                self.assertTrue((ROOT / entry.partition(":")[0]).is_file(), entry)

    def test_merge_makes_the_corpus_anew_and_keeps_inputs_with_names(self):
        self.add_fuzzer("base64", MERGE)
        for name, content in (("finding", "keep"), ("seed", "same"), ("0" * 40, "a redundant one"), ("1" * 40, "alone")):
            self.write(f"fuzz/corpus/base64/{name}", content)
        self.write("build/fuzz-corpus/fuzz_base64/" + "2" * 40, "a smaller one!!")
        self.write("build/fuzz-corpus/fuzz_base64/" + "3" * 40, "newly found")
        status, output, errors = self.fuzz("--merge")
        self.assertEqual(status, 0, errors)
        inputs = sorted(path.read_text() for path in (self.folder / "fuzz/corpus/base64").iterdir())
        self.assertEqual(inputs, ["a redundant one", "alone", "keep", "newly found", "same"])
        self.assertRegex(output, r"base64 +5 inputs, +39 bytes")

    def test_merge_that_fails_keeps_the_corpus(self):
        self.add_fuzzer("base64", "exit 1")
        self.write("fuzz/corpus/base64/" + "0" * 40, "kept")
        self.assertEqual(self.fuzz("--merge")[0], 1)
        self.assertEqual((self.folder / "fuzz/corpus/base64" / ("0" * 40)).read_text(), "kept")

    def test_every_target_has_dictionaries_and_a_corpus(self):
        for source in sorted((ROOT / "fuzz").glob("fuzz_*.cpp")):
            name = source.stem.removeprefix("fuzz_")
            run = subprocess.run(["bash", "-euc", f". tools/dev/fuzz.sh; dictionaries_of {name}"], cwd=ROOT, capture_output=True,
                                 text=True, check=True)
            for dictionary in run.stdout.split():
                self.assertTrue((ROOT / f"fuzz/dictionaries/{dictionary}.dict").is_file(), name)
            corpus = ROOT / "fuzz/corpus" / name
            sizes = [path.stat().st_size for path in corpus.iterdir()] if corpus.is_dir() else []
            self.assertTrue(sizes, f"{name} has no corpus")
            self.assertLess(sum(sizes), 400_000, name)

    def test_dictionaries_are_well_formed(self):
        entry = r'\A"(?:[^"\\]|\\\\|\\"|\\x[0-9a-f]{2})+"\Z'
        for path in (ROOT / "fuzz/dictionaries").iterdir():
            for line in path.read_text().splitlines():
                if line and not line.startswith("#"):
                    self.assertRegex(line, entry, path.name)


if __name__ == "__main__":
    unittest.main()
