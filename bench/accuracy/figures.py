"""Figures of what a helper understood of a stream."""

import dataclasses
import math

import scoring

VOICE = 0.008  # loudness at which audio counts as voice (RMS, full scale 1)
END = 900  # ms of silence that end an utterance
CHUNK = 1600  # frames


@dataclasses.dataclass
class Figures:
    words: int = 0
    errors: int = 0
    shown: int = 0  # words that a partial showed
    taken_back: int = 0  # of these, words that the next event took back
    to_partial: list = dataclasses.field(default_factory=list)  # ms from the end of a word to the first event that holds it
    to_final: list = dataclasses.field(default_factory=list)  # ms from the chunk that ended an utterance to its final
    alignments: list = dataclasses.field(default_factory=list)

    def __iadd__(self, other):
        for field in dataclasses.fields(self):
            setattr(self, field.name, getattr(self, field.name) + getattr(other, field.name))
        return self


def percentile(values, share):
    """The value below or at which that share of the values lies. None without values."""
    ordered = sorted(values)
    return ordered[max(0, math.ceil(share * len(ordered)) - 1)] if ordered else None


def ends_of_utterances(samples):
    """When silence ends an utterance: ms at which the chunk that completes it has been captured."""
    ends = []
    last_voice = None
    for number in range((len(samples) + CHUNK - 1) // CHUNK):
        chunk = samples[number * CHUNK:(number + 1) * CHUNK]
        loudness = math.sqrt(sum(sample * sample for sample in chunk) / len(chunk)) / 32768
        end = 100 * (number + 1)
        if loudness >= VOICE:
            last_voice = end
        elif last_voice is not None and end - last_voice >= END:
            ends.append(end)
            last_voice = None
    return ends


def measure(stream, utterances, begin):
    """Compares a stream, which was captured from `begin` on (ms), with the utterances that were heard in it."""
    said = [word.text for word in stream.words]
    finals = [utterance[-1] for utterance in utterances if utterance[-1].event["type"] == "transcript.final"]
    texts = [scoring.words_of(final.event["text"]) for final in finals]
    understood = [word for text in texts for word in text]
    figures = Figures(words=len(said), errors=scoring.error_count(said, understood))
    figures.alignments.append(scoring.describe(said, understood))

    # Which of the words said each final holds.
    owner = [index for index, text in enumerate(texts) for _ in text]
    held = {}
    for row, column in scoring.align(said, understood):
        if row is not None and column is not None and said[row] == understood[column]:
            held.setdefault(owner[column], []).append(row)
    by_id = {final.event["utteranceId"]: index for index, final in enumerate(finals)}
    for utterance in utterances:
        rows = held.get(by_id.get(utterance[0].event["utteranceId"]), [])
        waiting = set(rows)
        shown = []
        for heard in utterance:
            words = scoring.words_of(heard.event["text"])
            figures.taken_back += scoring.taken_back(shown, words)
            if heard.event["type"] == "transcript.partial":
                figures.shown += max(0, len(words) - len(shown))
            shown = words
            for index in scoring.matches([said[row] for row in rows], words):
                if rows[index] in waiting:
                    waiting.remove(rows[index])
                    figures.to_partial.append(heard.at - begin - stream.words[rows[index]].end)

    # A final that silence ended belongs to the newest end before it.
    ends = ends_of_utterances(stream.samples)
    for final in finals:
        before = [end for end in ends if begin + end <= final.at]
        if final.event["endpointing"]["reason"] == "silence" and before:
            figures.to_final.append(final.at - begin - before[-1])
    return figures
