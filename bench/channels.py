"""Measures how many people may speak at the same time until the helper falls behind, and what it uses, with each engine of this
machine: live channels, two to a session, on recordings of people.

usage: python3 bench/channels.py HELPER [--engine NAME]... [--channels N,N...] [--seconds S]

Without --channels the number doubles from 2 until an engine falls behind. An engine keeps up while, in the second half, every channel has
finals and 95 % of them arrive within 2 s of the 900 ms of silence that end an utterance, and while no error is reported. A row is not
judged when it fails by less than the player, which runs on the same machine, was late. The machine must be otherwise idle.
"""

import argparse
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
from figures import percentile

PAUSE = 1200  # ms after each recording; longer than the 900 ms that end an utterance
LATEST_FINAL = 900 + 2000  # ms, p95 of latencyMs of an engine that keeps up
MOST = 128  # channels


def stream_of(recordings, first, seconds):
    """Recordings one after the other from the given one on. Channels that begin with another one do not pause together."""
    first %= len(recordings)
    once = sounds.joined(recordings[first:] + recordings[:first], pauses=(PAUSE,)).samples
    length = seconds * sounds.RATE
    return (once * (length // len(once) + 1))[:length]


def row(helper, environment, recordings, count, seconds):
    meeting = live.Meeting(helper, environment=environment)
    sources = [(f"s{number // 2}", ("remote", "self")[number % 2]) for number in range(count)]
    sessions = sorted({session for session, _ in sources})
    meeting.start(sessions)
    used = []
    memory = []

    def on_chunk(number):
        if number == 100 or number == 10 * seconds - 1:  # everything is loaded; the end
            used.append((time.time(), live.processor_seconds(live.processes(meeting.pid))))
        if number % 100 == 99:
            memory.append([live.resident_megabytes(pid) for pid in live.processes(meeting.pid)])

    lateness = meeting.play({key: stream_of(recordings, number, seconds) for number, key in enumerate(sources)}, on_chunk)
    meeting.stop(sessions)
    status = meeting.end()

    finals = [heard for heard in meeting.heard if heard.event["type"] == "transcript.final"]
    first = {}
    for heard in finals:
        first.setdefault((heard.event["sessionId"], heard.event["source"]), heard.event["latencyMs"])
    second = [heard.event for heard in finals if heard.at - meeting.begin >= 500 * seconds]
    halves = [[heard.event["latencyMs"] for heard in finals if heard.at - meeting.begin < 500 * seconds],
              [event["latencyMs"] for event in second]]
    load = (used[1][1] - used[0][1]) / (used[1][0] - used[0][0])

    def latency(values):
        return f"{statistics.median(values):.0f}, {percentile(values, .95):.0f}, {max(values):.0f} ms" if values else "none"

    problems = meeting.errors() + ([f"exit status {status}"] if status else [])
    are_complete = len({(event["sessionId"], event["source"]) for event in second}) == count and not problems
    keeps_up, verdict = live.verdict_of(percentile(halves[1], .95) if are_complete else None, LATEST_FINAL, lateness)
    resident = "+".join(f"{megabytes:.0f}" for megabytes in memory[-1])
    text = (f"| {count} | {latency(list(first.values()))} | {latency(halves[0])} | {latency(halves[1])} | {load:.2f} | "
            f"{load / count:.3f} | {resident} | {verdict} |")
    return text + (f"\nproblems: {sorted(set(problems))}" if problems else ""), keeps_up


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].removeprefix("usage: "))
    parser.add_argument("helper")
    parser.add_argument("--engine", action="append")
    parser.add_argument("--channels")
    parser.add_argument("--seconds", type=int, default=60)
    options = parser.parse_args()
    counts = ([int(count) for count in options.channels.split(",")] if options.channels else
              [2 << power for power in range(MOST.bit_length() - 1)])
    recordings = [recording for recording in sounds.recordings().values() if recording.name.startswith("librivox")]
    with tempfile.TemporaryDirectory() as folder:
        for engine, environment in engines.english_engines(pathlib.Path(folder)).items():
            if options.engine and engine not in options.engine:
                continue
            print(f"### {engine}, {options.seconds} s, {os.cpu_count()} processors\n\nLatency of finals: median, p95, longest. 900 ms are the "
                  "silence that ends an utterance.\n\n| channels | first final of each | first half | second half | processors | "
                  "per channel | MB, helper and worker | keeps up |\n|---|---|---|---|---|---|---|---|", flush=True)
            last = 0
            for count in counts:
                text, keeps_up = row(options.helper, environment, recordings, count, options.seconds)
                print(text, flush=True)
                if not keeps_up and not options.channels:
                    break
                last = max(last, count if keeps_up else 0)
            print(f"\nThe last number of channels that {engine} kept up with: {last}\n", flush=True)


main()
