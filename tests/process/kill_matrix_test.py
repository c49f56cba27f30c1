"""Ends the helper and its worker in every way at every moment of a session, with real processes and a real model.

usage: kill_matrix_test.py HELPER [--table] [--sanitized]

After each way it checks the helper's status, that only whole lines were written, what the host still got, and that no process is
left. --table prints what happened as the table in docs/ends.md, with the time until the last process was gone. Programs with
sanitizers cannot be limited in address space or descriptors.
"""

import base64
import json
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import uuid

RECORDING = pathlib.Path("/usr/share/pocketsphinx/test/data/goforward.raw")
WORDS = "go forward ten meters"
PATIENCE = 30  # s, for what a busy machine needs; nothing takes a second on an idle one
MOMENTS = ["start", "loading", "speech", "stopping", "end"]
SIGNALS = [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGKILL]


def marked(mark):
    """The processes that have the mark in their environment, zombies left out."""
    found = {}
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            if mark.encode() in (entry / "environ").read_bytes():
                if (entry / "stat").read_text().rsplit(")", 1)[1].split()[0] != "Z":
                    found[int(entry.name)] = os.readlink(entry / "exe")
        except OSError:
            pass  # it has ended
    return found


class Conversation:
    def __init__(self, helper, limits=None, output=None, models=None):
        self.mark = f"PALAVER_TEST_MARK={uuid.uuid4()}"
        name, value = self.mark.split("=")
        environment = {**os.environ, name: value, "XDG_DATA_HOME": "/nonexistent"}  # PocketSphinx's model

        def limit():
            for kind, most in (limits or {}).items():
                resource.setrlimit(kind, (most, most))

        self.process = subprocess.Popen([helper], stdin=subprocess.PIPE, stdout=output or subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, env=environment, preexec_fn=limit if limits else None)
        self.bytes = b""
        self.is_reading = output is None
        self._changed = threading.Condition()
        self._reader = None
        if output is None:
            self._descriptor = os.dup(self.process.stdout.fileno())
            self.process.stdout.close()
            self._reader = threading.Thread(target=self._read, daemon=True)
            self._reader.start()

    def _read(self):
        while True:
            try:
                part = os.read(self._descriptor, 65536)
            except OSError:
                part = b""
            with self._changed:
                self.bytes += part
                self._changed.notify_all()
            if not part or not self.is_reading:
                break
        os.close(self._descriptor)

    @property
    def events(self):
        return [json.loads(line) for line in self.bytes[:self.bytes.rfind(b"\n") + 1].splitlines()]

    def types(self):
        return [event["type"] for event in self.events]

    def wait_for(self, condition):
        with self._changed:
            if not self._changed.wait_for(lambda: condition(self.events), PATIENCE):
                raise AssertionError(f"did not come: {self.events}")

    def wait_for_type(self, type, count=1):
        self.wait_for(lambda events: sum(event["type"] == type for event in events) >= count)

    def send(self, *commands):
        try:
            for command in commands:
                self.process.stdin.write(json.dumps(command).encode() + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            pass  # it was ended

    def start(self, session="s"):
        self.send({"type": "session.start", "sessionId": session, "locale": "en-US"})

    def speak(self, session="s"):
        self.send({"type": "audio", "sessionId": session, "source": "remote", "sequence": 1, "capturedAt": time.time() * 1000,
                   "pcmBase64": base64.b64encode(RECORDING.read_bytes()).decode()})

    def stop(self, session="s"):
        self.send({"type": "session.stop", "sessionId": session})

    def close_input(self):
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass

    def close_output(self):
        """Closes the host's end of the helper's output: the reader takes one more event and leaves."""
        self.is_reading = False
        self.send({"type": "ping"})
        self._reader.join()

    def advance_to(self, moment):
        if moment == "start":
            return
        self.wait_for_type("helper.status")
        self.start()
        self.wait_for_type("session.ready")
        if moment == "loading":
            return
        self.speak()
        if moment == "speech":
            self.wait_for_type("transcript.partial")
        elif moment == "stopping":
            self.stop()
        else:
            self.close_input()

    def worker(self):
        """The process of the worker, once it has started."""
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            for pid, program in marked(self.mark).items():
                if pathlib.Path(program).name == "PalaverSpeechWorker":
                    return pid
        raise AssertionError("there is no worker")

    def end(self):
        """Waits for the helper's end. Returns its status and the seconds until the last process was gone."""
        status = self.process.wait(PATIENCE)
        ended = time.monotonic()
        while left := marked(self.mark):
            if time.monotonic() - ended > PATIENCE:
                raise AssertionError(f"left behind: {left}")
        gone = time.monotonic() - ended
        if self._reader:
            self._reader.join()
        self.close_input()
        return status, gone

    def check_lines(self):
        if not self.bytes:
            return
        assert self.bytes.endswith(b"\n"), f"a torn line: {self.bytes[-200:]!r}"
        self.events  # throws unless each line is an object

    def heard(self, session):
        return any(event.get("text") == WORDS and event.get("sessionId") == session for event in self.events)

    def newest(self):
        """What the host has of the words."""
        finals = [event["text"] for event in self.events if event["type"] == "transcript.final"]
        partials = [event["text"] for event in self.events if event["type"] == "transcript.partial"]
        return f"final: {finals[-1]}" if finals else f"partial: {partials[-1]}" if partials else "no words"


def end_by_signal(helper, moment, number):
    """The helper ends at once; words that are not final are lost."""
    conversation = Conversation(helper)
    conversation.advance_to(moment)
    conversation.process.send_signal(number)
    status, gone = conversation.end()
    conversation.check_lines()
    # At the end the helper may have been faster than the signal.
    assert status == -number or (moment == "end" and status == 0), status
    return status, gone, conversation.newest()


def end_by_closing(helper, moment, streams):
    """The helper stops its sessions, with their finals if anybody reads them."""
    conversation = Conversation(helper)
    conversation.advance_to(moment)
    if "output" in streams:
        if moment == "end":
            conversation.is_reading = False
        else:
            conversation.close_output()
    conversation.close_input()
    status, gone = conversation.end()
    assert status == 0, status
    if "output" not in streams:
        conversation.check_lines()
        # What a partial showed becomes final. The first partial holds only the first words.
        if moment == "speech":
            partials = [event["text"] for event in conversation.events if event["type"] == "transcript.partial"]
            assert conversation.newest() == f"final: {partials[-1]}", conversation.events
    return status, gone, conversation.newest()


def end_unread(helper, moment):
    """A host that stops reading and closes the input: the helper ends all the same."""
    conversation = Conversation(helper)
    conversation.advance_to(moment)
    if moment != "end":
        # The pipe is full long before all answers are written, and nobody empties it.
        conversation.is_reading = False
        conversation.send(*({"type": "ping"} for _ in range(2000)))
    conversation.close_input()
    status, gone = conversation.end()
    assert status == 0, status
    return status, gone, conversation.newest()


def update(helper):
    """Helper and worker are replaced by renaming while they run, and the worker is started again."""
    with tempfile.TemporaryDirectory() as folder:
        programs = [pathlib.Path(helper), pathlib.Path(helper).with_name("PalaverSpeechWorker")]
        for program in programs:
            shutil.copy2(program, folder)

        def replace():
            for program in programs:
                new = pathlib.Path(folder) / (program.name + ".new")
                shutil.copy2(program, new)
                new.replace(pathlib.Path(folder) / program.name)
        return worker_ends(str(pathlib.Path(folder) / programs[0].name), "speech", signal.SIGTERM, replace)


def worker_ends(helper, moment, number, before=lambda: None):
    """The helper goes on: one error, the newest words become the final, and the next words are heard by a new worker."""
    conversation = Conversation(helper)
    conversation.advance_to(moment)
    worker = conversation.worker()
    before()
    os.kill(worker, number)
    if moment == "speech":
        conversation.wait_for_type("transcript.final")
    if moment == "stopping":
        conversation.wait_for_type("session.stopped")
    if moment != "end":
        conversation.start("again")
        conversation.wait_for_type("session.ready", 2)
        conversation.speak("again")

        def is_heard_or_failed(events):
            return any(event.get("text") == WORDS or event["type"] == "helper.error" for event in events
                       if event.get("sessionId") == "again")
        conversation.wait_for(is_heard_or_failed)
        if not conversation.heard("again"):
            # The words went to the worker that was ending, and the error says so. The next ones do not.
            conversation.speak("again")
            conversation.wait_for(lambda events: conversation.heard("again"))
        conversation.close_input()
    status, gone = conversation.end()
    conversation.check_lines()
    assert status == 0, status
    first = [event["text"] for event in conversation.events if event["type"] == "transcript.final" and event["sessionId"] == "s"]
    errors = [event["message"] for event in conversation.events if event["type"] == "helper.error"]
    assert len(errors) <= 1, errors
    if moment == "speech":
        assert first, conversation.events
    return status, gone, (f"final: {first[-1]}" if first else "no words") + (f"; error: {errors[0]}" if errors else "")


def limited(helper, limits):
    """The helper cannot start its worker, or the worker cannot load: one error, and the helper goes on."""
    conversation = Conversation(helper, limits)
    conversation.start()
    conversation.speak()
    conversation.wait_for_type("helper.error")
    conversation.close_input()
    status, gone = conversation.end()
    conversation.check_lines()
    assert status == 0, status
    errors = [event["message"] for event in conversation.events if event["type"] == "helper.error"]
    assert len(errors) == 1, errors
    return status, gone, f"{conversation.newest()}; error: {errors[0]}"


def worker_limited(helper, kind, most):
    """The worker runs out of something while it hears: one more channel needs it."""
    conversation = Conversation(helper)
    conversation.advance_to("speech")
    resource.prlimit(conversation.worker(), kind, (most, most))
    for number in range(4):
        conversation.start(f"more {number}")
        conversation.speak(f"more {number}")
    # Each is heard, or its task ends with an error.
    conversation.wait_for(lambda events: all(any(
        event.get("sessionId") == f"more {number}" and (event["type"] == "helper.error" or event.get("text") == WORDS)
        for event in events) for number in range(4)))
    conversation.close_input()
    status, gone = conversation.end()
    conversation.check_lines()
    assert status == 0, status
    errors = {event["message"] for event in conversation.events if event["type"] == "helper.error"}
    return status, gone, conversation.newest() + "".join(f"; error: {error}" for error in sorted(errors))


def full_disk(helper):
    """The output cannot be written: the helper goes on without it."""
    with open("/dev/full", "wb") as full:
        conversation = Conversation(helper, output=full)
        conversation.start()
        conversation.speak()
        conversation.close_input()
        status, gone = conversation.end()
    assert status == 0, status
    return status, gone, "no events"


def ways(helper):
    """Each way as its names and what runs it."""
    for moment in MOMENTS:
        for number in SIGNALS:
            yield f"helper gets {number.name}", moment, lambda m=moment, n=number: end_by_signal(helper, m, n)
        for streams in (["input"], ["output", "input"]):
            yield f"host closes {' and '.join(streams)}", moment, lambda m=moment, s=streams: end_by_closing(helper, m, s)
        yield "host reads nothing, closes input", moment, lambda m=moment: end_unread(helper, m)
    for moment in ("loading", "speech", "stopping"):
        for number in SIGNALS:
            yield f"worker gets {number.name}", moment, lambda m=moment, n=number: worker_ends(helper, m, n)
    yield "files are replaced, worker gets SIGTERM", "speech", lambda: update(helper)
    yield "output on a full disk", "start", lambda: full_disk(helper)
    if "--sanitized" in sys.argv:
        return
    yield "helper has 80 MB of address space", "start", lambda: limited(helper, {resource.RLIMIT_AS: 80_000_000})
    yield "helper has 6 descriptors", "start", lambda: limited(helper, {resource.RLIMIT_NOFILE: 6})
    yield "worker has no more memory", "speech", lambda: worker_limited(helper, resource.RLIMIT_AS, 1_000_000)
    yield "worker has no more descriptors", "speech", lambda: worker_limited(helper, resource.RLIMIT_NOFILE, 0)


def main():
    helper = sys.argv[1]
    with_table = "--table" in sys.argv
    failures = []
    if with_table:
        print("| what happens | when | status | the host has | last process gone after |\n|---|---|---|---|---|")
    for name, moment, run in ways(helper):
        try:
            status, gone, host = run()
        except AssertionError as failure:
            failures.append(f"{name}, {moment}: {failure}")
            print(f"FAILED: {failures[-1]}", flush=True)
            continue
        if with_table:
            shown = signal.Signals(-status).name if status < 0 else status
            print(f"| {name} | {moment} | {shown} | {host} | {1000 * gone:.0f} ms |", flush=True)
    if failures:
        sys.exit(f"{len(failures)} ways failed")
    print("all ways end as they should")


main()
