"""Measures the memory of the helper and its speech worker without a session, with 1, 2 and 10 live channels, and a minute after
them, with each engine of this machine: those for English, and the streaming model of tones.

usage: python3 bench/footprint.py HELPER [--engine NAME]...
"""

import argparse
import pathlib
import sys
import tempfile

BENCH = pathlib.Path(__file__).parent
sys.path[:0] = [str(BENCH / "accuracy"), str(BENCH)]

import engines
import memory
import sounds

TONES = "streaming model of tones"


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].removeprefix("usage: "))
    parser.add_argument("helper")
    parser.add_argument("--engine", action="append")
    options = parser.parse_args()
    speech = memory.speech_of(sounds.recordings())
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        found = {engine: ("en-US", environment) for engine, environment in engines.english_engines(folder).items()}
        found[TONES] = ("ja-JP", engines.environment_with(folder / "tones", {"ja-JP": engines.TONES}))
        for engine, (locale, environment) in found.items():
            if options.engine and engine not in options.engine:
                continue
            print(f"### {engine}\n", flush=True)
            print(memory.table(memory.measure(options.helper, environment, speech, locale)) + "\n", flush=True)


main()
