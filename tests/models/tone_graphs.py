"""Pieces of graphs that recognize tones as words.

A tone that begins after quiet is one word, at the step in which it begins. Its band decides on the word:

  below about 600 Hz  低        1500 to 3400 Hz  高
  600 to 1500 Hz      中        above 3400 Hz    空, or 花 when a hotword prefers it: it scores slightly less

Features are [batch, frame, bin], frames of 10 ms. A step is several frames. `above` is positive in a step with a tone,
[batch, step, 1]. Needs numpy and onnx.
"""
import pathlib
import sys

import numpy as np
from onnx import TensorProto

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools/models"))
from onnx_graph import GraphBuilder, value_info  # noqa: E402

__all__ = ["GraphBuilder", "TensorProto", "value_info"]

BINS = 80  # of log mel features
WORDS = ["低", "中", "高", "空"]
BANDS = len(WORDS)
BLANK_TOKEN, FLOWER_TOKEN, UNKNOWN_TOKEN = "<blk>", "花", "<unk>"
TOKENS = [BLANK_TOKEN, *WORDS, FLOWER_TOKEN, UNKNOWN_TOKEN]

ENGLISH_WORDS = ["▁low", "▁middle", "▁high", "▁sky"]
ENGLISH_TOKENS = [BLANK_TOKEN, *ENGLISH_WORDS, "▁flower", UNKNOWN_TOKEN]  # for the same scores as TOKENS

WORD, BLANK, UNKNOWN = 10.0, 5.0, -20.0  # scores
FLOWER_PENALTY = 0.5
LOUD = -3.0  # log energy from which a frame holds a tone, for samples up to 1
INTEGER_SAMPLES = 2 * float(np.log(32768.0))  # what log energy gains with samples up to 32768
LOUD_DEVIATIONS = 0.3  # the same for features that have the mean 0 and the deviation 1 in each utterance


def write_tokens(folder, tokens):
    folder.joinpath("tokens.txt").write_text(
        "".join(f"{token} {number}\n" for number, token in enumerate(tokens)), "utf-8"
    )


def repeated(value, count):
    """Returns a vector as the metadata holds it."""
    return ",".join([str(value)] * count)


def mean_of_steps(g, frames, step):
    """[batch, T, bin] -> [batch, T // step, bin]"""
    image = g.node("Unsqueeze", frames, g.int64s(1))
    image = g.node("AveragePool", image, kernel_shape=[step, 1], strides=[step, 1])
    return g.node("Squeeze", image, g.int64s(1))


def first_frames(g, frames, count):
    return g.node("Slice", frames, g.int64s(0), g.int64s(count), g.int64s(1))


def newest_step(g, x, **name):
    return g.node("Slice", x, g.int64s(-1), g.int64s(2**31), g.int64s(1), **name)


def loudest_of_bands(g, steps, bins=BINS):
    """[batch, step, bin] -> [batch, step, BANDS]"""
    return g.node("ReduceMax", g.node("Reshape", steps, g.int64s(0, 0, BANDS, bins // BANDS)), axes=[3], keepdims=0)


def loudest(g, steps):
    return g.node("ReduceMax", steps, axes=[2], keepdims=1)


def constant_like(g, column, value):
    """Returns `value` in the shape of `column`."""
    return g.node("Add", g.node("Mul", column, g.float32(0.0)), g.float32(value))


def begins(g, above, earlier=None, initial=-1.0):
    """Returns 1 in steps in which `above` becomes positive, else 0. `earlier` is `above` in the step before the first one,
    [batch, 1, 1]: a tone may begin at the edge of two chunks. Without it, `initial` is."""
    if earlier is None:
        before = g.node("Pad", above, g.int64s(0, 1, 0, 0, 0, 0), g.float32(initial))
    else:
        before = g.node("Concat", earlier, above, axis=1)
    before = g.node("Slice", before, g.int64s(0), g.int64s(-1), g.int64s(1))
    zero = g.float32(0.0)
    is_begin = g.node("And", g.node("Greater", above, zero), g.node("LessOrEqual", before, zero))
    return g.node("Cast", is_begin, to=TensorProto.FLOAT)


def token_scores(g, frames, step, loud=LOUD, earlier=None, name=None):
    """Returns the scores of TOKENS, [batch, step, token], and `above`."""
    bands = loudest_of_bands(g, mean_of_steps(g, frames, step))
    loudness = loudest(g, bands)
    above = g.node("Sub", loudness, g.float32(loud))
    bonus = g.node("Mul", begins(g, above, earlier), g.float32(WORD))
    words = g.node("Add", g.node("Sub", bands, loudness), bonus)
    flower = g.node("Slice", words, g.int64s(BANDS - 1), g.int64s(BANDS), g.int64s(2))
    flower = g.node("Sub", flower, g.float32(FLOWER_PENALTY))
    blank, unknown = (constant_like(g, above, score) for score in (BLANK, UNKNOWN))
    return g.node("Concat", blank, words, flower, unknown, axis=2, **({"name": name} if name else {})), above


def any_tone(g, frames, step, loud, earlier=None):
    """Returns `begins` and `above` for tones of any band. Features with the deviation 1 tell no bands apart."""
    above = g.node("Sub", loudest(g, mean_of_steps(g, frames, step)), g.float32(loud))
    return begins(g, above, earlier), above


def divided(g, lengths, step, name):
    return g.node("Div", lengths, g.int64s(step), name=name)
