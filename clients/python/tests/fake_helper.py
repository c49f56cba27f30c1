"""Replaces the helper in tests: fake_helper.py BEHAVIOUR [ARGUMENT...]. Speaks the protocol and misbehaves as BEHAVIOUR says.

Appends each command that it reads to the file FAKE_LOG, if the variable is set.
"""

import base64
import json
import os
import signal
import subprocess
import sys
import time

BEHAVIOUR = sys.argv[1]
LOG = open(os.environ["FAKE_LOG"], "a", buffering=1) if "FAKE_LOG" in os.environ else None


def write(**event):
    os.write(1, json.dumps(event, ensure_ascii=False, sort_keys=True, separators=(",", ":")).encode() + b"\n")


def write_all(data):
    while data:
        data = data[os.write(1, data) :]


def status(version=1):
    write(type="helper.status", status="ready", available=True, implementation="sf-speech-recognizer", authorization="authorized",
          modelStatus="installed", dictation="enabled", message="On-device Japanese speech recognition is ready.",
          protocolVersion=version)  # fmt: skip


def transcript(kind, text, number, source="remote", session="m"):
    event = {"type": "transcript." + kind, "sessionId": session, "source": source, "utteranceId": f"u{number}", "text": text}
    event.update(startedAt=number, transcribedAt=number + 2)
    if kind == "final":
        event.update(speechEndedAt=number + 1, latencyMs=1)
        event["endpointing"] = {"provider": "apple-sfspeech", "reason": "silence", "threshold": 0.008, "minSilenceMs": 900}
    return event


def on_audio(command):
    """Voice makes a partial, silence its final."""
    global utterance, is_open
    pcm = base64.b64decode(command["pcmBase64"])
    if BEHAVIOUR == "errors":
        write(type="helper.error", message="The on-device recognition model for ja-JP is not installed", at=command["capturedAt"],
              sessionId=command["sessionId"], source=command["source"])  # fmt: skip
    elif pcm.startswith(b"die!"):
        line = json.dumps(transcript("partial", "cut off in the middle", 1, session=command["sessionId"])).encode()
        os.write(1, line[: len(line) // 2])
        os.kill(os.getpid(), signal.SIGKILL)
    elif any(pcm):
        utterance += not is_open
        is_open = True
        write(**transcript("partial", f"words {utterance}", utterance, command["source"], command["sessionId"]))
    elif is_open:
        is_open = False
        write(**transcript("final", f"words {utterance}.", utterance, command["source"], command["sessionId"]))


def on_start(session):
    write(type="session.ready", sessionId=session, available=True, implementation="sf-speech-recognizer", locale="en-US")
    if BEHAVIOUR == "japanese":
        # A line separator inside a string, and a write for each byte.
        line = json.dumps(transcript("final", "会議\u2028を始めます。👍", 1, session=session), ensure_ascii=False).encode() + b"\n"
        for byte in line:
            os.write(1, bytes([byte]))
    elif BEHAVIOUR == "long-line":
        write(type="helper.error", message="Unsupported command type: " + "x" * 200_000, at=1)
        write(type="weather", forecast="rain", sessionId=session)
        write(type="pong", sentAt="a text", helperAt=1)
        write_all(b"not json\n[]\n\n{}\n")
        write(**transcript("final", "still here", 1, session=session), mood="good")
    elif BEHAVIOUR == "flood":
        events = [transcript(kind, "x" * 200, number, session=session) for number in range(20_000) for kind in ("partial", "final")]
        write_all(b"".join(json.dumps(event).encode() + b"\n" for event in events))


if BEHAVIOUR == "launcher":  # starts another program on its own pipes, as the helper of macOS does
    child = subprocess.Popen(sys.argv[2:])
    print(f"child {child.pid}", file=sys.stderr, flush=True)
    sys.exit(child.wait())
if BEHAVIOUR == "exits":
    sys.exit(3)
if BEHAVIOUR == "silent":
    sys.stdin.buffer.read()
    sys.exit(0)
if BEHAVIOUR == "stubborn":
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
if BEHAVIOUR == "dies-when-started-again":
    if os.path.exists(sys.argv[2]):
        sys.exit(4)
    open(sys.argv[2], "w").close()

status(2 if BEHAVIOUR == "version-2" else 1)
if BEHAVIOUR == "stderr":
    os.write(2, b"noise " * 180_000)  # blocks until it is read
    os.write(2, b"last words")
utterance, is_open = 0, False
for line in sys.stdin.buffer:
    command = json.loads(line)
    if LOG:
        LOG.write(json.dumps({key: value for key, value in command.items() if key != "pcmBase64"}) + "\n")
    session = command.get("sessionId")
    if command["type"] == "audio":
        on_audio(command)
    elif command["type"] == "ping":
        write(type="pong", sentAt=command["sentAt"], helperAt=time.time() * 1000 + 5000)
    elif command["type"] == "session.start":
        on_start(session)
    elif command["type"] == "session.stop":
        write(type="session.stopped", sessionId=session, at=1)
    elif command["type"] == "source.suppress":
        write(type="source.suppressed", sessionId=session, source=command["source"], suppressed=command["suppressed"], at=1)
while BEHAVIOUR == "stubborn":
    time.sleep(60)
