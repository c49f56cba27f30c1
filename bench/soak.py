"""Runs a meeting of two live sources for a long time and reports what grows: memory, descriptors, threads, latency.

usage: python3 bench/soak.py HELPER [--engine NAME] [--minutes M]

Takes M minutes of real time. Slopes are those of a line through all minutes but the first five, in which everything is loaded.
"""

import argparse
import os
import pathlib
import statistics
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parent / "accuracy"))

import engines
import live
import sounds

WARM_UP = 5  # minutes
PAUSES = (1200, 700, 2500, 5000)  # ms, after each recording


def loop(recordings):
    return sounds.joined(recordings, pauses=PAUSES).samples


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


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].removeprefix("usage: "))
    parser.add_argument("helper")
    parser.add_argument("--engine", default="PocketSphinx")
    parser.add_argument("--minutes", type=int, default=60)
    options = parser.parse_args()
    if options.minutes < WARM_UP + 3:
        parser.error(f"takes {WARM_UP + 3} minutes at least")
    recordings = list(sounds.recordings().values())
    minutes = []
    with tempfile.TemporaryDirectory() as folder:
        environment = engines.english_engines(pathlib.Path(folder))[options.engine]
        meeting = live.Meeting(options.helper, environment=environment)
        meeting.start(["m"])

        def on_chunk(number):
            if number % 600 == 599:
                minutes.append([sizes(pid) for pid in live.processes(meeting.pid)])

        length = options.minutes * 60 * sounds.RATE
        meeting.play({("m", "remote"): Endless(loop(recordings), length), ("m", "self"): Endless(loop(recordings[::-1]), length)}, on_chunk)
        meeting.stop(["m"])
        status = meeting.end()
    finals = [heard for heard in meeting.heard if heard.event["type"] == "transcript.final"]
    print(f"{options.engine}, {options.minutes} minutes, two sources: {len(finals)} finals, exit status {status}, "
          f"errors: {sorted(set(meeting.errors())) or 'none'}\n\n| | helper | worker |\n|---|---|---|")
    later = minutes[WARM_UP:]
    for index, name in enumerate(("MiB resident", "descriptors", "threads")):
        columns = [f"{values[0]:.4g} to {values[-1]:.4g}, slope {slope(values):+.2f} an hour"
                   for values in ([minute[process][index] for minute in later] for process in range(2))]
        print(f"| {name} | {' | '.join(columns)} |")
    quarter = options.minutes * 60_000 / 4
    latencies = [[heard.event["latencyMs"] for heard in finals if part * quarter <= heard.at - meeting.begin < (part + 1) * quarter]
                 for part in range(4)]
    print("\nmedian and longest latency of finals in each quarter: " +
          ", ".join(f"{statistics.median(part):.0f} and {max(part):.0f} ms" for part in latencies if part))


main()
