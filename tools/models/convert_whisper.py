#!/usr/bin/env python3
"""Converts a Whisper model from the format of CTranslate2 to the files that sherpa-onnx reads.

usage: convert_whisper.py [--name NAME] [--float32] SOURCE TARGET

SOURCE holds model.bin, vocabulary.txt and config.json. Writes NAME-encoder.int8.onnx, NAME-decoder.int8.onnx and
NAME-tokens.txt to TARGET; without .int8 when --float32 is given. Where config.json names the alignment heads, the decoder
also returns their attention, from which sherpa-onnx computes the time of each token. Needs numpy and onnx.
"""
import argparse
import base64
import json
import pathlib
import struct
import sys

import numpy as np
from onnx import TensorProto

from onnx_graph import GraphBuilder, value_info

ELEMENT_TYPES = {0: np.float32, 1: np.int8, 2: np.int16, 3: np.int32, 4: np.float16}  # CTranslate2's type numbers


class FormatError(ValueError):
    """The source is not a Whisper model that this tool can read."""


class ModelFile:
    """Reads the little-endian records of a model.bin, version 6."""

    def __init__(self, path):
        self._data = path.read_bytes()
        self._at = 0
        self._path = path

    def _take(self, size):
        if size > len(self._data) - self._at:
            raise FormatError(f"{self._path} ends early")
        self._at += size
        return self._data[self._at - size : self._at]

    def _numbers(self, layout):
        return struct.unpack("<" + layout, self._take(struct.calcsize("<" + layout)))

    def _string(self):
        (size,) = self._numbers("H")
        return self._take(size).rstrip(b"\0").decode()

    def variables(self):
        """Returns all variables by name, half-precision ones as float32."""
        (version,) = self._numbers("I")
        if version != 6:
            raise FormatError(f"{self._path} has format version {version}, not 6")
        kind = self._string()
        if kind != "WhisperSpec":
            raise FormatError(f"{self._path} holds a {kind}, not a WhisperSpec")
        _, count = self._numbers("II")
        found = {}
        for _ in range(count):
            name = self._string()
            (rank,) = self._numbers("B")
            shape = self._numbers(f"{rank}I")
            type_number, size = self._numbers("BI")
            if type_number not in ELEMENT_TYPES:
                raise FormatError(f"{self._path}: {name} has the unknown type {type_number}")
            array = np.frombuffer(self._take(size), ELEMENT_TYPES[type_number]).reshape(shape)
            found[name] = array.astype(np.float32) if array.dtype == np.float16 else array
        (count,) = self._numbers("I")
        for _ in range(count):
            alias, name = self._string(), self._string()
            found[alias] = found[name]
        return found


class Whisper:
    """Holds the weights, the vocabulary and the sizes that follow from them."""

    def __init__(self, folder):
        self.weights = ModelFile(folder / "model.bin").variables()
        self.config = json.loads((folder / "config.json").read_text("utf-8"))
        self.vocabulary = (folder / "vocabulary.txt").read_text("utf-8").rstrip("\n").split("\n")
        self.mels = self.weights["encoder/conv1/weight"].shape[1]
        self.audio_length, self.audio_size = self.weights["encoder/position_encodings/encodings"].shape
        self.text_length, self.text_size = self.weights["decoder/position_encodings/encodings"].shape
        self.audio_heads = int(self.weights["encoder/num_heads"])
        self.text_heads = int(self.weights["decoder/num_heads"])
        self.audio_layers = self._layers("encoder")
        self.text_layers = self._layers("decoder")
        if len(self.vocabulary) != len(self.weights["decoder/embeddings/weight"]):
            raise FormatError(f"{folder}: vocabulary.txt and model.bin differ in the number of tokens")

    def _layers(self, part):
        count = 0
        while any(name.startswith(f"{part}/layer_{count}/") for name in self.weights):
            count += 1
        return count

    def token(self, *names):
        """Returns the number of the first of these special tokens that the vocabulary has."""
        for name in names:
            if f"<|{name}|>" in self.vocabulary:
                return self.vocabulary.index(f"<|{name}|>")
        raise FormatError(f"the vocabulary lacks <|{names[0]}|>")

    def alignment_heads(self):
        """Returns pairs of layer and head."""
        return [tuple(pair) for pair in self.config.get("alignment_heads") or []]


