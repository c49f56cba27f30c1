"""Compares the helper with the streaming WebSocket server of sherpa-onnx: the same library, model, audio and machine.

usage: python3 bench/peer HELPER SERVER LIBRARIES [--channels N,N...] [--seconds S]

SERVER is the program sherpa-onnx-online-websocket-server, LIBRARIES the folder of its shared libraries. Both hear tones with
the streaming model tests/models/tones, each tone one word, in live channels that do not begin together. Needs the Python
package websockets. The machine must be otherwise idle.
"""

import argparse
import array
import asyncio
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

    meeting.play(dict(zip(sources, (samples for samples, _ in streams))), on_chunk)
    meeting.stop(sessions)
    meeting.end()
    channels = {key: Words() for key in sources}
    for heard in meeting.heard:
        if heard.event["type"] in ("transcript.partial", "transcript.final"):
            channels[heard.event["sessionId"], heard.event["source"]].show(
                heard.at, heard.event["text"], heard.event["type"] == "transcript.final")
    delays = [channels[key].delays(meeting.begin, starts) for key, (_, starts) in zip(sources, streams)]
    return delays, (used[1][1] - used[0][1]) / (used[1][0] - used[0][0]), meeting.errors()


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
    floats = [array.array("f", (sample / 32768 for sample in samples)) for samples, _ in streams]
    begin = time.time()
    used = []
    for number in range(10 * seconds):
        await asyncio.sleep(max(0, begin + (number + 1) / 10 - time.time()))
        for connection, samples in zip(connections, floats):
            await connection.send(samples[number * live.CHUNK:(number + 1) * live.CHUNK].tobytes())
        if number in (20, 10 * seconds - 1):
            used.append((time.time(), live.processor_seconds([pid])))
    await asyncio.sleep(1)
    for reader in readers:
        reader.cancel()
    for connection in connections:
        await connection.close()
    delays = [words.delays(begin * 1000, starts) for words, (_, starts) in zip(channels, streams)]
    return delays, (used[1][1] - used[0][1]) / (used[1][0] - used[0][0]), []


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


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].removeprefix("usage: "))
    parser.add_argument("helper")
    parser.add_argument("server")
    parser.add_argument("libraries")
    parser.add_argument("--channels", default="1,10,50,100")
    parser.add_argument("--seconds", type=int, default=20)
    options = parser.parse_args()
    print("| channels | program | word to event p50 | p95 | words shown | processors | per channel | keeps up |\n"
          "|---|---|---|---|---|---|---|---|", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        environment = engines.environment_with(pathlib.Path(folder) / "tones", {"ja-JP": engines.TONES})
        for count in map(int, options.channels.split(",")):
            streams = [tones(options.seconds, 1000 + 3100 * number / count) for number in range(count)]
            for name, measure in (
                    ("helper", lambda: helper_figures(options.helper, environment, streams, options.seconds)),
                    ("server", lambda: peer_figures(options.server, options.libraries, streams, options.seconds))):
                delays, processors, errors = measure()
                every = [delay for channel in delays for delay in channel]
                # What was said in the last two seconds may not have been shown yet.
                said = sum(start < 1000 * options.seconds - 2000 for _, starts in streams for start in starts)
                shown = sum(min(len(channel), sum(start < 1000 * options.seconds - 2000 for start in starts))
                            for channel, (_, starts) in zip(delays, streams))
                late = [delay for channel in delays for delay in channel[len(channel) // 2:]]
                keeps_up = shown == said and max(late, default=math.inf) < 2000
                middle, high = ("none" if delay is None else f"{delay:.0f} ms"
                                for delay in (percentile(every, .5), percentile(every, .95)))
                print(f"| {count} | {name} | {middle} | {high} | {shown} of {said} | {processors:.3f} | "
                      f"{processors / count:.4f} | {'yes' if keeps_up else 'no'} |", flush=True)
                if errors:
                    print(f"errors: {sorted(set(errors))}")


main()
