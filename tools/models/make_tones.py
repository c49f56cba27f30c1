#!/usr/bin/env python3
"""Writes a streaming transducer of 3 kB that recognizes tones as words, for tests of the streaming engine.

usage: make_tones.py TARGET

A tone that begins after quiet is one word, at the frame of 40 ms in which it begins:

  below about 600 Hz  低        1500 to 3400 Hz  高
  600 to 1500 Hz      中        above 3400 Hz    空, or 花 when a hotword prefers it: it scores slightly less

The same files result each time. Needs numpy and onnx.
"""
import pathlib
import sys

import numpy as np
from onnx import TensorProto

from onnx_graph import GraphBuilder, value_info

TOKENS = ["<blk>", "低", "中", "高", "空", "花", "<unk>"]
CHUNK, SUBSAMPLING = 32, 4  # feature frames of 10 ms
BINS, BANDS = 80, 4  # the features, and the groups of 20 that decide on the word
LOUD = -3.0  # log energy from which a frame holds a tone
WORD, BLANK, UNKNOWN = 10.0, 5.0, -20.0  # scores
FLOWER_PENALTY = 0.5


def write_encoder(path):
    """Writes x [batch, CHUNK, BINS] -> scores of the tokens [batch, CHUNK / SUBSAMPLING, token]. The state holds the loudness
    of the newest frame, because a tone may begin at the edge of two chunks."""
    g = GraphBuilder()
    steps = CHUNK // SUBSAMPLING
    zero = g.float32(0.0)

    frames = g.node("Reshape", "x", g.int64s(0, steps, SUBSAMPLING, BINS))
    frames = g.node("ReduceMean", frames, axes=[2], keepdims=0)
    bands = g.node("ReduceMax", g.node("Reshape", frames, g.int64s(0, 0, BANDS, BINS // BANDS)), axes=[3], keepdims=0)
    loudness = g.node("ReduceMax", bands, axes=[2], keepdims=1)

    above = g.node("Sub", loudness, g.float32(LOUD))
    newest = g.node("Slice", above, g.int64s(steps - 1), g.int64s(steps), g.int64s(1))
    g.node("Unsqueeze", g.node("Transpose", newest, perm=[1, 0, 2]), g.int64s(0), name="new_conv_cache")
    g.node("Identity", "attention_cache", name="new_attention_cache")
    earlier = g.node("Transpose", g.node("Squeeze", "conv_cache", g.int64s(0)), perm=[1, 0, 2])
    earlier = g.node("Slice", g.node("Concat", earlier, above, axis=1), g.int64s(0), g.int64s(steps), g.int64s(1))

    begins = g.node("And", g.node("Greater", above, zero), g.node("LessOrEqual", earlier, zero))
    bonus = g.node("Mul", g.node("Cast", begins, to=TensorProto.FLOAT), g.float32(WORD))
    words = g.node("Add", g.node("Sub", bands, loudness), bonus)
    sky = g.node("Slice", words, g.int64s(BANDS - 1), g.int64s(BANDS), g.int64s(2))
    flower = g.node("Sub", sky, g.float32(FLOWER_PENALTY))
    none = g.node("Mul", loudness, zero)
    blank, unknown = (g.node("Add", none, g.float32(score)) for score in (BLANK, UNKNOWN))
    g.node("Concat", blank, words, flower, unknown, axis=2, name="encoder_out")

    state = [1, 1, "batch", 1]
    g.write(
        path,
        "tones_encoder",
        [
            value_info("x", ["batch", CHUNK, BINS]),
            value_info("attention_cache", state),
            value_info("conv_cache", state),
            value_info("processed_frames", ["batch"], TensorProto.INT64),
        ],
        [
            value_info("encoder_out", ["batch", steps, len(TOKENS)]),
            value_info("new_attention_cache", state),
            value_info("new_conv_cache", state),
        ],
        {
            "model_type": "conformer",
            "T": CHUNK,
            "decode_chunk_len": CHUNK,
            "num_encoder_layers": 1,
            "encoder_dim": 1,
            "left_context": 1,
            "pad_length": 0,
            "cnn_module_kernel": 2,
        },
    )


def write_decoder(path):
    """Writes the part that sees the last two words. They make no difference here."""
    g = GraphBuilder()
    zeros = g.constant("zeros", np.zeros((len(TOKENS), len(TOKENS)), np.float32))
    g.node("ReduceMean", g.node("Gather", zeros, "y"), axes=[1], keepdims=0, name="decoder_out")
    g.write(
        path,
        "tones_decoder",
        [value_info("y", ["batch", 2], TensorProto.INT64)],
        [value_info("decoder_out", ["batch", len(TOKENS)])],
        {"vocab_size": len(TOKENS), "context_size": 2},
    )


def write_joiner(path):
    g = GraphBuilder()
    g.node("Add", "encoder_out", "decoder_out", name="logit")
    shape = ["batch", len(TOKENS)]
    inputs = [value_info("encoder_out", shape), value_info("decoder_out", shape)]
    g.write(path, "tones_joiner", inputs, [value_info("logit", shape)], {"joiner_dim": len(TOKENS)})


def main():
    if len(sys.argv) != 2:
        print("usage: make_tones.py TARGET", file=sys.stderr)
        return 2
    target = pathlib.Path(sys.argv[1])
    target.mkdir(parents=True, exist_ok=True)
    write_encoder(target / "encoder.onnx")
    write_decoder(target / "decoder.onnx")
    write_joiner(target / "joiner.onnx")
    (target / "tokens.txt").write_text("".join(f"{token} {number}\n" for number, token in enumerate(TOKENS)), "utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
