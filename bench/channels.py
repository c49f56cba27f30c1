"""Measures whether the helper keeps up with many people speaking at the same time, and what it uses: ten live channels (five
sessions with two sources each) in real time, on recordings of people.

Usage: channels.py HELPER [CHANNELS [SECONDS]]

A channel keeps up when the latency of its finals does not grow. The run takes SECONDS. The machine must be otherwise idle.
"""

import base64
import json
import os
import pathlib
import queue
import statistics
import subprocess
import sys
import threading
import time
import wave

DATA = pathlib.Path("/usr/share/pocketsphinx/test/data/librivox")
CHUNK = 1600  # frames, 100 ms at 16 kHz
PAUSE = bytes(2 * CHUNK * 12)  # after each recording; longer than the 900 ms that end an utterance


def recordings():
    audio = []
    for path in sorted(DATA.glob("*.wav")):
        with wave.open(str(path)) as file:
            audio.append(file.readframes(file.getnframes()))
    return audio


def processes(helper):
    """The helper and its speech workers."""
    return [helper] + [int(child) for child in
                       pathlib.Path(f"/proc/{helper}/task/{helper}/children").read_text().split()]


def processor_seconds(helper):
    seconds = 0.0
    for pid in processes(helper):
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        seconds += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return seconds


def resident_megabytes(helper):
    """Of the helper and of its workers, in that order."""
    return "+".join(f"{int(pathlib.Path(f'/proc/{pid}/status').read_text().split('VmRSS:')[1].split()[0]) / 1024:.0f}"
                    for pid in processes(helper))


def main():
    helper_path, channels, seconds = sys.argv[1], 10, 120
    if len(sys.argv) > 2:
        channels = int(sys.argv[2])
    if len(sys.argv) > 3:
        seconds = int(sys.argv[3])
    helper = subprocess.Popen([helper_path], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    events = queue.Queue()
    threading.Thread(target=lambda: [events.put(json.loads(line)) for line in helper.stdout], daemon=True).start()

    def send(**command):
        helper.stdin.write(json.dumps(command).encode() + b"\n")

    sources = [(f"s{channel // 2}", ("remote", "self")[channel % 2]) for channel in range(channels)]
    for session in sorted({session for session, _ in sources}):
        send(type="session.start", sessionId=session, locale="en-US")
    helper.stdin.flush()

    speech = recordings()
    # Each channel begins with another recording, so that they do not pause together.
    streams = [b"".join(part + PAUSE for part in speech[channel % len(speech):] + speech[:channel % len(speech)])
               for channel in range(channels)]
    begin, used, latencies, errors, memory = time.time(), None, [], [], []
    first = {}  # latency of each channel's first final
    for sequence in range(10 * seconds):
        time.sleep(max(0, begin + (sequence + 1) / 10 - time.time()))
        for (session, source), stream in zip(sources, streams):
            at = 2 * CHUNK * sequence % len(stream)
            send(type="audio", sessionId=session, source=source, sequence=sequence,
                 capturedAt=(begin + sequence / 10) * 1000, pcmBase64=base64.b64encode(stream[at:at + 2 * CHUNK]).decode())
        helper.stdin.flush()
        if sequence == 100:
            used = (time.time(), processor_seconds(helper.pid))  # everything is loaded
        if sequence % 300 == 299:
            memory.append(resident_megabytes(helper.pid))
        while not events.empty():
            event = events.get()
            if event["type"] == "transcript.final":
                latencies.append((time.time() - begin, event["latencyMs"]))
                first.setdefault((event["sessionId"], event["source"]), event["latencyMs"])
            if event["type"] == "helper.error":
                errors.append(event["message"])
    load = (processor_seconds(helper.pid) - used[1]) / (time.time() - used[0])
    helper.stdin.close()
    helper.wait()

    halves = [[latency for at, latency in latencies if (at < seconds / 2) == first] for first in (True, False)]
    print(f"| {channels} channels, {seconds} s | first half | second half |\n|---|---|---|")
    print("| finals |", " | ".join(str(len(half)) for half in halves), "|")
    for name, figure in (("median latency", statistics.median), ("longest latency", max)):
        print(f"| {name} |", " | ".join(f"{figure(half):.0f} ms" if half else "none" for half in halves), "|")
    print(f"| median latency of each channel's first final | {statistics.median(first.values()):.0f} ms | |" if first else "")
    print(f"\n{load:.2f} processors of {os.cpu_count()}, {load / channels:.3f} a channel; resident after each half minute: "
          f"{', '.join(memory)} MB; errors: {errors or 'none'}; exit status {helper.returncode}")


main()
