"""Measures what the helper understands of people, how soon, and in how much memory, with each engine of this machine.

usage: python3 bench/accuracy HELPER [--engine NAME]... [--condition NAME]... [--details]

Plays recordings with known words to the whole helper at the pace of a live meeting and prints a table for each engine.
The machine must be otherwise idle. The Whisper model is that of ./dev demo, under build/speech.
"""

import argparse
import json
import os
import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parent))
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent))

import engines
import figures
import live
import memory
import sounds

TAIL = 4000  # ms of silence at the end, for the last finals


def rounds_of(name, known):
    """The sessions of a condition: each a list of one or two streams."""
    book = [recording for recording in known.values() if recording.name.startswith("librivox")]
    short = [recording for recording in known.values() if not recording.name.startswith("librivox")]
    offsets = (0, 533 / 16, 1067 / 16)  # ms into a chunk: the words depend on it
    if name == "one source":
        return [[sounds.joined(book + short, begin)] for begin in offsets]
    if name == "both sources at once":
        return [[sounds.joined(book, begin), sounds.joined(short, begin)] for begin in offsets]
    if name == "0.3 of the loudness":
        return [[sounds.joined(book + short).louder(0.3)]]
    if name == "noise of 0.002":
        return [[sounds.joined(book + short).noise(0.002)]]
    if name == "pauses of 0.5 to 3 s":
        return [[sounds.joined(book + short, pauses=(500, 1000, 2000, 700, 3000))]]
    raise ValueError(name)


CONDITIONS = ["one source", "both sources at once", "0.3 of the loudness", "noise of 0.002", "pauses of 0.5 to 3 s"]


def run(helper, environment, streams):
    meeting = live.Meeting(helper, environment=environment)
    meeting.start(["m"])
    sources = [("m", source) for source in ("remote", "self")]
    meeting.play({key: stream.silence(TAIL).samples for key, stream in zip(sources, streams)})
    meeting.stop(["m"])
    status = meeting.end()
    if status or meeting.errors():
        raise RuntimeError(f"exit status {status}, errors {meeting.errors()}")
    total = figures.Figures()
    for (session, source), stream in zip(sources, streams):
        total += figures.measure(stream, meeting.utterances(session, source), meeting.begin)
    return total


def ms(values, share):
    value = figures.percentile(values, share)
    return "none" if value is None else f"{value:.0f} ms"


def row(name, measured):
    return (f"| {name} | {measured.errors} of {measured.words} | {100 * measured.errors / measured.words:.1f} % | "
            f"{ms(measured.to_partial, .5)} | {ms(measured.to_partial, .95)} | {ms(measured.to_final, .5)} | "
            f"{ms(measured.to_final, .95)} | {measured.taken_back} of {measured.shown} |")


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].removeprefix("usage: "), description=__doc__.split("\n\n")[0])
    parser.add_argument("helper")
    parser.add_argument("--engine", action="append")
    parser.add_argument("--condition", action="append", choices=CONDITIONS)
    parser.add_argument("--details", action="store_true", help="print what was understood, word by word")
    parser.add_argument("--json", help="write the figures to a file too")
    options = parser.parse_args()
    known = sounds.recordings()
    load = os.getloadavg()[0]
    if load > 0.7:
        print(f"The machine is busy (load {load:.1f}): the figures will be worse than it can do.\n")
    results = {}
    with tempfile.TemporaryDirectory() as folder:
        for engine, environment in engines.english_engines(pathlib.Path(folder)).items():
            if options.engine and engine not in options.engine:
                continue
            print(f"### {engine}\n\n| condition | word errors | | word to event p50 | p95 | end to final p50 | p95 | words taken back |\n"
                  "|---|---|---|---|---|---|---|---|", flush=True)
            details = []
            for condition in options.condition or CONDITIONS:
                total = figures.Figures()
                for streams in rounds_of(condition, known):
                    total += run(options.helper, environment, streams)
                print(row(condition, total), flush=True)
                details += [f"{condition}: {alignment}" for alignment in total.alignments]
                results.setdefault(engine, {})[condition] = {
                    "words": total.words, "errors": total.errors, "shown": total.shown, "takenBack": total.taken_back,
                    "toPartial": total.to_partial, "toFinal": total.to_final}
            print("\n" + "\n".join(details) if options.details else "")
            if not options.condition:
                footprint = memory.measure(options.helper, environment, memory.speech_of(known))
                print(memory.table(footprint) + "\n", flush=True)
                results[engine]["memory"] = {str(channels): megabytes for channels, megabytes in footprint.megabytes.items()}
    if not engines.WHISPER.is_dir():
        print("Left out: Whisper tiny.en, which ./dev demo fetches where it can.")
    if options.json:
        pathlib.Path(options.json).write_text(json.dumps(results))


main()
