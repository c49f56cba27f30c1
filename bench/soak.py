"""Runs a meeting of two sources for a long time and reports what grows, memory, descriptors, threads, latency, and what is missing.

usage: python3 bench/soak.py HELPER [--engine NAME] [--minutes M] [--turns] [--fast WORKER | --analyzer]

Takes M minutes of real time. Both sources speak all the time but for pauses, with --turns one at a time. With --fast and --analyzer,
HELPER is the simulator and the meeting takes as long as it takes to decode it: the helper of Linux with the speech worker WORKER and a
clock that waits for it, or the helper of macOS 26 with PocketSphinx in its own process. Slopes are those of a line through all minutes
but the first five, in which everything is loaded. The exit status is 1 after an error, when memory grows by more than 1 MiB an hour
and when an utterance has no final.
"""

import argparse
import array
import collections
import os
import pathlib
import statistics
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent / "accuracy"))

import engines
import live
import sounds
from figures import ends_of_utterances

WARM_UP = 5  # minutes
MOST_GROWTH = 1  # MiB resident an hour
PAUSES = (1200, 700, 2500, 5000)  # ms, after each recording


def loop(recordings):
    return sounds.joined(recordings, pauses=PAUSES).samples


def turns(recordings):
    """A loop for each of two sources that take turns: each is silent while the other speaks."""
    loops = (array.array("h"), array.array("h"))
    for number, recording in enumerate(recordings * (1 + len(recordings) % 2)):
        samples = sounds.joined([recording], pauses=(PAUSES[number % len(PAUSES)],)).samples
        loops[number % 2].extend(samples)
        loops[1 - number % 2].extend([0] * len(samples))
    return loops


class Endless:
    """Samples that repeat, cut as a list of that length would be."""

    def __init__(self, samples, length):
        self.samples, self.length = samples, length

    def __len__(self):
        return self.length

    def __getitem__(self, part):
        begin = part.start % len(self.samples)
        found = self.samples[begin:begin + part.stop - part.start]
        if len(found) < part.stop - part.start:
            found += self.samples[:part.stop - part.start - len(found)]
        return found


def slope(values):
    """Of a line through values that are a minute apart, per hour."""
    return 60 * statistics.linear_regression(range(len(values)), values).slope


def sizes(pid):
    """MiB resident, descriptors and threads of a process."""
    return (live.resident_megabytes(pid), len(os.listdir(f"/proc/{pid}/fd")), len(os.listdir(f"/proc/{pid}/task")))


def whole_chunks(samples):
    samples.extend([0] * (-len(samples) % live.CHUNK))
    return samples


def finals_in_passes(meeting, key, loop_length, length):
    """The finals of a source in each whole pass of its loop, by the middle of their utterances."""
    passes = collections.Counter()
    for utterance in meeting.utterances(*key):
        final = utterance[-1].event
        if final["type"] == "transcript.final":
            middle = (final["startedAt"] + final["speechEndedAt"]) / 2 - meeting.begin
            passes[int(middle * sounds.RATE // 1000 // loop_length)] += 1
    return [passes[number] for number in range(length // loop_length)]


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].removeprefix("usage: "))
    parser.add_argument("helper")
    parser.add_argument("--engine", default="PocketSphinx")
    parser.add_argument("--minutes", type=int, default=60)
    parser.add_argument("--turns", action="store_true")
    clocks = parser.add_mutually_exclusive_group()
    clocks.add_argument("--fast", metavar="WORKER")
    clocks.add_argument("--analyzer", action="store_true")
    options = parser.parse_args()
    if options.minutes < WARM_UP + 3:
        parser.error(f"takes {WARM_UP + 3} minutes at least")
    recordings = list(sounds.recordings().values())
    loops = turns(recordings) if options.turns else (loop(recordings), loop(recordings[::-1]))
    loops = {("m", source): whole_chunks(samples) for source, samples in zip(("remote", "self"), loops)}
    is_fast = options.fast or options.analyzer
    length = options.minutes * 60 * sounds.RATE
    minutes = []
    began = time.time()
    with tempfile.TemporaryDirectory() as folder:
        environment = engines.english_engines(pathlib.Path(folder))[options.engine]
        clock = live.Clock(pathlib.Path(folder) / "clock") if is_fast else None
        arguments = ["worker", clock.path, options.fast] if options.fast else ["analyzer"] if options.analyzer else []
        meeting = live.Meeting(options.helper, environment=environment, arguments=arguments)
        meeting.start(["m"])

        def on_chunk(number):
            if number % 600 == 599:
                minutes.append([sizes(pid) for pid in live.processes(meeting.pid)])

        meeting.play({key: Endless(samples, length) for key, samples in loops.items()}, on_chunk, clock)
        meeting.stop(["m"])
        if is_fast:  # the analyzer's last finals follow session.stopped
            live.wait_for_rest(meeting.pid)
        status = meeting.end()
    finals = [heard for heard in meeting.heard if heard.event["type"] == "transcript.final"]
    print(f"{options.engine}, {options.minutes} minutes in {(time.time() - began) / 60:.0f}, two sources: {len(finals)} finals, "
          f"exit status {status}, errors: {sorted(set(meeting.errors())) or 'none'}\n")
    later = minutes[WARM_UP:]
    processes = ("simulator",) if options.analyzer else ("simulator" if options.fast else "helper", "worker")
    print(f"| | {' | '.join(processes)} |\n{'|---' * (1 + len(processes))}|")
    growth = []
    for index, name in enumerate(("MiB resident", "descriptors", "threads")):
        series = [[minute[process][index] for minute in later] for process in range(len(later[0]))]
        growth.append(max(slope(values) for values in series))
        columns = [f"{values[0]:.4g} to {values[-1]:.4g}, slope {slope(values):+.2f} an hour" for values in series]
        print(f"| {name} | {' | '.join(columns)} |")

    lost = 0
    print("\n| source | length of the loop | ends by silence in it | finals in each whole pass |\n|---|---|---|---|")
    for key, samples in loops.items():
        passes = finals_in_passes(meeting, key, len(samples), length)
        lost += sum(utterance[-1].event["type"] != "transcript.final" for utterance in meeting.utterances(*key))
        counts = ", ".join(f"{count} ({times} times)" for count, times in sorted(collections.Counter(passes).items()))
        print(f"| {key[1]} | {len(samples) / sounds.RATE:.0f} s | {len(ends_of_utterances(samples))} | {counts} |")
    print(f"\nutterances with partials and without a final: {lost}")

    quarter = options.minutes * 60_000 / 4
    parts = [[heard.event["latencyMs"] for heard in finals
              if part * quarter <= heard.event["speechEndedAt"] - meeting.begin < (part + 1) * quarter] for part in range(4)]
    print(f"finals in each quarter: {', '.join(str(len(part)) for part in parts)}")
    if not options.analyzer:  # whose clock does not follow the audio
        print("median and longest latency of finals in each quarter: " +
              ", ".join(f"{statistics.median(part):.0f} and {max(part):.0f} ms" for part in parts if part))
    return status != 0 or bool(meeting.errors()) or lost > 0 or growth[0] > MOST_GROWTH


sys.exit(main())
