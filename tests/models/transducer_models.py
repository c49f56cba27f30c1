"""Transducers: an encoder, a decoder that sees the words so far, and a joiner that scores the tokens of a step.

Those of icefall recognize the band of a tone. Those of NeMo count tones, with the state of the decoder.
"""
import json

import numpy as np

from tone_graphs import (
    BINS,
    BLANK,
    BLANK_TOKEN,
    ENGLISH_TOKENS,
    LOUD,
    LOUD_DEVIATIONS,
    TOKENS,
    UNKNOWN,
    UNKNOWN_TOKEN,
    WORD,
    GraphBuilder,
    TensorProto,
    any_tone,
    constant_like,
    divided,
    first_frames,
    newest_step,
    token_scores,
    value_info,
    write_tokens,
)

COUNTED = 4  # words of NeMo's models in each language
DURATIONS = 5  # of TDT: 0 to 4 steps


# --- icefall -----------------------------------------------------------------------------------------------------------


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


def write_tones(folder):
    """Writes a streaming conformer. Its state holds the loudness of the newest step."""
    chunk, step = 32, 4
    g = GraphBuilder()
    earlier = g.node("Transpose", g.node("Squeeze", "conv_cache", g.int64s(0)), perm=[1, 0, 2])
    _, above = token_scores(g, "x", step, earlier=earlier, name="encoder_out")
    newest = g.node("Transpose", newest_step(g, above), perm=[1, 0, 2])
    g.node("Unsqueeze", newest, g.int64s(0), name="new_conv_cache")
    g.node("Identity", "attention_cache", name="new_attention_cache")
    state = [1, 1, "batch", 1]
    g.write(
        folder / "encoder.onnx",
        "tones_encoder",
        [
            value_info("x", ["batch", chunk, BINS]),
            value_info("attention_cache", state),
            value_info("conv_cache", state),
            value_info("processed_frames", ["batch"], TensorProto.INT64),
        ],
        [
            value_info("encoder_out", ["batch", chunk // step, len(TOKENS)]),
            value_info("new_attention_cache", state),
            value_info("new_conv_cache", state),
        ],
        {
            "model_type": "conformer",
            "T": chunk,
            "decode_chunk_len": chunk,
            "num_encoder_layers": 1,
            "encoder_dim": 1,
            "left_context": 1,
            "pad_length": 0,
            "cnn_module_kernel": 2,
        },
    )
    write_decoder(folder / "decoder.onnx")
    write_joiner(folder / "joiner.onnx")
    write_tokens(folder, TOKENS)


def write_zipformer(folder):
    name = "{}-epoch-99-avg-1.int8.onnx"
    g = GraphBuilder()
    token_scores(g, "x", 4, name="encoder_out")
    divided(g, "x_lens", 4, "encoder_out_lens")
    g.write(
        folder / name.format("encoder"),
        "tones_zipformer",
        [value_info("x", ["batch", "frames", BINS]), value_info("x_lens", ["batch"], TensorProto.INT64)],
        [
            value_info("encoder_out", ["batch", "steps", len(TOKENS)]),
            value_info("encoder_out_lens", ["batch"], TensorProto.INT64),
        ],
        {"model_type": "zipformer2", "version": 1},
    )
    write_decoder(folder / name.format("decoder"))
    write_joiner(folder / name.format("joiner"))
    write_tokens(folder, TOKENS)


def zipformer2_streaming_encoder(path, output, metadata):
    """Writes an encoder of one layer with the width 4. `cached_conv1_0` holds the loudness of the newest step."""
    chunk, window, step = 32, 45, 4
    width, left_context, kernel = 4, 2, 3
    floats = {
        "cached_key_0": [left_context, "batch", width],
        "cached_nonlin_attn_0": [1, "batch", left_context, 3 * width // 4],
        "cached_val1_0": [left_context, "batch", width],
        "cached_val2_0": [left_context, "batch", width],
        "cached_conv1_0": ["batch", width, kernel // 2],
        "cached_conv2_0": ["batch", width, kernel // 2],
        "embed_states": ["batch", 128, 3, 19],
    }
    g = GraphBuilder()
    earlier = first_frames(g, "cached_conv1_0", 1)
    _, above = token_scores(g, first_frames(g, "x", chunk), step, earlier=earlier, name=output)
    rest = g.node("Slice", "cached_conv1_0", g.int64s(1), g.int64s(width), g.int64s(1))
    g.node("Concat", newest_step(g, above), rest, axis=1, name="new_cached_conv1_0")
    for state in floats:
        if state != "cached_conv1_0":
            g.node("Identity", state, name="new_" + state)
    g.node("Add", "processed_lens", g.int64s(chunk // step), name="new_processed_lens")
    g.write(
        path,
        "tones_zipformer2",
        [
            value_info("x", ["batch", window, BINS]),
            *(value_info(state, shape) for state, shape in floats.items()),
            value_info("processed_lens", ["batch"], TensorProto.INT64),
        ],
        [
            value_info(output, ["batch", chunk // step, len(TOKENS)]),
            *(value_info("new_" + state, shape) for state, shape in floats.items()),
            value_info("new_processed_lens", ["batch"], TensorProto.INT64),
        ],
        {
            **metadata,
            "version": 1,
            "T": window,
            "decode_chunk_len": chunk,
            "num_encoder_layers": 1,
            "encoder_dims": width,
            "cnn_module_kernels": kernel,
            "left_context_len": left_context,
            "query_head_dims": width,
            "value_head_dims": width,
            "num_heads": 1,
        },
    )


def write_streaming_zipformer2(folder):
    name = "{}-epoch-99-avg-1-chunk-16-left-128.int8.onnx"
    metadata = {"model_type": "zipformer2", "comment": "streaming zipformer2"}
    zipformer2_streaming_encoder(folder / name.format("encoder"), "encoder_out", metadata)
    write_decoder(folder / name.format("decoder"))
    write_joiner(folder / name.format("joiner"))
    write_tokens(folder, TOKENS)


def write_streaming_encoder(path, chunk, window, floats, lengths, newest, metadata):
    """Writes an encoder with states of the shapes in `floats`. The one named `newest`, [1, batch, 1], holds the loudness of
    the newest step. `lengths` are further states, [1, batch]."""
    step = 4
    g = GraphBuilder()
    earlier = g.node("Transpose", newest, perm=[1, 0, 2])
    _, above = token_scores(g, first_frames(g, "x", chunk), step, earlier=earlier, name="encoder_out")
    g.node("Transpose", newest_step(g, above), perm=[1, 0, 2], name="new_" + newest)
    for state in [*lengths, *floats]:
        if state != newest:
            g.node("Identity", state, name="new_" + state)
    states = [
        *((state, [1, "batch"], TensorProto.INT64) for state in lengths),
        *((state, shape, TensorProto.FLOAT) for state, shape in floats.items()),
    ]
    g.write(
        path,
        "tones_streaming_encoder",
        [value_info("x", ["batch", window, BINS]), *(value_info(*state) for state in states)],
        [
            value_info("encoder_out", ["batch", chunk // step, len(TOKENS)]),
            *(value_info("new_" + name, shape, element) for name, shape, element in states),
        ],
        {**metadata, "version": 1, "T": window, "decode_chunk_len": chunk, "num_encoder_layers": 1},
    )


def write_streaming_zipformer(folder):
    """Writes the first version of Zipformer, with English words and the vocabulary that hotwords need then."""
    name = "{}-epoch-99-avg-1.int8.onnx"
    left_context, attention, kernel = 2, 2, 3
    floats = {
        "cached_avg_0": [1, "batch", 1],
        "cached_key_0": [1, left_context, "batch", attention],
        "cached_val_0": [1, left_context, "batch", attention // 2],
        "cached_val2_0": [1, left_context, "batch", attention // 2],
        "cached_conv1_0": [1, "batch", 1, kernel - 1],
        "cached_conv2_0": [1, "batch", 1, kernel - 1],
    }
    metadata = {
        "model_type": "zipformer",
        "encoder_dims": 1,
        "attention_dims": attention,
        "cnn_module_kernels": kernel,
        "left_context_len": left_context,
    }
    file = folder / name.format("encoder")
    write_streaming_encoder(file, 32, 39, floats, ["cached_len_0"], "cached_avg_0", metadata)
    write_decoder(folder / name.format("decoder"))
    write_joiner(folder / name.format("joiner"))
    write_tokens(folder, ENGLISH_TOKENS)
    scores = "".join(f"{token}\t{-number}\n" for number, token in enumerate(ENGLISH_TOKENS))
    (folder / "bpe.vocab").write_text(scores, "utf-8")


def write_streaming_lstm(folder):
    name = "{}-epoch-99-avg-1.int8.onnx"
    floats = {"h": [1, "batch", 1], "c": [1, "batch", 1]}
    metadata = {"model_type": "lstm", "rnn_hidden_size": 1, "d_model": 1}
    write_streaming_encoder(folder / name.format("encoder"), 4, 9, floats, [], "h", metadata)
    write_decoder(folder / name.format("decoder"))
    write_joiner(folder / name.format("joiner"))
    write_tokens(folder, TOKENS)


# --- NeMo --------------------------------------------------------------------------------------------------------------


def numbered(g, begin, count, name):
    """Writes the number of the tone that begins in a step, or 0: [batch, 1, step]."""
    g.node("Transpose", g.node("Mul", begin, count), perm=[0, 2, 1], name=name)


def write_nemo_decoder(path, tokens):
    """Writes the part whose first state counts the words."""
    g = GraphBuilder()
    blank = g.constant("blank", np.array(tokens.index(BLANK_TOKEN), np.int32))
    is_word = g.node("Cast", g.node("Less", "targets", blank), to=TensorProto.FLOAT)
    g.node("Add", "states.1", g.node("Reshape", is_word, g.int64s(1, -1, 1)), name="states")
    g.node("Identity", "onnx::Slice_3", name="162")
    first_layer = g.node("Slice", "states", g.int64s(0), g.int64s(1), g.int64s(0))
    g.node("Transpose", first_layer, perm=[1, 2, 0], name="outputs")
    g.node("Identity", "target_length", name="prednet_lengths")
    state = [2, "batch", 1]
    g.write(
        path,
        "tones_nemo_decoder",
        [
            value_info("targets", ["batch", 1], TensorProto.INT32),
            value_info("target_length", ["batch"], TensorProto.INT32),
            value_info("states.1", state),
            value_info("onnx::Slice_3", state),
        ],
        [
            value_info("outputs", ["batch", 1, 1]),
            value_info("prednet_lengths", ["batch"], TensorProto.INT32),
            value_info("states", state),
            value_info("162", state),
        ],
        {},
    )


def write_nemo_joiner(path, tokens, durations):
    """Scores word n where tone n begins and n - 1 words precede it. The next language has the numbers after those of the
    one before. TDT also scores how many steps to go on: one."""
    g = GraphBuilder()
    number = g.node("Unsqueeze", "encoder_outputs", g.int64s(3))
    count = g.node("Unsqueeze", "decoder_outputs", g.int64s(3))
    numbers = np.arange(1, len(tokens) - 1, dtype=np.float32).reshape(1, 1, 1, -1)
    words = g.constant("numbers", numbers)
    earlier = g.constant("earlier", (numbers - 1) % COUNTED)
    distance = g.node("Add", g.node("Abs", g.node("Sub", words, number)), g.node("Abs", g.node("Sub", earlier, count)))
    scores = g.node("Mul", g.node("Sub", g.float32(1.0), distance), g.float32(WORD))
    unknown, blank = (constant_like(g, number, score) for score in (UNKNOWN, BLANK))
    parts = [unknown, scores, blank]
    if durations:
        one_step = np.arange(durations, dtype=np.float32).reshape(1, 1, 1, -1) == 1
        none = constant_like(g, number, 0.0)
        parts.append(g.node("Add", none, g.constant("durations", one_step.astype(np.float32))))
    g.node("Concat", *parts, axis=3, name="outputs")
    g.write(
        path,
        "tones_nemo_joiner",
        [value_info("encoder_outputs", ["batch", 1, 1]), value_info("decoder_outputs", ["batch", 1, 1])],
        [value_info("outputs", ["batch", 1, 1, len(tokens) + durations])],
        {},
    )


def write_nemo_offline(folder, bins, durations, metadata):
    tokens = [UNKNOWN_TOKEN, "▁one", "▁two", "▁three", "▁four", BLANK_TOKEN]
    g = GraphBuilder()
    frames = g.node("Transpose", "audio_signal", perm=[0, 2, 1])
    begin, _ = any_tone(g, frames, 8, LOUD_DEVIATIONS)
    numbered(g, begin, g.node("CumSum", begin, g.int64s(1)), "outputs")
    divided(g, "length", 8, "encoded_lengths")
    g.write(
        folder / "encoder.int8.onnx",
        "tones_nemo_encoder",
        [value_info("audio_signal", ["batch", bins, "frames"]), value_info("length", ["batch"], TensorProto.INT64)],
        [value_info("outputs", ["batch", 1, "steps"]), value_info("encoded_lengths", ["batch"], TensorProto.INT64)],
        {
            "model_type": "EncDecRNNTBPEModel",
            "version": 2,
            "vocab_size": len(tokens) - 1,  # without the blank
            "subsampling_factor": 8,
            "normalize_type": "per_feature",
            "pred_rnn_layers": 2,
            "pred_hidden": 1,
            **metadata,
        },
    )
    write_nemo_decoder(folder / "decoder.int8.onnx", tokens)
    write_nemo_joiner(folder / "joiner.int8.onnx", tokens, durations)
    write_tokens(folder, tokens)


def write_nemo(folder):
    write_nemo_offline(folder, BINS, 0, {})


def write_nemo_tdt(folder):
    """Writes a Parakeet TDT, which has 128 bins. The library looks for "tdt" in the address."""
    write_nemo_offline(folder, 128, DURATIONS, {"feat_dim": 128, "url": "https://example.com/parakeet-tdt-tones"})


def nemo_streaming_encoder(path, output, shape, scores, metadata, inputs=()):
    """Writes a cache-aware encoder. `cache_last_time` holds the loudness of the newest step, `cache_last_channel` the number
    of tones. `scores` adds the output, for which there may be more inputs."""
    window, chunk, step = 41, 32, 8
    g = GraphBuilder()
    frames = first_frames(g, g.node("Transpose", "audio_signal", perm=[0, 2, 1]), chunk)
    begin, above = any_tone(g, frames, step, LOUD, g.node("Reshape", "cache_last_time", g.int64s(0, 1, 1)))
    g.node("Unsqueeze", newest_step(g, above), g.int64s(3), name="cache_last_time_next")
    earlier = g.node("Reshape", "cache_last_channel", g.int64s(0, 1, 1))
    count = g.node("Add", g.node("CumSum", begin, g.int64s(1)), earlier)
    g.node("Unsqueeze", newest_step(g, count), g.int64s(3), name="cache_last_channel_next")
    g.node("Add", "cache_last_channel_len", g.int64s(chunk // step), name="cache_last_channel_next_len")
    scores(g, begin, count, above, output)
    divided(g, "length", step, "encoded_lengths")
    cache = ["batch", 1, 1, 1]
    g.write(
        path,
        "tones_nemo_streaming",
        [
            value_info("audio_signal", ["batch", BINS, "frames"]),
            value_info("length", ["batch"], TensorProto.INT64),
            value_info("cache_last_channel", cache),
            value_info("cache_last_time", cache),
            value_info("cache_last_channel_len", ["batch"], TensorProto.INT64),
            *inputs,
        ],
        [
            value_info(output, shape),
            value_info("encoded_lengths", ["batch"], TensorProto.INT64),
            value_info("cache_last_channel_next", cache),
            value_info("cache_last_time_next", cache),
            value_info("cache_last_channel_next_len", ["batch"], TensorProto.INT64),
        ],
        {
            **metadata,
            "version": 1,
            "normalize_type": "",
            "window_size": window,
            "chunk_shift": chunk,
            "subsampling_factor": step,
            **{f"cache_last_{part}_dim{i}": 1 for part in ("channel", "time") for i in (1, 2, 3)},
        },
    )


def write_streaming_nemo(folder):
    tokens = [UNKNOWN_TOKEN, "一", "二", "三", "四", BLANK_TOKEN]
    nemo_streaming_encoder(
        folder / "encoder.int8.onnx",
        "outputs",
        ["batch", 1, "steps"],
        lambda g, begin, count, above, name: numbered(g, begin, count, name),
        {
            "model_type": "EncDecHybridRNNTCTCBPEModel",
            "vocab_size": len(tokens) - 1,
            "pred_rnn_layers": 2,
            "pred_hidden": 1,
        },
    )
    write_nemo_decoder(folder / "decoder.int8.onnx", tokens)
    write_nemo_joiner(folder / "joiner.int8.onnx", tokens, 0)
    write_tokens(folder, tokens)


def write_streaming_nemo_multilingual(folder):
    """Counts in the language of the prompt, in Japanese where that is none."""
    english = 1
    tokens = [UNKNOWN_TOKEN, "一", "二", "三", "四", "▁one", "▁two", "▁three", "▁four", BLANK_TOKEN]

    def scores(g, begin, count, above, name):
        prompt = g.constant("english", np.array(english, np.int64))
        is_english = g.node("Cast", g.node("Equal", "prompt_index", prompt), to=TensorProto.FLOAT)
        offset = g.node("Mul", g.node("Reshape", is_english, g.int64s(-1, 1, 1)), g.float32(float(COUNTED)))
        numbered(g, begin, g.node("Add", count, offset), name)

    nemo_streaming_encoder(
        folder / "encoder.int8.onnx",
        "outputs",
        ["batch", 1, "steps"],
        scores,
        {
            "model_type": "EncDecRNNTBPEModelWithPrompt",
            "vocab_size": len(tokens) - 1,
            "pred_rnn_layers": 2,
            "pred_hidden": 1,
            "prompt_dictionary": json.dumps({"ja-JP": 0, "en-US": english, "auto": 2}),
            "auto_prompt_id": 2,
        },
        [value_info("prompt_index", ["batch"], TensorProto.INT64)],
    )
    write_nemo_decoder(folder / "decoder.int8.onnx", tokens)
    write_nemo_joiner(folder / "joiner.int8.onnx", tokens, 0)
    write_tokens(folder, tokens)