class Transformer:
    """Adds the layers of a transformer to a graph, with the weights found under a path."""

    def __init__(self, graph, model, size, heads):
        self.graph, self.weights = graph, model.weights
        self.size, self.heads = size, heads

    def constant(self, name):
        return self.graph.constant(name, self.weights[name])

    def norm(self, path, x):
        return self.graph.node(
            "LayerNormalization", x, self.constant(path + "/gamma"), self.constant(path + "/beta"), axis=-1, epsilon=1e-5
        )

    def gelu(self, x):
        g = self.graph
        bent = g.node("Erf", g.node("Mul", x, g.float32(float(0.5**0.5))))
        return g.node("Mul", g.node("Mul", x, g.float32(0.5)), g.node("Add", bent, g.float32(1.0)))

    def project(self, path, x, part=None, of=1, scale=1.0):
        """Applies a dense layer, or the part with this number of `of` layers that share one matrix."""
        matrix, bias = self.weights[path + "/weight"], self.weights[path + "/bias"]
        if part is not None:
            matrix, bias = np.split(matrix, of)[part], np.split(bias, of)[part]
            path = f"{path}/{part}"
        y = self.graph.multiply_constant(x, path + "/weight", matrix.T * np.float32(scale))
        return self.graph.node("Add", y, self.graph.constant(path + "/bias", bias * np.float32(scale)))

    def feed_forward(self, path, x):
        wide = self.gelu(self.project(path + "/linear_0", self.norm(path + "/layer_norm", x)))
        return self.graph.node("Add", x, self.project(path + "/linear_1", wide))

    @property
    def query_scale(self):
        return (self.size // self.heads) ** -0.5

    def attend(self, query, key, value, mask=None):
        """Returns the attention's output and its weights [batch, head, query, key]."""
        g = self.graph
        per_head = g.int64s(0, 0, self.heads, self.size // self.heads)
        query, key, value = (
            g.node("Transpose", g.node("Reshape", x, per_head), perm=order)
            for x, order in ((query, [0, 2, 1, 3]), (key, [0, 2, 3, 1]), (value, [0, 2, 1, 3]))
        )
        scores = g.node("MatMul", query, key)
        if mask is not None:
            scores = g.node("Add", scores, mask)
        weights = g.node("Softmax", scores, axis=-1)
        mixed = g.node("Transpose", g.node("MatMul", weights, value), perm=[0, 2, 1, 3])
        return g.node("Reshape", mixed, g.int64s(0, 0, self.size)), weights


def dimension(graph, x, axis):
    return graph.node("Shape", x, start=axis, end=axis + 1)


def stack_layers(graph, values, name):
    rows = [graph.node("Unsqueeze", value, graph.int64s(0)) for value in values]
    graph.node("Concat", *rows, axis=0, name=name)


def write_encoder(model, path, quantized, metadata):
    """Writes mel [batch, mels, frames] -> keys and values for the decoder [layer, batch, frames / 2, size]."""
    g = GraphBuilder(quantized)
    t = Transformer(g, model, model.audio_size, model.audio_heads)

    x = "mel"
    for name, stride in (("encoder/conv1", 1), ("encoder/conv2", 2)):
        x = g.node(
            "Conv", x, t.constant(name + "/weight"), t.constant(name + "/bias"), kernel_shape=[3], pads=[1, 1], strides=[stride]
        )
        x = t.gelu(x)
    x = g.node("Transpose", x, perm=[0, 2, 1])
    positions = t.constant("encoder/position_encodings/encodings")
    x = g.node("Add", x, g.node("Slice", positions, g.int64s(0), dimension(g, x, 1), g.int64s(0)))
    for number in range(model.audio_layers):
        layer = f"encoder/layer_{number}"
        attention = layer + "/self_attention"
        normal = t.norm(attention + "/layer_norm", x)
        query, key, value = (
            t.project(attention + "/linear_0", normal, part, 3, t.query_scale if part == 0 else 1.0) for part in range(3)
        )
        mixed, _ = t.attend(query, key, value)
        x = g.node("Add", x, t.project(attention + "/linear_1", mixed))
        x = t.feed_forward(layer + "/ffn", x)
    x = t.norm("encoder/layer_norm", x)
    for part, name in enumerate(("n_layer_cross_k", "n_layer_cross_v")):
        layers = range(model.text_layers)
        stack_layers(g, [t.project(f"decoder/layer_{i}/attention/linear_1", x, part, 2) for i in layers], name)

    shape = [model.text_layers, "batch", "positions", model.text_size]
    g.write(
        path,
        "whisper_encoder",
        [value_info("mel", ["batch", model.mels, "frames"])],
        [value_info("n_layer_cross_k", shape), value_info("n_layer_cross_v", shape)],
        metadata,
    )


def write_decoder(model, path, quantized):
    """Writes the step from tokens [batch, n] after `offset` earlier ones, with their keys and values, to the logits of the
    next tokens and the alignment heads' attention [batch, head, n, frames / 2]."""
    g = GraphBuilder(quantized)
    t = Transformer(g, model, model.text_size, model.text_heads)
    zero, one = g.int64s(0), g.int64s(1)

    end = g.node("Add", "offset", dimension(g, "tokens", 1))
    later = np.triu(np.full((model.text_length, model.text_length), -np.inf, np.float32), 1)
    mask = g.node("Slice", g.constant("later", later), "offset", end, zero)
    mask = g.node("Slice", mask, zero, end, one)
    positions = t.constant("decoder/position_encodings/encodings")
    x = g.node("Gather", t.constant("decoder/embeddings/weight"), "tokens")
    x = g.node("Add", x, g.node("Slice", positions, "offset", end, zero))

    caches = {"k": [], "v": []}
    alignments = []
    for number in range(model.text_layers):
        layer = f"decoder/layer_{number}"
        index = g.constant(f"layer_{number}", np.array(number, np.int64))
        attention = layer + "/self_attention"
        normal = t.norm(attention + "/layer_norm", x)
        query, key, value = (
            t.project(attention + "/linear_0", normal, part, 3, t.query_scale if part == 0 else 1.0) for part in range(3)
        )
        known = {}
        for name, new in (("k", key), ("v", value)):
            cache = g.node("Gather", f"in_n_layer_self_{name}_cache", index, axis=0)
            before = g.node("Slice", cache, zero, "offset", one)
            unused = g.node("Slice", cache, end, g.int64s(model.text_length), one)
            known[name] = g.node("Concat", before, new, axis=1)
            caches[name].append(g.node("Concat", known[name], unused, axis=1))
        mixed, _ = t.attend(query, known["k"], known["v"], mask)
        x = g.node("Add", x, t.project(attention + "/linear_1", mixed))

        attention = layer + "/attention"
        query = t.project(attention + "/linear_0", t.norm(attention + "/layer_norm", x), scale=t.query_scale)
        key, value = (g.node("Gather", f"n_layer_cross_{name}", index, axis=0) for name in "kv")
        mixed, weights = t.attend(query, key, value)
        x = g.node("Add", x, t.project(attention + "/linear_2", mixed))
        heads = [head for at, head in model.alignment_heads() if at == number]
        if heads:
            alignments.append(g.node("Gather", weights, g.int64s(*heads), axis=1))
        x = t.feed_forward(layer + "/ffn", x)
    x = t.norm("decoder/layer_norm", x)

    # The embeddings are the last projection too. As the first factor the matrix is stored once.
    logits = g.node("MatMul", "decoder/embeddings/weight", g.node("Transpose", x, perm=[0, 2, 1]))
    g.node("Transpose", logits, perm=[0, 2, 1], name="logits")
    for name in "kv":
        stack_layers(g, caches[name], f"out_n_layer_self_{name}_cache")

    cache = [model.text_layers, "batch", model.text_length, model.text_size]
    cross = [model.text_layers, "batch", "positions", model.text_size]
    outputs = [value_info("logits", ["batch", "n", len(model.vocabulary)])]
    outputs += [value_info(f"out_n_layer_self_{name}_cache", cache) for name in "kv"]
    if alignments:
        g.node("Concat", *alignments, axis=1, name="cross_attention_weights")
        outputs.append(value_info("cross_attention_weights", ["batch", len(model.alignment_heads()), "n", "positions"]))
    inputs = [value_info("tokens", ["batch", "n"], TensorProto.INT64)]
    inputs += [value_info(f"in_n_layer_self_{name}_cache", cache) for name in "kv"]
    inputs += [value_info(f"n_layer_cross_{name}", cross) for name in "kv"]
    inputs.append(value_info("offset", [1], TensorProto.INT64))
    g.write(path, "whisper_decoder", inputs, outputs, {})


def encoder_metadata(model, name):
    """Returns what sherpa-onnx reads from the encoder's metadata."""
    start, end = model.token("startoftranscript"), model.token("endoftext")
    translate, transcribe = model.token("translate"), model.token("transcribe")
    multilingual = len(model.vocabulary) >= 51865
    languages = range(start + 1, translate)
    metadata = {
        "model_type": "whisper-" + name,
        "version": 1,
        "maintainer": "palaver",
        "n_mels": model.mels,
        "n_audio_ctx": model.audio_length,
        "n_audio_state": model.audio_size,
        "n_audio_head": model.audio_heads,
        "n_audio_layer": model.audio_layers,
        "n_text_ctx": model.text_length,
        "n_text_state": model.text_size,
        "n_text_head": model.text_heads,
        "n_text_layer": model.text_layers,
        "n_vocab": len(model.vocabulary),
        "is_multilingual": int(multilingual),
        "sot": start,
        "sot_index": 0,
        "sot_sequence": ",".join(map(str, [start, model.token("en"), transcribe] if multilingual else [start])),
        "eot": end,
        "blank_id": model.vocabulary.index("\u0120"),
        "transcribe": transcribe,
        "translate": translate,
        "no_speech": model.token("nospeech", "nocaptions"),
        "no_timestamps": model.token("notimestamps"),
        "sot_prev": model.token("startofprev"),
        "sot_lm": model.token("startoflm"),
        "non_speech_tokens": ",".join(str(token) for token in model.config.get("suppress_ids", []) if token < end),
        "all_language_tokens": ",".join(map(str, languages)),
        "all_language_codes": ",".join(model.vocabulary[token][2:-2] for token in languages),
    }
    if model.alignment_heads():
        metadata["n_alignment_heads"] = len(model.alignment_heads())
        metadata["alignment_heads"] = ",".join(f"{layer}-{head}" for layer, head in model.alignment_heads())
    return metadata


def bytes_of_characters():
    """Returns the byte that each character of the byte-level vocabulary represents. Printable characters of Latin-1
    represent themselves; the other bytes are numbered from U+0100."""
    table, unprintable = {}, 0
    for byte in range(256):
        if 33 <= byte <= 126 or 161 <= byte <= 172 or 174 <= byte <= 255:
            table[chr(byte)] = byte
        else:
            table[chr(256 + unprintable)] = byte
            unprintable += 1
    return table


def write_tokens(model, path):
    """Writes one line per token of text: its bytes in Base64 and its number."""
    byte_of = bytes_of_characters()
    lines = []
    for number, token in enumerate(model.vocabulary[: model.token("endoftext")]):
        encoded = base64.b64encode(bytes(byte_of[character] for character in token)).decode("ascii")
        lines.append(f"{encoded} {number}\n")
    path.write_text("".join(lines), "ascii")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("source", type=pathlib.Path)
    parser.add_argument("target", type=pathlib.Path)
    parser.add_argument("--name", default="tiny.en", help="the prefix of the files (default: tiny.en)")
    parser.add_argument("--float32", action="store_true", help="keep 32 bits per weight")
    arguments = parser.parse_args()
    try:
        model = Whisper(arguments.source)
        arguments.target.mkdir(parents=True, exist_ok=True)
        suffix = ".onnx" if arguments.float32 else ".int8.onnx"
        quantized = not arguments.float32
        write_tokens(model, arguments.target / f"{arguments.name}-tokens.txt")
        metadata = encoder_metadata(model, arguments.name)
        write_encoder(model, arguments.target / f"{arguments.name}-encoder{suffix}", quantized, metadata)
        write_decoder(model, arguments.target / f"{arguments.name}-decoder{suffix}", quantized)
    except (FormatError, OSError, KeyError) as error:
        print(f"convert_whisper: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
