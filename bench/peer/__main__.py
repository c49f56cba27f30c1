"""Compares the helper with the streaming WebSocket server of sherpa-onnx: the same library, model, audio and machine.

usage: python3 bench/peer HELPER SERVER LIBRARIES [--channels N,N...] [--most N] [--seconds S]

SERVER is the program sherpa-onnx-online-websocket-server, LIBRARIES the folder of its shared libraries. Both recognize tones with
the streaming model tests/models/tones, each tone one word, in live channels that do not begin together. Needs the Python
package websockets. The machine must be otherwise idle.

A program keeps up while it shows every word, and 95 % of them within 1 s. After the given numbers of channels, the number doubles
for each program until it falls behind or --most is reached. A row is not judged when it fails by less than the player, which runs on
the same machine, was late.
"""

import argparse
import array
import asyncio
import dataclasses
import json
import math
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import time

import websockets

BENCH = pathlib.Path(__file__).parent.parent
sys.path[:0] = [str(BENCH), str(BENCH / "accuracy")]

import engines
import live
from figures import percentile

RATE = 16000  # Hz
LONGEST_DELAY = 1000  # ms, p95 of a program that keeps up
STREAMS = 62  # that differ; more channels repeat them
TONE = 300  # ms
# Gaps between tones, ms. One of them ends an utterance.
GAPS = (400, 700, 500, 1600)


