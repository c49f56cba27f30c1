"""Prints what the committed corpus of each fuzzer covers in the files that it tests, and how fast the fuzzer runs.

Runs the programs of build/fuzz-coverage over fuzz/corpus, and those of build/fuzz for some seconds. Needs llvm-profdata-14 and
llvm-cov-14."""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
SPEED_SECONDS = 5

# The files that each target tests. After a colon: the functions, as a regular expression of their names, where a file holds others.
FILES = {
    "base64": ["core/Base64.cpp", "core/VectorKernels.cpp:[Bb]ase64|Groups", "core/VectorKernelsX86.cpp:[Bb]ase64|Groups"],
    "channel": ["core/CommandChannel.cpp", "core/CommandHandler.cpp", "core/JSONLineWriter.cpp", "core/Text.cpp"],
    "command": ["core/HelperCommand.cpp", "core/UTF8.cpp"],
    "event": ["core/JSONLineWriter.cpp:serializeEvent"],
    "onnx": ["platform/linux/models/ONNXMetadata.cpp"],
    "scenario": ["simulator/scenario/" + name for name in (
        "AnalysisSteps.cpp:read", "Conversation.cpp", "EventPattern.cpp:withTimes", "HostInput.cpp", "MachineSteps.cpp:read",
        "ObjectReader.cpp", "PlatformState.cpp:read", "Scenario.cpp", "ScenarioFiles.cpp:read|vocabularyOf", "SyntheticAudio.cpp")],
    "sound": ["platform/audio/" + name for name in (
        "MonoResampler.cpp", "SampleFile.cpp", "SampleFormat.cpp", "SampleStream.cpp", "WaveHeader.cpp")],
    "vocabulary": ["cli/TranscribeArguments.cpp:parseVocabulary"],
    "worker_frames": ["platform/linux/WorkerFrames.cpp"],
}


def run(*command, **options):
    return subprocess.run([str(part) for part in command], cwd=ROOT, check=True, capture_output=True, text=True, **options)


def profile(name, folder):
    """Runs the corpus. Returns the path of its profile."""
    raw, merged = folder / "raw", folder / "profile"
    run(f"build/fuzz-coverage/fuzz/fuzz_{name}", "-runs=0", f"fuzz/corpus/{name}", env={**os.environ, "LLVM_PROFILE_FILE": str(raw)})
    run("llvm-profdata-14", "merge", "-sparse", raw, "-o", merged)
    return merged


def coverage(name, merged):
    """The numbers of lines covered, lines, branches covered and branches: of whole files, and of the functions where they are named."""
    program = f"build/fuzz-coverage/fuzz/fuzz_{name}"
    total = [0, 0, 0, 0]
    for entry in FILES[name]:
        path, _, functions = entry.partition(":")
        if functions:
            report = run("llvm-cov-14", "report", "-show-functions", "-Xdemangler=c++filt", "-Xdemangler=-p", program,
                         f"-instr-profile={merged}", ROOT / path).stdout
            rows = [row.split() for row in report.splitlines() if "%" in row or row.rstrip().endswith("-")]
            # name; regions, missed, covered; lines, missed, covered; branches, missed, covered
            rows = [row for row in rows if len(row) >= 10 and row[0] != "TOTAL" and re.search(functions, " ".join(row[:-9]))]
            if not rows:
                raise SystemExit(f"error: {path} has no function like {functions}")
            for row in rows:
                lines, missed, _, branches, missed_branches, _ = row[-6:]
                for i, value in enumerate((int(lines) - int(missed), int(lines), int(branches) - int(missed_branches), int(branches))):
                    total[i] += value
        else:
            exported = run("llvm-cov-14", "export", "-summary-only", program, f"-instr-profile={merged}", ROOT / path)
            counts = json.loads(exported.stdout)["data"][0]["totals"]
            for i, (kind, key) in enumerate((("lines", "covered"), ("lines", "count"), ("branches", "covered"), ("branches", "count"))):
                total[i] += counts[kind][key]
    return total


def speed(name, folder):
    """Executions per second."""
    found = folder / "found"
    found.mkdir()
    ended = run(f"build/fuzz/fuzz/fuzz_{name}", f"-max_total_time={SPEED_SECONDS}", "-print_final_stats=1",
                f"-dict=build/fuzz-dictionaries/{name}.dict", f"-artifact_prefix={folder}/", found, f"fuzz/corpus/{name}")
    return int(re.search(r"stat::average_exec_per_sec: +(\d+)", ended.stderr)[1])


def main(names):
    print("| target | lines covered | branches covered | corpus | executions per second |\n|---|---|---|---|---|")
    for name in names:
        with tempfile.TemporaryDirectory() as place:
            folder = pathlib.Path(place)
            lines, all_lines, branches, all_branches = coverage(name, profile(name, folder))
            inputs = [path.stat().st_size for path in (ROOT / "fuzz/corpus" / name).iterdir()]
            percent = f"{lines} of {all_lines} ({100 * lines / all_lines:.0f} %) | {branches} of {all_branches}"
            size = f"{len(inputs)} inputs, {sum(inputs) / 1000:.0f} kB"
            print(f"| `{name}` | {percent} | {size} | {speed(name, folder)} |", flush=True)


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except subprocess.CalledProcessError as error:
        raise SystemExit(f"error: {' '.join(error.cmd)} failed with status {error.returncode}:\n{error.stderr[-2000:]}") from error
