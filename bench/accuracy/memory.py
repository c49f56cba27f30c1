"""Measures the memory of the helper and its worker against the number of channels."""

import time

import live
import sounds

CHANNELS = (0, 1, 2, 10)
IDLE = 65  # s; the worker ends after a minute without a session


def resident(meeting):
    """MB of the helper and of its workers."""
    pids = live.processes(meeting.pid)
    return live.resident_megabytes(pids[0]), sum(live.resident_megabytes(pid) for pid in pids[1:])


def measure(helper, environment, known):
    """By number of channels, and "a minute after" the last session: MB of the helper and of its workers."""
    speech = sounds.joined([recording for recording in known.values() if recording.name.startswith("librivox")][:2])
    found = {}
    for channels in CHANNELS:
        meeting = live.Meeting(helper, environment=environment)
        if channels == 0:
            meeting.wait_for("helper.status")
            found[0] = resident(meeting)
        else:
            sessions = [f"s{number}" for number in range((channels + 1) // 2)]
            sources = [(session, source) for session in sessions for source in ("remote", "self")][:channels]
            highest = []
            meeting.start(sessions)
            meeting.play(dict.fromkeys(sources, speech.samples),
                         lambda number: highest.append(resident(meeting)) if number % 10 == 9 else None)
            found[channels] = max(highest, key=sum)
            meeting.stop(sessions)
        if channels == CHANNELS[-1]:
            time.sleep(IDLE)
            found["a minute after"] = resident(meeting)
        meeting.end()
    return found


def table(found):
    names = [f"{name} channels" if isinstance(name, int) else name for name in found]
    rows = ["| MB resident | " + " | ".join(names) + " |", "|---|" + "---|" * len(names)]
    for index, process in enumerate(("helper", "worker")):
        rows.append(f"| {process} | " + " | ".join(f"{figures[index]:.1f}" for figures in found.values()) + " |")
    return "\n".join(rows)