def tones(seconds, begin):
    """Samples, and when each tone begins (ms)."""
    samples = array.array("h", bytes(2 * round(begin * RATE / 1000)))
    starts = []
    tone = array.array("h", (round(9800 * math.sin(2 * math.pi * 1000 * i / RATE)) for i in range(TONE * RATE // 1000)))
    while len(samples) < seconds * RATE:
        starts.append(1000 * len(samples) / RATE)
        samples.extend(tone)
        samples.extend([0] * (GAPS[len(starts) % len(GAPS)] * RATE // 1000))
    return samples, starts


class Words:
    """When a channel first showed each number of words."""

    def __init__(self):
        self.times = []
        self.closed = 0  # words of utterances that have ended

    def show(self, at, text, is_final):
        count = self.closed + len(text.replace(" ", ""))
        self.times.extend([at] * (count - len(self.times)))
        if is_final:
            self.closed = count

    def delays(self, begin, starts):
        return [at - begin - start for at, start in zip(self.times, starts)]


@dataclasses.dataclass
class Figures:
    delays: list  # ms from the start of each word to its event, by channel
    processors: float
    lateness: float  # ms that the player was late at most
    errors: list


def helper_figures(helper, environment, streams, seconds):
    meeting = live.Meeting(helper, locale="ja-JP", environment=environment)
    sources = [(f"s{number // 2}", ("remote", "self")[number % 2]) for number in range(len(streams))]
    sessions = sorted({session for session, _ in sources})
    meeting.start(sessions)
    pids = []
    used = []

    def on_chunk(number):
        if number == 20:  # everything is loaded
            pids.extend(live.processes(meeting.pid))
        if number == 20 or number == 10 * seconds - 1:
            used.append((time.time(), live.processor_seconds(pids)))

    lateness = meeting.play(dict(zip(sources, (samples for samples, _ in streams))), on_chunk)
    meeting.stop(sessions)
    meeting.end()
    channels = {key: Words() for key in sources}
    for heard in meeting.heard:
        if heard.event["type"] in ("transcript.partial", "transcript.final"):
            channels[heard.event["sessionId"], heard.event["source"]].show(
                heard.at, heard.event["text"], heard.event["type"] == "transcript.final")
    delays = [channels[key].delays(meeting.begin, starts) for key, (_, starts) in zip(sources, streams)]
    return Figures(delays, (used[1][1] - used[0][1]) / (used[1][0] - used[0][0]), lateness, meeting.errors())


async def peer_conversation(port, streams, seconds, pid):
    channels = [Words() for _ in streams]
    connections = [await websockets.connect(f"ws://127.0.0.1:{port}", max_size=None) for _ in streams]

    async def read(connection, words):
        segment = 0
        text = ""
        async for message in connection:
            if message == "Done!":
                return
            event = json.loads(message)
            if event["segment"] != segment:
                words.show(time.time() * 1000, text, True)
                segment = event["segment"]
            text = event["text"]
            words.show(time.time() * 1000, text, False)

    readers = [asyncio.create_task(read(*pair)) for pair in zip(connections, channels)]
    converted = {id(samples): array.array("f", (sample / 32768 for sample in samples)) for samples, _ in streams[:STREAMS]}
    floats = [converted[id(samples)] for samples, _ in streams]
    begin = time.time()
    used = []
    lateness = 0
    for number in range(10 * seconds):
        await asyncio.sleep(max(0, begin + (number + 1) / 10 - time.time()))
        for connection, samples in zip(connections, floats):
            await connection.send(samples[number * live.CHUNK:(number + 1) * live.CHUNK].tobytes())
        lateness = max(lateness, 1000 * (time.time() - begin) - 100 * (number + 1))
        if number in (20, 10 * seconds - 1):
            used.append((time.time(), live.processor_seconds([pid])))
    await asyncio.sleep(1)
    for reader in readers:
        reader.cancel()
    for connection in connections:
        await connection.close()
    delays = [words.delays(begin * 1000, starts) for words, (_, starts) in zip(channels, streams)]
    return Figures(delays, (used[1][1] - used[0][1]) / (used[1][0] - used[0][0]), lateness, [])


def peer_figures(server, libraries, streams, seconds):
    with socket.socket() as found:
        found.bind(("127.0.0.1", 0))
        port = found.getsockname()[1]
    files = [f"--{name}={engines.TONES / (name + ('.txt' if name == 'tokens' else '.onnx'))}"
             for name in ("tokens", "encoder", "decoder", "joiner")]
    process = subprocess.Popen([server, f"--port={port}", "--log-file=/dev/null", *files],
                               env={**os.environ, "LD_LIBRARY_PATH": libraries},
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        while True:  # until it listens
            try:
                socket.create_connection(("127.0.0.1", port)).close()
                break
            except ConnectionRefusedError:
                if process.poll() is not None:
                    raise RuntimeError(f"the server ended with status {process.returncode}") from None
                time.sleep(.05)
        return asyncio.run(peer_conversation(port, streams, seconds, process.pid))
    finally:
        process.kill()
        process.wait()


def row(name, count, streams, seconds, figures):
    """A row of the table, and whether the program kept up. None when that cannot be judged."""
    every = [delay for channel in figures.delays for delay in channel]
    # What was said in the last two seconds may not have been shown yet.
    expected = [sum(start < 1000 * seconds - 2000 for start in starts) for _, starts in streams]
    shown = sum(min(len(channel), count) for channel, count in zip(figures.delays, expected))
    middle, high = (percentile(every, share) for share in (.5, .95))
    is_complete = shown == sum(expected) and not figures.errors
    keeps_up, verdict = live.verdict_of(high if is_complete else None, LONGEST_DELAY, figures.lateness)
    middle, high = ("none" if delay is None else f"{delay:.0f} ms" for delay in (middle, high))
    text = (f"| {count} | {name} | {middle} | {high} | {shown} of {sum(expected)} | {figures.processors:.3f} | "
            f"{figures.processors / count:.4f} | {verdict} |")
    return text + (f"\nerrors: {sorted(set(figures.errors))}" if figures.errors else ""), keeps_up


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].removeprefix("usage: "))
    parser.add_argument("helper")
    parser.add_argument("server")
    parser.add_argument("libraries")
    parser.add_argument("--channels", default="1,10,50")
    parser.add_argument("--most", type=int, default=1600)
    parser.add_argument("--seconds", type=int, default=20)
    options = parser.parse_args()
    print("| channels | program | word to event p50 | p95 | words shown | processors | per channel | keeps up |\n"
          "|---|---|---|---|---|---|---|---|", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        environment = engines.environment_with(pathlib.Path(folder) / "tones", {"ja-JP": engines.TONES})
        measures = {
            "helper": lambda streams: helper_figures(options.helper, environment, streams, options.seconds),
            "server": lambda streams: peer_figures(options.server, options.libraries, streams, options.seconds),
        }
        running = dict.fromkeys(measures, True)
        last = dict.fromkeys(measures, 0)
        counts = [int(count) for count in options.channels.split(",")]
        while counts and any(running.values()):
            count = counts.pop(0)
            different = min(count, STREAMS)
            made = [tones(options.seconds, 1000 + 3100 * number / different) for number in range(different)]
            streams = [made[number % different] for number in range(count)]
            for name, measure in measures.items():
                if not running[name]:
                    continue
                text, running[name] = row(name, count, streams, options.seconds, measure(streams))
                print(text, flush=True)
                if running[name]:
                    last[name] = count
            if not counts and 2 * count <= options.most:
                counts.append(2 * count)
    for name, count in last.items():
        print(f"The last number of channels that the {name} kept up with: {count}"
              + {True: " (the most that was tried)", False: "", None: " (more could not be judged)"}[running[name]])


main()
