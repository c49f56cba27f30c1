"""Tests what bench/accuracy counts, on texts and events written by hand."""

import array
import pathlib
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "bench/accuracy")]

import figures
import live
import scoring
import sounds


def event(at, type, text, utterance="U1", reason="silence"):
    found = {"type": type, "text": text, "utteranceId": utterance}
    if type == "transcript.final":
        found["endpointing"] = {"reason": reason}
    return live.Heard(at, found)


def stream(*words):
    found = sounds.Stream()
    found.words = [sounds.Word(text, end) for text, end in words]
    return found


class Scoring(unittest.TestCase):
    def test_numbers_titles_and_signs_are_written_as_in_transcripts(self):
        self.assertEqual(scoring.words_of("Mr. Dashwood, the 10 of clubs; 29340!"),
                         "mister dashwood the ten of clubs two nine three four zero".split())

    def test_each_kind_of_error_counts_once(self):
        self.assertEqual(scoring.error_count("a b c d".split(), "a x c d e".split()), 2)
        self.assertEqual(scoring.error_count("a b c".split(), "a c".split()), 1)
        self.assertEqual(scoring.error_count("a b".split(), []), 2)
        self.assertEqual(scoring.error_count([], "a b".split()), 2)

    def test_repeated_words_said_once_count_as_errors(self):
        self.assertEqual(scoring.error_count("five five".split(), ("five " * 15).split()), 13)

    def test_alignment_is_described(self):
        self.assertEqual(scoring.describe("he was not".split(), "she was not so".split()), "[he>she] was not [+so]")

    def test_words_that_a_later_text_keeps_are_not_taken_back(self):
        self.assertEqual(scoring.taken_back("he was".split(), "he was not".split()), 0)
        self.assertEqual(scoring.taken_back("he was hot".split(), "he was not ill".split()), 1)
        self.assertEqual(scoring.taken_back("he was".split(), []), 2)


class Figures(unittest.TestCase):
    def test_delay_counts_from_end_of_word_to_first_event_that_holds_it(self):
        measured = figures.measure(stream(("go", 500), ("forward", 900)),
                                   [[event(11000, "transcript.partial", "go"), event(11500, "transcript.partial", "go for"),
                                     event(12000, "transcript.final", "Go forward.")]], begin=10000)
        self.assertEqual(measured.to_partial, [500, 1100])
        self.assertEqual((measured.words, measured.errors), (2, 0))
        self.assertEqual((measured.shown, measured.taken_back), (2, 1))

    def test_word_that_was_not_understood_has_no_delay(self):
        measured = figures.measure(stream(("go", 500), ("forward", 900)), [[event(11000, "transcript.final", "go backward")]], 10000)
        self.assertEqual((measured.errors, measured.to_partial), (1, [500]))

    def test_words_of_two_utterances_are_one_text(self):
        measured = figures.measure(stream(("go", 500), ("forward", 900)),
                                   [[event(11000, "transcript.final", "go", "U1")], [event(12000, "transcript.final", "forward", "U2")]], 10000)
        self.assertEqual((measured.errors, measured.to_partial), (0, [500, 1100]))

    def test_utterance_ends_900_ms_after_its_last_voiced_chunk(self):
        sound = sounds.Stream()
        sound.samples = array.array("h", [3000] * 16000 + [0] * 32000)
        self.assertEqual(figures.ends_of_utterances(sound.samples), [1900])

    def test_final_counts_from_chunk_that_ended_the_utterance(self):
        sound = stream(("go", 900))
        sound.samples = array.array("h", [3000] * 16000 + [0] * 32000)
        measured = figures.measure(sound, [[event(12100, "transcript.final", "go")]], 10000)
        self.assertEqual(measured.to_final, [200])

    def test_final_of_a_stop_has_no_end_of_silence(self):
        sound = stream(("go", 900))
        sound.samples = array.array("h", [3000] * 16000 + [0] * 32000)
        measured = figures.measure(sound, [[event(12100, "transcript.final", "go", reason="flush")]], 10000)
        self.assertEqual(measured.to_final, [])

    def test_percentile_is_a_measured_value(self):
        self.assertEqual(figures.percentile([4, 1, 3, 2], .5), 2)
        self.assertEqual(figures.percentile([4, 1, 3, 2], .95), 4)
        self.assertIsNone(figures.percentile([], .5))


if __name__ == "__main__":
    unittest.main()
