"""python3 host.py <helper> <16 kHz mono 16-bit WAV file> [locale]

Plays the file to the helper as the far side of a call, and prints what it hears.
"""
import base64, json, queue, subprocess, sys, threading, time, wave

helper_path, wav_path, locale = (sys.argv[1:] + ["ja-JP"])[:3]
session = {"sessionId": "m1"}
source = "remote"

with wave.open(wav_path) as file:
    assert (file.getframerate(), file.getnchannels(), file.getsampwidth()) == (16000, 1, 2)
    pcm = file.readframes(file.getnframes())

helper = subprocess.Popen([helper_path], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
events = queue.Queue()


def read():
    for line in helper.stdout:  # bytes: split at 0x0A only, and decoded as whole lines
        events.put(json.loads(line))
    events.put({"type": "ended"})


threading.Thread(target=read, daemon=True).start()


def send(**command):  # waits while the helper's input is full
    helper.stdin.write(json.dumps(command).encode() + b"\n")
    helper.stdin.flush()


open_utterances = set()


def listen(until, matches=lambda event: False):
    """Takes events until one matches, and returns it, or until the given time."""
    while True:
        try:
            event = events.get(timeout=max(0, until - time.time()))
        except queue.Empty:
            return None
        if event["type"] == "transcript.partial":
            open_utterances.add(event["utteranceId"])
        elif event["type"] == "transcript.final":
            open_utterances.discard(event["utteranceId"])
            print(f'{event["source"]}: {event["text"]}')
        elif event["type"] == "helper.error":
            print(event["message"], file=sys.stderr)
        elif event["type"] == "ended":
            sys.exit(1)  # earlier than asked for
        if matches(event):
            return event


def chunks():
    for at in range(0, len(pcm), 3200):  # 100 ms
        yield pcm[at : at + 3200]
    for quiet in range(50):  # behind the file, quiet closes the last utterance
        if quiet >= 15 and not open_utterances:
            return
        yield bytes(3200)


status = listen(time.time() + 10, lambda e: e["type"] == "helper.status" and e["status"] != "checking-model")
if status and not status["available"]:
    print(status.get("message", status["status"]), file=sys.stderr)

send(type="session.start", **session, locale=locale, vocabulary=[])
ready = listen(time.time() + 10, lambda e: e["type"] == "session.ready" and e.get("source", source) == source)
if ready and ready["available"]:
    started_at = time.time()
    for sequence, chunk in enumerate(chunks()):
        captured_at = started_at + sequence * 0.1
        listen(captured_at + 0.1)  # the pace of the speech
        send(type="audio", **session, source=source, sequence=sequence, capturedAt=captured_at * 1000,
             pcmBase64=base64.b64encode(chunk).decode())

send(type="session.stop", **session)
listen(time.time() + 5, lambda e: e["type"] == "session.stopped")
if status and status["implementation"] == "speech-analyzer":
    listen(time.time() + 1)  # last finals
helper.stdin.close()  # the graceful end; a signal would lose what is not final
sys.exit(helper.wait())
