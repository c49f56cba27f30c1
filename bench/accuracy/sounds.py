"""Recordings of people with the words said in them, joined to the streams of a meeting."""

import array
import dataclasses
import json
import pathlib
import random
import wave

RATE = 16000  # Hz
DATA = pathlib.Path("/usr/share/pocketsphinx/test/data")


@dataclasses.dataclass(frozen=True)
class Word:
    text: str
    end: float  # ms of the stream


class Stream:
    """Samples, and the words said in them."""

    def __init__(self):
        self.samples = array.array("h")
        self.words = []

    @property
    def length(self):
        """In ms."""
        return 1000 * len(self.samples) / RATE

    def silence(self, ms):
        self.samples.extend([0] * round(ms * RATE / 1000))
        return self

    def recording(self, recording):
        begin = self.length
        self.samples.extend(recording.samples)
        self.words.extend(Word(text, begin + end) for text, _, end in recording.words)
        return self

    def louder(self, factor):
        self.samples = array.array("h", (round(sample * factor) for sample in self.samples))
        return self

    def noise(self, rms, seed=1):
        """Adds white noise; full scale is 1."""
        chance = random.Random(seed)
        self.samples = array.array("h", (max(-32768, min(32767, sample + round(chance.gauss(0, rms * 32768))))
                                         for sample in self.samples))
        return self


@dataclasses.dataclass(frozen=True)
class Recording:
    name: str
    samples: array.array
    words: list  # [text, start, end] in ms


def recordings():
    """By name, in the order of words.json."""
    known = json.loads(pathlib.Path(__file__).with_name("words.json").read_text())["recordings"]
    found = {}
    for name, words in known.items():
        samples = array.array("h")
        if name.endswith(".wav"):
            with wave.open(str(DATA / name)) as file:
                assert (file.getframerate(), file.getnchannels(), file.getsampwidth()) == (RATE, 1, 2), name
                samples.frombytes(file.readframes(file.getnframes()))
        else:
            samples.frombytes((DATA / name).read_bytes())
        found[name] = Recording(name, samples, words)
    return found


def joined(some, begin=0, pauses=(2000,)):
    """A stream of recordings that begins after `begin` ms, with the pauses (ms) in turn after each."""
    stream = Stream().silence(begin)
    for index, recording in enumerate(some):
        stream.recording(recording).silence(pauses[index % len(pauses)])
    return stream
