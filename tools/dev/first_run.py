#!/usr/bin/env python3
"""Goes through the first run on a Mac and writes one report that answers the open questions of docs/platforms.md.

usage: first_run.py --helper PATH [options]

  --helper PATH        the helper to try
  --locale LOCALE      the language of the sessions (ja-JP)
  --recording FILE     16 kHz mono WAV files with speech, one for each source; made with the system's `say` if not given.
                       Their words stay out of the report
  --words-in-report    the words of these recordings may be in the report
  --authorize          ask for the permission, which may show a prompt
  --no-install         do not install a missing model
  --long SECONDS       the length of the speech without a pause (70)
  --build-log FILE     the log of the helper's build
  --missing-step       only print what the user has to do before the helper can transcribe
  --report FILE        the report (first-run-report.txt); created anew with mode 0600

Every step runs, also after one that fails. The report holds what each step showed, and for each question what was seen or why
nothing was. Nothing is sent anywhere. Exits with 0 when every step that could run showed what is expected, with 1 when one
did not, with 2 for invalid arguments.
"""
import argparse
import base64
import json
import os
import pathlib
import platform
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import wave

ROOT = pathlib.Path(__file__).resolve().parents[2]
RATE = 16000  # Hz
CHUNK_MS = 100
ANSWER_S = 60  # longest wait for an event
SLOW_S = 20  # longest wait for a final after the speech
PROMPT_S = 120  # longest wait for the user's answer
INSTALL_S = 1800
SPOKEN = {"ja": ("Kyoko", ["会議を始めます。今日の議題は予算です。", "来週の金曜日までに資料を送ってください。"]),
          "en": ("Samantha", ["Let us begin the meeting. Today we talk about the budget.",
                              "Please send the documents by Friday of next week."])}

# The open questions of docs/platforms.md, by number, in short.
QUESTIONS = {
    1: "Do two on-device recognitions run at the same time (before macOS 26)?",
    2: "Does the permission prompt appear, and name the helper?",
    3: "Which error does the recognizer give when Dictation is off?",
    4: "Do results reach a Dictation probe that runs inside a command?",
    5: "Do partial results carry times?",
    6: "Does a recognition of more than a minute continue, and does its text restart?",
    7: "What happens when an analyzer is finished without audio, or after its results failed?",
    8: "After an installation, does a new process see the model at once?",
    9: "Which terms does the system use for the states of a model?",
    10: "What happens for an empty sound file?",
    11: "Is the analyzer's own format 16 kHz mono 16-bit?",
    12: "Does a vocabulary have an effect?",
    13: "Do four analyzers work at the same time?",
    14: "Does a new process need its locale reserved again?",
    15: "Does the Swift file compile on a Mac?",
    16: "How do results end after a cancellation?",
    17: "Are chunks of 100 ms accepted?",
}


class Problem(Exception):
    """A step did not show what is expected."""


class NotTried(Exception):
    """A step could not run here."""


