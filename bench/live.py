"""Plays sound to a helper as a host does, at the pace of a live meeting or as fast as it decodes, and keeps what it answers."""

import base64
import dataclasses
import json
import mmap
import os
import pathlib
import struct
import subprocess
import threading
import time

CHUNK = 1600  # frames, 100 ms at 16 kHz


@dataclasses.dataclass(frozen=True)
class Heard:
    """An event, and when it arrived."""
    at: float  # ms, in the clock of Meeting.begin
    event: dict


def processes(helper):
    """A helper and its speech workers."""
    try:
        children = pathlib.Path(f"/proc/{helper}/task/{helper}/children").read_text().split()
    except FileNotFoundError:
        return []
    return [helper] + [int(child) for child in children]


def resident_megabytes(pid):
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(text.split("VmRSS:")[1].split()[0]) / 1024


def proportional_megabytes(pid):
    """Resident memory in which a page that n processes share counts 1/n."""
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return int(text.split("\nPss:")[1].split()[0]) / 1024


def processor_seconds(pids):
    seconds = 0.0
    for pid in pids:
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        seconds += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return seconds


def switches(pids):
    """How often the threads of the processes have been given a processor, None while one of them runs or waits for one."""
    count = 0
    for pid in pids:
        for task in pathlib.Path("/proc").glob(f"{pid}/task/*/status"):
            try:
                text = task.read_text()
            except (FileNotFoundError, ProcessLookupError):  # the thread has ended
                continue
            if text.split("\nState:")[1].split()[0] != "S":
                return None
            count += sum(int(text.split(f"\n{kind}_ctxt_switches:")[1].split()[0]) for kind in ("voluntary", "nonvoluntary"))
    return count


def wait_for_rest(helper):
    """Waits until a helper and its workers have decoded all that they were given: until no thread runs in two looks and none did
    between them."""
    before = None
    while True:
        now = switches(processes(helper))
        if now is not None and now == before:
            return
        before = now
        time.sleep(.001)


def verdict_of(delay, limit, lateness):
    """Whether a program keeps up whose delay may be as long as the limit (all ms), None when the player's lateness decides that, and
    the text of a table for it. The delay is None when something is missing."""
    if delay is not None and delay <= limit:
        return True, "yes"
    if delay is None or delay - lateness > limit:
        return False, "no"
    return None, f"not judged: the player was {lateness:.0f} ms late"


class Clock:
    """A wall clock of a simulated helper, ms, in a file."""

    def __init__(self, path):
        self.path = path
        path.write_bytes(struct.pack("=d", 0))
        with path.open("r+b") as file:
            self._time = memoryview(mmap.mmap(file.fileno(), 8)).cast("d")
        self.set(round(time.time() * 1000))

    @property
    def time(self):
        return self._time[0]

    def set(self, time):
        self._time[0] = time


class Meeting:
    """One helper with sessions of live sources."""

    def __init__(self, helper, locale="en-US", environment=None, arguments=()):
        self.locale = locale
        self.heard = []
        self.begin = None  # ms, when the first sample of the streams was captured
        self._process = subprocess.Popen([helper, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         env={**os.environ, **(environment or {})})
        self.pid = self._process.pid
        self._arrived = threading.Condition()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            heard = Heard(time.time() * 1000, json.loads(line))
            with self._arrived:
                self.heard.append(heard)
                self._arrived.notify_all()

    def _send(self, **command):
        self._process.stdin.write(json.dumps(command).encode() + b"\n")

    def wait_for(self, type, count=1, timeout=60):
        """Waits for events of a type. False when the time is over."""
        with self._arrived:
            return self._arrived.wait_for(lambda: sum(heard.event["type"] == type for heard in self.heard) >= count, timeout)

    def start(self, sessions):
        for session in sessions:
            self._send(type="session.start", sessionId=session, locale=self.locale)
        self._process.stdin.flush()
        if not self.wait_for("session.ready", len(sessions)):
            raise RuntimeError("the helper is not ready: " + json.dumps([heard.event for heard in self.heard]))

    def play(self, streams, on_chunk=lambda number: None, clock=None):
        """Plays the streams, samples of 16 bit by (session, source), all from the same moment, until the longest one ends. Returns
        how late the latest chunk was sent (ms). With a clock, the helper's, it sets that to the time of each chunk when all before it
        have been decoded."""
        chunks = max((len(samples) + CHUNK - 1) // CHUNK for samples in streams.values())
        self.begin = clock.time if clock else time.time() * 1000
        lateness = 0
        for number in range(chunks):
            # A chunk is due when its last sample has been captured.
            if clock:
                wait_for_rest(self.pid)
                clock.set(self.begin + 100 * (number + 1))
            else:
                time.sleep(max(0, self.begin / 1000 + (number + 1) / 10 - time.time()))
            for (session, source), samples in streams.items():
                chunk = samples[number * CHUNK:(number + 1) * CHUNK]
                if chunk:
                    self._send(type="audio", sessionId=session, source=source, sequence=number,
                               capturedAt=self.begin + 100 * number, pcmBase64=base64.b64encode(chunk.tobytes()).decode())
            self._process.stdin.flush()
            if not clock:
                lateness = max(lateness, time.time() * 1000 - self.begin - 100 * (number + 1))
            on_chunk(number)
        return lateness

    def stop(self, sessions):
        for session in sessions:
            self._send(type="session.stop", sessionId=session)
        self._process.stdin.flush()
        self.wait_for("session.stopped", len(sessions))

    def end(self):
        """Ends the helper and returns its exit status."""
        self._process.stdin.close()
        status = self._process.wait()
        self._reader.join()
        self._process.stdout.close()
        return status

    def errors(self):
        return [heard.event["message"] for heard in self.heard if heard.event["type"] == "helper.error"]

    def utterances(self, session, source):
        """The utterances of a source, in order of their first event: a list of their partials and final each."""
        found = {}
        for heard in self.heard:
            event = heard.event
            if (event["type"] in ("transcript.partial", "transcript.final") and event["sessionId"] == session
                    and event["source"] == source):
                found.setdefault(event["utteranceId"], []).append(heard)
        return list(found.values())
