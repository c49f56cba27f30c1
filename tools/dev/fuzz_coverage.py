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
    "event": ["core/JSONLineWriter.cpp:serializeEvent|append"],
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
    exported = json.loads(run("llvm-cov-14", "export", program, f"-instr-profile={merged}").stdout)["data"][0]
    files = {os.path.normpath(file["filename"]): file for file in exported["files"]}
    demangled = run("c++filt", input="\n".join(function["name"] for function in exported["functions"])).stdout.splitlines()
    functions = list(zip(demangled, exported["functions"]))
    total = [0, 0, 0, 0]
    for entry in FILES[name]:
        path, _, pattern = entry.partition(":")
        file = files.get(str(ROOT / path))
        if file is None:
            raise SystemExit(f"error: {program} has no code of {path}")
        if pattern:
            wanted = [function for demangled_name, function in functions
                      if file["filename"] == function["filenames"][0] and re.search(pattern, demangled_name)]
            if not wanted:
                raise SystemExit(f"error: {path} has no function like {pattern}")
            numbers = coverage_of_functions(wanted)
        else:
            numbers = [file["summary"][kind][key] for kind in ("lines", "branches") for key in ("covered", "count")]
        total = [sum(pair) for pair in zip(total, numbers)]
    return total


def coverage_of_functions(functions):
    """The same numbers of functions of one file. A line counts as often as the code that starts in it, or else as the code around
    it. A branch is two, one for each outcome."""
    lines, branches = {}, {}
    for function in functions:
        # line and column of the start and of the end, the number of executions; the last number is 0 for code
        code = [region for region in function["regions"] if region[5] == 0 and region[7] == 0]
        for line in range(min(region[0] for region in code), max(region[2] for region in code) + 1):
            counts = [region[4] for region in code if region[0] == line]
            around = [region for region in code if region[0] < line <= region[2]]
            if around:
                counts.append(max(around, key=lambda region: region[:2])[4])
            lines[line] = max([lines.get(line, 0), *counts])
        for branch in function["branches"]:
            for outcome in (4, 5):
                place = (*branch[:4], outcome)
                branches[place] = max(branches.get(place, 0), branch[outcome])
    return [sum(count > 0 for count in lines.values()), len(lines), sum(count > 0 for count in branches.values()), len(branches)]


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
