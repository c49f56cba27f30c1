"""Measures the memory of the helper and its worker against the number of channels."""

import dataclasses
import time

import live
import sounds

CHANNELS = (0, 1, 2, 10)
LONGEST_IDLE = 75  # s to wait for the end of the worker, which ends after a minute without a session


@dataclasses.dataclass
class Footprint:
    # MB of the helper and of its workers, by number of channels and "a minute after" the last session. Pages that processes
    # share count in part (PSS).
    megabytes: dict
    end_of_worker: float  # s from the end of the session; none: it still ran after LONGEST_IDLE


def speech_of(known):
    """Samples of two recordings."""
    return sounds.joined([recording for recording in known.values() if recording.name.startswith("librivox")][:2]).samples


def proportional_megabytes(meeting):
    pids = live.processes(meeting.pid)
    return live.proportional_megabytes(pids[0]), sum(live.proportional_megabytes(pid) for pid in pids[1:])


def wait_for_end_of_worker(meeting):
    begin = time.monotonic()
    while time.monotonic() < begin + LONGEST_IDLE:
        if len(live.processes(meeting.pid)) == 1:
            return time.monotonic() - begin
        time.sleep(.2)
    return None


def measure(helper, environment, samples, locale="en-US"):
    """Plays the same samples to each number of channels. The figures are the highest of all seconds."""
    found = Footprint({}, None)
    for channels in CHANNELS:
        meeting = live.Meeting(helper, locale=locale, environment=environment)
        if channels == 0:
            meeting.wait_for("helper.status")
            found.megabytes[0] = proportional_megabytes(meeting)
        else:
            sessions = [f"s{number}" for number in range((channels + 1) // 2)]
            sources = [(session, source) for session in sessions for source in ("remote", "self")][:channels]
            highest = []
            meeting.start(sessions)
            meeting.play(dict.fromkeys(sources, samples),
                         lambda number: highest.append(proportional_megabytes(meeting)) if number % 10 == 9 else None)
            found.megabytes[channels] = max(highest, key=sum)
            meeting.stop(sessions)
        if channels == CHANNELS[-1]:
            found.end_of_worker = wait_for_end_of_worker(meeting)
            found.megabytes["a minute after"] = proportional_megabytes(meeting)
        meeting.end()
    return found


def table(found):
    names = [f"{name} channels" if isinstance(name, int) else name for name in found.megabytes]
    rows = ["| MB (PSS) | " + " | ".join(names) + " |", "|---|" + "---|" * len(names)]
    for index, process in enumerate(("helper", "worker")):
        rows.append(f"| {process} | " + " | ".join(f"{figures[index]:.1f}" for figures in found.megabytes.values()) + " |")
    ended = f"ended {found.end_of_worker:.1f} s" if found.end_of_worker is not None else f"still ran {LONGEST_IDLE} s"
    return "\n".join(rows) + f"\n\nThe worker {ended} after the session."