class Helper:
    """The helper as the child of a host. Events are read on a thread of their own."""

    def __init__(self, path, *arguments, **environment):
        self.process = subprocess.Popen([path, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, env={**os.environ, **environment})
        self.events, self.seen, self.trace = queue.Queue(), [], []
        for read in (self._read_events, self._read_trace):
            threading.Thread(target=read, daemon=True).start()

    def _read_events(self):
        for line in self.process.stdout:
            try:
                event = json.loads(line)
            except ValueError:
                event = {"type": "unreadable", "line": line.decode(errors="replace").rstrip()}
            self.events.put((time.monotonic(), event))
        self.events.put((time.monotonic(), None))

    def _read_trace(self):
        for line in self.process.stderr:
            self.trace.append(line.decode(errors="replace").rstrip())

    def send(self, **command):
        try:
            self.process.stdin.write(json.dumps(command).encode() + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            raise Problem("the helper has ended") from None

    def next(self, timeout=ANSWER_S):
        """The time and the next event, or None at the end. Raises queue.Empty after `timeout` seconds."""
        when, event = self.events.get(timeout=timeout)
        if event is not None:
            self.seen.append((when, event))
        return when, event

    def wait_for(self, *types, timeout=ANSWER_S):
        deadline = time.monotonic() + timeout
        while True:
            try:
                when, event = self.next(max(0.01, deadline - time.monotonic()))
            except queue.Empty:
                raise Problem(f"no {' or '.join(types)} within {timeout} s") from None
            if event is None:
                raise Problem(f"the helper ended before a {' or '.join(types)}")
            if event["type"] in types:
                return when, event

    def rest(self, timeout=ANSWER_S):
        """Ends the input and reads all that follows. Returns the exit status."""
        self.process.stdin.close()
        deadline = time.monotonic() + timeout
        try:
            while self.next(max(0.01, deadline - time.monotonic()))[1] is not None:
                pass
            return self.process.wait(timeout=5)
        except (queue.Empty, subprocess.TimeoutExpired):
            raise Problem(f"the helper did not end within {timeout} s of the end of its input") from None

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()  # ends the second process as well
            try:
                self.process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def run(command, timeout=ANSWER_S, **options):
    """The exit status and the output of a program."""
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=timeout, errors="replace", text=True, **options)
        return done.returncode, done.stdout.strip()
    except subprocess.TimeoutExpired:
        raise Problem(f"{command[0]} did not end within {timeout} s") from None
    except OSError as error:
        raise Problem(f"{command[0]}: {error.strerror}") from None


def children_of(process):
    """The ids of the processes that this one has started."""
    done = subprocess.run(["pgrep", "-P", str(process)], stdout=subprocess.PIPE, text=True, check=False)
    return [int(line) for line in done.stdout.split()]


def is_alive(process):
    try:
        os.kill(process, 0)
        return True
    except ProcessLookupError:
        return False


def samples_of(path):
    with wave.open(str(path)) as recording:
        if (recording.getframerate(), recording.getnchannels(), recording.getsampwidth()) != (RATE, 1, 2):
            raise ValueError(f"{path} is not a 16 kHz mono recording with 16 bits")
        return recording.readframes(recording.getnframes())


def write_wave(path, samples):
    with wave.open(str(path), "wb") as recording:
        recording.setnchannels(1)
        recording.setsampwidth(2)
        recording.setframerate(RATE)
        recording.writeframes(samples)


def chunks_of(samples):
    size = RATE * CHUNK_MS // 1000 * 2
    return [samples[at:at + size] for at in range(0, len(samples), size)]


def missing_step(status, helper):
    """What the user has to do next before the helper can transcribe, for a helper.status; None if nothing."""
    if status.get("available"):
        return None
    step = {"not-determined": f"it needs the permission: run {helper} --authorize, in a login session with a screen",
            "denied": "the permission is denied: grant it in System Settings > Privacy & Security > Speech Recognition",
            "restricted": "the permission is restricted: the administrator of this Mac has to allow it"}.get(
                status.get("authorization"))
    if step:
        return step
    if status.get("dictation") == "disabled":
        return "Dictation is off: turn it on in System Settings > Keyboard > Dictation"
    if status.get("status") == "unavailable":
        return "this Mac has no transcriber for the language, like a virtual machine or an unsupported Mac"
    if status.get("implementation") == "speech-analyzer":
        return f"the model is missing: run {helper} --install-assets while online"
    return "the model is missing: turn on Dictation for the language, and let its model download"


def print_missing_step(helper):
    """Prints nothing when nothing is missing. Returns the exit status."""
    with Helper(os.path.abspath(helper), "--health") as child:
        _, status = child.wait_for("helper.status")
    step = missing_step(status, helper)
    if step:
        print(step)
    return 0


class FirstRun:
    def __init__(self, options, folder):
        self.options, self.folder = options, folder
        self.helper = os.path.abspath(options.helper)
        self.status = {}  # the latest helper.status
        self.errors = []  # texts of helper.error
        self.model_terms = set()
        self.answers = {}
        self.lines = []
        self.failed = False
        self.missing = None  # what keeps the helper from transcribing
        self.recordings = []
        self.may_show_words = not options.recording or options.words_in_report

    # Reporting

    def say(self, text):
        print(text, flush=True)
        self.lines.append(text)

    def answer(self, question, text):
        self.answers[question] = text

    def words(self, text):
        return f'"{text}"' if self.may_show_words else f"{len(text.split())} words"

    def step(self, name, action):
        started = time.monotonic()
        try:
            seen, verdict = action(), "as expected"
        except NotTried as reason:
            seen, verdict = str(reason), "not tried"
        except Problem as problem:
            seen, verdict, self.failed = str(problem), "DIFFERS", True
        except (OSError, ValueError, KeyError) as error:
            seen, verdict, self.failed = f"{type(error).__name__}: {error}", "DIFFERS", True
        self.say(f"{name}: {verdict} ({time.monotonic() - started:.1f} s)")
        for line in str(seen or "").splitlines():
            self.say(f"    {line}")

    def note(self, events):
        for event in events:
            if event["type"] == "helper.status":
                self.status = event
                if "modelStatus" in event:
                    self.model_terms.add(event["modelStatus"])
            elif event["type"] == "helper.model":
                self.model_terms.add(event["status"])
            elif event["type"] == "helper.error":
                self.errors.append(event["message"])

    @property
    def has_analyzer(self):
        return self.status.get("implementation") == "speech-analyzer"

    def need_ready(self):
        self.missing = missing_step(self.status, self.options.helper)
        if self.missing:
            raise NotTried(self.missing)

    # Steps

    def machine(self):
        seen = [f"{platform.system()} {platform.release()} {platform.machine()}"]
        for command in (["sw_vers"], ["xcodebuild", "-version"], ["xcrun", "--sdk", "macosx", "--show-sdk-version"],
                        ["sysctl", "-n", "machdep.cpu.brand_string", "kern.hv_vmm_present"], ["defaults", "read", "-g", "AppleLocale"]):
            if shutil.which(command[0]) and platform.system() == "Darwin":
                seen.append(f"{' '.join(command)}: {' '.join(run(command)[1].split())}")
        return "\n".join(seen)

    def build(self):
        log = self.options.build_log
        if not log:
            raise NotTried("the helper was built elsewhere")
        text = pathlib.Path(log).read_text(errors="replace")
        line = re.search(r"-- (WITH.*|With SpeechAnalyzer.*)", text)
        seen = line[1] if line else "the log does not say whether the analyzer is included"
        if line and line[1].startswith("With SpeechAnalyzer"):
            self.answer(15, "yes, with warnings as errors")
        elif line:
            self.answer(15, f"not tried: {line[1]}")
        return seen

    def binary(self):
        with open(self.helper, "rb") as file:
            if file.read(4) != b"\xcf\xfa\xed\xfe":
                raise NotTried("not a program for macOS")
        status, output = run([sys.executable, str(ROOT / "tools/check-macho"), self.helper])
        if status != 0:
            raise Problem(output)
        status, symbols = run(["nm", "-u", self.helper]) if shutil.which("nm") else (1, "")
        if status == 0:
            found = "SpeechAnalyzer" in symbols
            output += f"\nSpeechAnalyzer is {'in' if found else 'NOT in'} the symbols that it imports"
        return output

    def signature(self):
        if not shutil.which("codesign"):
            raise NotTried("there is no codesign here")
        status, output = run(["codesign", "-dvv", self.helper])
        keep = [line for line in output.splitlines()
                if re.match(r"(Identifier|Format|CodeDirectory|Signature|Authority|TeamIdentifier|Info\.plist|Runtime)", line)]
        if status != 0 or not re.search(r"Info\.plist entries=\d", output):
            raise Problem("\n".join(keep or [output]))
        return "\n".join(keep)

    def start(self):
        with Helper(self.helper) as helper:
            status = helper.rest()
            events = [event for _, event in helper.seen]
        self.note(events)
        seen = "\n".join(json.dumps(event, ensure_ascii=False, sort_keys=True) for event in events)
        if status != 0 or not events or events[0]["type"] != "helper.status":
            raise Problem(f"{seen}\nexit status {status}")
        return f"{seen}\nexit status 0"

    def second_process(self):
        with Helper(self.helper) as helper:
            helper.send(type="ping", sentAt=0)
            helper.wait_for("pong")
            children = children_of(helper.process.pid)
            if platform.system() != "Darwin":
                return f"{len(children)} children; only macOS has a second process"
            if len(children) != 1:
                raise Problem(f"{len(children)} children instead of one: the responsibility is not disclaimed")
            helper.process.send_signal(signal.SIGTERM)
            status = helper.process.wait(timeout=10)
            self.wait_until_gone(children)
            return f"one child; both gone after SIGTERM, exit status {status}"

    @staticmethod
    def wait_until_gone(processes):
        deadline = time.monotonic() + 10
        while any(is_alive(process) for process in processes):
            if time.monotonic() > deadline:
                raise Problem("the second process is still there 10 s after the end of the first")
            threading.Event().wait(0.05)

    def permission(self):
        if not self.options.authorize:
            raise NotTried("it was not asked for: --authorize")
        with Helper(self.helper, "--authorize") as helper:
            helper.process.stdin.close()
            started = time.monotonic()
            try:
                when, event = helper.wait_for("helper.authorization", timeout=PROMPT_S)
            except Problem as problem:
                status = helper.process.poll()
                self.answer(2, f"no: {problem}" + (f", exit status {status}" if status is not None else ""))
                raise
            status = helper.process.wait(timeout=10)
        took = when - started
        self.answer(2, f"answered {event['status']} after {took:.1f} s; more than a second means that a prompt was shown. "
                       "Add to this report which program it named")
        return f"{json.dumps(event, sort_keys=True)} after {took:.1f} s, exit status {status}"

    def health(self):
        with Helper(self.helper, "--health") as helper:
            status = helper.rest()
            events = [event for _, event in helper.seen]
        self.note(events)
        seen = "\n".join(json.dumps(event, ensure_ascii=False, sort_keys=True) for event in events)
        if len(events) != 1 or events[0]["type"] != "helper.status":
            raise Problem(f"{seen}\nexit status {status}")
        expected = 1 if events[0]["status"] == "unavailable" else 0
        if status != expected:
            raise Problem(f"{seen}\nexit status {status} instead of {expected}")
        return f"{seen}\nexit status {status}"

    def model(self):
        if not self.has_analyzer:
            raise NotTried("before macOS 26 the system installs the model")
        if self.options.no_install:
            raise NotTried("it was not asked for: --no-install")
        with Helper(self.helper, "--install-assets", self.options.locale) as helper:
            status = helper.rest(INSTALL_S)
            events = [event for _, event in helper.seen]
        self.note(events)
        terms = [event.get("status") or event.get("message") for event in events]
        if status != 0:
            raise Problem(f"{' > '.join(terms)}; exit status {status}")
        with Helper(self.helper, "--health") as helper:
            helper.rest()
            after = [event for _, event in helper.seen]
        self.note(after)
        new = after[0].get("modelStatus") if after else "nothing"
        downloaded = "downloading" in terms
        self.answer(8, f"a new process reports {new}" + ("" if downloaded else "; the model was there before"))
        if downloaded and new != "installed" and self.options.locale == "ja-JP":
            raise Problem(f"{' > '.join(terms)}; a new process reports {new}")
        return f"{' > '.join(terms)}; a new process reports {new}"

    def make_recordings(self):
        if self.options.recording:
            self.recordings = [samples_of(path) for path in self.options.recording]
            if len(self.recordings) == 1:
                self.recordings *= 2
            return f"{len(self.options.recording)} given"
        if not shutil.which("say"):
            raise NotTried("there is no `say` here: --recording FILE")
        voice, texts = SPOKEN.get(self.options.locale[:2], SPOKEN["en"])
        for number, text in enumerate(texts):
            path = self.folder / f"{number}.wav"
            status, output = run(["say", "-v", voice, "-o", str(path), f"--data-format=LEI16@{RATE}", text])
            if status != 0:
                raise Problem(f"say: {output}")
            self.recordings.append(samples_of(path))
        return "\n".join(f"{voice}: {text}" for text in texts)

    def need_recordings(self):
        self.need_ready()
        if not self.recordings:
            raise NotTried("there are no recordings")

    def research(self, recording, vocabulary):
        path, words = self.folder / "research.wav", self.folder / "vocabulary.json"
        write_wave(path, recording)
        words.write_text(json.dumps(vocabulary))
        with Helper(self.helper, "--research-transcribe-file", str(path), str(words)) as helper:
            status = helper.rest(ANSWER_S + len(recording) / 2 / RATE)
            events = [event for _, event in helper.seen]
        self.note(events)
        finals = [event["text"] for event in events if event["type"] == "transcript.final"]
        return status, finals, [event["message"] for event in events if event["type"] == "helper.error"]

    def one_recording(self):
        if not self.has_analyzer:
            raise NotTried("it requires macOS 26")
        self.need_recordings()
        status, finals, errors = self.research(self.recordings[0], [])
        if status != 0 or not finals:
            raise Problem(f"{errors or 'no text'}; exit status {status}")
        other = self.research(self.recordings[0], ["予算", "議題"] if self.options.locale.startswith("ja") else ["budget"])[1]
        self.answer(12, "the text is the same with and without a vocabulary of its words" if other == finals else
                    "the text differs with a vocabulary of its words")
        return self.words(" ".join(finals))

    def empty_recording(self):
        if not self.has_analyzer:
            raise NotTried("it requires macOS 26")
        self.need_ready()
        status, finals, errors = self.research(b"", [])
        self.answer(10, f"exit status {status}, {len(finals)} finals" + (f", {errors[0]}" if errors else ""))
        if status != 0:
            raise Problem(self.answers[10])
        return self.answers[10]

    def converse(self, sessions, audio, pace=1.0):
        """Streams audio, one entry for each (session, source), as a host does. Returns the helper's events and trace."""
        with Helper(self.helper, PALAVER_STT_DEBUG="1") as helper:
            ready_after = []
            for session in sessions:
                started = time.monotonic()
                helper.send(type="session.start", sessionId=session, locale=self.options.locale)
                when, event = helper.wait_for("session.ready", "helper.error")
                if event["type"] == "helper.error":
                    raise Problem(event["message"])
                ready_after.append(when - started)
            streams = {key: chunks_of(samples + b"\0\0" * (2 * RATE)) for key, samples in audio.items()}
            captured = time.time() * 1000
            began = time.monotonic()
            for index in range(max(len(chunks) for chunks in streams.values())):
                for (session, source), chunks in streams.items():
                    if index < len(chunks):
                        helper.send(type="audio", sessionId=session, source=source, sequence=index,
                                    capturedAt=captured + index * CHUNK_MS, pcmBase64=base64.b64encode(chunks[index]).decode())
                # The pace of a microphone.
                rest = began + (index + 1) * CHUNK_MS / 1000 * pace - time.monotonic()
                if rest > 0:
                    threading.Event().wait(rest)
            if not self.has_analyzer:
                self.stream_quiet(helper, streams, captured, began)
            for session in sessions:
                helper.send(type="session.stop", sessionId=session)
            for session in sessions:
                helper.wait_for("session.stopped")
            if self.has_analyzer:
                self.wait_for_quiet(helper)
            status = helper.rest()
            events = [event for _, event in helper.seen]
            self.note(events)
            if status != 0:
                raise Problem(f"exit status {status}")
            return events, list(helper.trace), captured, ready_after

    @staticmethod
    def stream_quiet(helper, streams, captured, began):
        """Goes on with quiet, as a host does, until each source has a final: a slow recognizer has no text before."""
        waiting, taken = set(streams), 0
        index = max(len(chunks) for chunks in streams.values())
        quiet = base64.b64encode(b"\0\0" * (RATE * CHUNK_MS // 1000)).decode()
        for index in range(index, index + SLOW_S * 1000 // CHUNK_MS):
            try:
                while helper.next(max(0.001, began + index * CHUNK_MS / 1000 - time.monotonic()))[1] is not None:
                    pass
                return  # the helper has ended
            except queue.Empty:
                pass
            for _, event in helper.seen[taken:]:
                if event["type"] == "transcript.final":
                    waiting.discard((event["sessionId"], event["source"]))
            taken = len(helper.seen)
            if not waiting:
                return
            for session, source in streams:
                helper.send(type="audio", sessionId=session, source=source, sequence=index,
                            capturedAt=captured + index * CHUNK_MS, pcmBase64=quiet)

    @staticmethod
    def wait_for_quiet(helper):
        """Finals follow session.stopped. They have arrived when nothing did for five seconds."""
        try:
            while helper.next(5)[1] is not None:
                pass
        except queue.Empty:
            pass

    def finals_of(self, events, keys):
        texts = {key: [] for key in keys}
        for event in events:
            if event["type"] == "transcript.final":
                texts[(event["sessionId"], event["source"])].append(event["text"])
        return texts

    def error_codes(self, trace):
        """Domain, code and text of the recognizer's errors in the helper's trace."""
        return sorted({match[1] for line in trace if (match := re.search(r" error=(\S+#-?\d+ .*?) lastText=", line))})

    def both_sources(self):
        self.need_recordings()
        keys = [("a", "remote"), ("a", "self")]
        events, trace, captured, ready_after = self.converse(["a"], dict(zip(keys, self.recordings)))
        texts = self.finals_of(events, keys)
        errors = sorted({event["message"] for event in events if event["type"] == "helper.error"})
        silent = [source for (_, source), words in texts.items() if not words]
        latencies = [event["latencyMs"] for event in events if event["type"] == "transcript.final"]
        seen = [f"{source}: {self.words(' '.join(words))}" for (_, source), words in texts.items()]
        seen.append(f"session.ready after {ready_after[0] * 1000:.0f} ms; latencyMs of finals: "
                    + (", ".join(f"{latency:.0f}" for latency in latencies) or "none"))
        seen += errors + self.error_codes(trace)
        outcome = "finals of both sources" if not silent else f"no finals of {' and '.join(silent)}"
        if not self.has_analyzer:
            self.answer(1, outcome + ("" if not self.error_codes(trace) else f"; errors: {', '.join(self.error_codes(trace))}"))
        self.note_times(events, captured)
        if self.has_analyzer:
            refused = [error for error in errors if "input failed" in error]
            self.answer(17, "no: " + refused[0] if refused else "yes, none was refused")
            self.answer(14, "yes: " + refused[0] if any("allocated" in e or "subscribed" in e for e in errors)
                        else "no error about a reservation in a new process; the helper reserves in each process")
        if silent or errors:
            raise Problem("\n".join([outcome, *seen]))
        return "\n".join(seen)

    def note_times(self, events, captured):
        partials = [event for event in events if event["type"] == "transcript.partial"]
        finals = [event for event in events if event["type"] == "transcript.final"]
        if not partials or not finals:
            return
        at_start = sum(abs(event["startedAt"] - captured) < 1 for event in partials)
        first = min(event["startedAt"] for event in finals) - captured
        self.answer(5, f"{at_start} of {len(partials)} partials start at the start of the audio; the first final starts "
                       f"{first:.0f} ms after it")

    def long_speech(self):
        self.need_recordings()
        # Without the quiet at both ends, so that no pause is in the speech.
        speech = self.without_quiet(self.recordings[0])
        seconds = self.options.long
        repeated = speech * (seconds * RATE * 2 // len(speech) + 1)
        events, trace, captured, _ = self.converse(["a"], {("a", "remote"): repeated[:seconds * RATE * 2]})
        texts = [event for event in events if event["type"].startswith("transcript.")]
        if not texts:
            raise Problem("no text")
        last = max(event.get("speechEndedAt", event["transcribedAt"]) for event in texts) - captured
        restarts = 0
        before = {}
        for event in texts:
            length = len(event["text"])
            if event["type"] == "transcript.partial" and length < before.get(event["utteranceId"], 0) / 2:
                restarts += 1
            before[event["utteranceId"]] = length
        times = sorted(event["transcribedAt"] - captured for event in texts)
        gap = max(after - earlier for earlier, after in zip([0] + times, times))
        errors = sorted({event["message"] for event in events if event["type"] == "helper.error"})
        finals = sum(event["type"] == "transcript.final" for event in texts)
        seen = (f"{seconds} s of speech: {len(texts)} texts, {finals} finals, the last at {last / 1000:.1f} s, longest gap "
                f"{gap / 1000:.1f} s, {restarts} restarts of a partial text")
        self.answer(6, seen + ("" if not errors else f"; {errors[0]}"))
        if errors or last < (seconds - 10) * 1000:
            raise Problem("\n".join([seen, *errors, *self.error_codes(trace)]))
        return seen

    @staticmethod
    def without_quiet(samples):
        frames = memoryview(samples).cast("h")
        loud = [at for at in range(0, len(frames) - 160, 160) if max(frames[at:at + 160], key=abs) not in range(-300, 301)]
        return samples[2 * loud[0]:2 * loud[-1] + 320] if loud else samples

    def four_sessions(self):
        if not self.has_analyzer:
            raise NotTried("it is a question about analyzers, macOS 26")
        self.need_recordings()
        keys = [(session, source) for session in "abcd" for source in ("remote", "self")]
        events, _, _, _ = self.converse(list("abcd"), {key: self.recordings[i % 2] for i, key in enumerate(keys)})
        texts = self.finals_of(events, keys)
        silent = [f"{session}/{source}" for (session, source), words in texts.items() if not words]
        errors = sorted({event["message"] for event in events if event["type"] == "helper.error"})
        outcome = f"{len(keys) - len(silent)} of {len(keys)} sources have finals" + (f"; {errors[0]}" if errors else "")
        self.answer(13, outcome)
        if silent:
            raise Problem(outcome)
        return outcome

    def ends_in_session(self):
        with Helper(self.helper) as helper:
            helper.send(type="session.start", sessionId="a", locale=self.options.locale)
            helper.send(type="ping", sentAt=0)
            helper.wait_for("pong")
            processes = [helper.process.pid, *children_of(helper.process.pid)]
            helper.process.send_signal(signal.SIGTERM)
            status = helper.process.wait(timeout=10)
            self.wait_until_gone(processes[1:])
            return f"{len(processes)} processes gone after SIGTERM, exit status {status}"

    def conclude(self):
        unseen = {
            1: "it is a question about systems before macOS 26" if self.has_analyzer else "no recognition could run",
            2: "--authorize was not given",
            4: "the first probe runs at the start; another one needs Dictation to be off for 30 s",
            7: "the helper cancels an analyzer that was never fed",
            11: "the format is not visible from outside",
            15: "the helper was built elsewhere",
            16: "not visible from outside",
        }
        if self.model_terms:
            self.answer(9, ", ".join(sorted(self.model_terms)))
        if self.status.get("dictation") == "disabled":
            self.answer(3, "the status says that Dictation is off, so its error was recognized")
        if self.missing:
            self.say("")
            self.say(f"Nothing was transcribed: {self.missing}")
        self.say("")
        self.say("Open questions of docs/platforms.md")
        for number, question in QUESTIONS.items():
            answer = self.answers.get(number)
            self.say(f"{number:2}. {question}")
            self.say(f"    {'seen: ' + answer if answer else 'not answered: ' + unseen.get(number, 'no step showed it')}")

    def report(self):
        path = pathlib.Path(self.options.report)
        path.unlink(missing_ok=True)
        descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
        home = os.path.expanduser("~")
        with os.fdopen(descriptor, "w", encoding="utf-8") as file:
            for line in self.lines:
                file.write((line.replace(home, "~") if len(home) > 1 else line) + "\n")
        print(f"report: {path}")

    def go(self):
        self.say("First run of PalaverSTTHelper")
        for name, action in (("machine", self.machine), ("build", self.build), ("binary", self.binary),
                             ("signature", self.signature), ("start", self.start), ("second process", self.second_process),
                             ("permission", self.permission), ("health", self.health), ("model", self.model),
                             ("recordings", self.make_recordings), ("one recording", self.one_recording),
                             ("empty recording", self.empty_recording), ("both sources", self.both_sources),
                             (f"{self.options.long} s without a pause", self.long_speech),
                             ("four sessions", self.four_sessions), ("end in a session", self.ends_in_session)):
            self.step(name, action)
        self.conclude()
        self.report()
        return 1 if self.failed else 0


def main(arguments):
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n", 1)[1], add_help=False)
    parser.add_argument("--helper", required=True)
    parser.add_argument("--locale", default="ja-JP")
    parser.add_argument("--recording", action="append", default=[])
    parser.add_argument("--words-in-report", action="store_true")
    parser.add_argument("--authorize", action="store_true")
    parser.add_argument("--no-install", action="store_true")
    parser.add_argument("--long", type=int, default=70)
    parser.add_argument("--build-log")
    parser.add_argument("--missing-step", action="store_true")
    parser.add_argument("--report", default="first-run-report.txt")
    options = parser.parse_args(arguments)
    if not os.access(options.helper, os.X_OK):
        parser.error(f"{options.helper} is not a program")
    for recording in options.recording:
        try:
            samples_of(recording)
        except (OSError, ValueError, EOFError, wave.Error) as error:
            parser.error(str(error))
    if options.missing_step:
        return print_missing_step(options.helper)
    with tempfile.TemporaryDirectory() as folder:
        return FirstRun(options, pathlib.Path(folder)).go()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
