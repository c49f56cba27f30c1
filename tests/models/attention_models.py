"""SenseVoice, Paraformer and Moonshine.

SenseVoice and Paraformer stack seven frames and shift and scale each value with vectors of the metadata.
"""
import base64

import numpy as np

from tone_graphs import (
    BANDS,
    BINS,
    BLANK,
    ENGLISH_WORDS,
    INTEGER_SAMPLES,
    LOUD,
    UNKNOWN,
    UNKNOWN_TOKEN,
    WORD,
    WORDS,
    GraphBuilder,
    TensorProto,
    begins,
    constant_like,
    loudest,
    loudest_of_bands,
    repeated,
    value_info,
    write_tokens,
)

STACK = 7  # frames of one step
STACKING = {"lfr_window_size": STACK, "lfr_window_shift": 6}
END = 0.5  # the score of the token that ends a text: between those of a word and of none


def stacked_bands(g, x):
    """[batch, step, STACK * BINS] -> [batch, step, BANDS]"""
    frames = g.node("Reshape", x, g.int64s(0, 0, STACK, BINS))
    return loudest_of_bands(g, g.node("ReduceMean", frames, axes=[2], keepdims=0))


def normalization(mean, scale):
    return {"neg_mean": repeated(-mean, STACK * BINS), "inv_stddev": repeated(scale, STACK * BINS)}


def loud_after(mean, scale):
    return (LOUD + INTEGER_SAMPLES - mean) * scale


def loudest_band(g, bands):
    """Returns 1 for the band that is the loudest, else 0."""
    return g.node("Cast", g.node("GreaterOrEqual", bands, loudest(g, bands)), to=TensorProto.FLOAT)


def write_scores(g, words, others):
    """Adds the scores of words to those of all tokens, of which the words are the fourth and the next ones."""
    after = len(others) - BANDS - 3
    scores = g.node("Pad", words, g.int64s(0, 0, 3, 0, 0, after))
    g.node("Add", scores, g.constant("others", np.array(others, np.float32)), name="logits")


# --- SenseVoice --------------------------------------------------------------------------------------------------------


def write_sense_voice(folder):
    """Writes Japanese words for the language ja and English ones for every other, with punctuation where a tone ends when
    that is asked for. The first four steps are language, emotion, event and style."""
    mean, scale = 20.0, 0.5
    with_itn, ja = 14, 11
    marks = ["<|ja|>", "<|NEUTRAL|>", "<|Speech|>", "<|withitn|>"]
    tokens = [UNKNOWN_TOKEN, *WORDS, *ENGLISH_WORDS, "。", *marks]
    g = GraphBuilder()

    def flag(value, wanted):
        """Returns 1 where the request has that value, [batch, 1, 1]."""
        constant = g.constant(f"{value}_{wanted}", np.array(wanted, np.int32))
        is_wanted = g.node("Cast", g.node("Equal", value, constant), to=TensorProto.FLOAT)
        return g.node("Reshape", is_wanted, g.int64s(-1, 1, 1))

    bands = stacked_bands(g, "x")
    above = g.node("Sub", loudest(g, bands), g.float32(loud_after(mean, scale)))
    words = g.node("Mul", g.node("Mul", loudest_band(g, bands), begins(g, above)), g.float32(WORD))
    is_japanese = flag("language", ja)
    japanese = g.node("Mul", words, is_japanese)
    english = g.node("Mul", words, g.node("Sub", g.float32(1.0), is_japanese))
    ends = begins(g, g.node("Neg", above), initial=1.0)
    stop = g.node("Mul", g.node("Mul", ends, flag("text_norm", with_itn)), g.float32(WORD))
    never = constant_like(g, above, UNKNOWN)
    blank = constant_like(g, above, BLANK)
    scores = g.node("Concat", blank, japanese, english, stop, *[never] * len(marks), axis=2)
    head = np.full((1, len(marks), len(tokens)), UNKNOWN, np.float32)
    head[0, range(len(marks)), [tokens.index(mark) for mark in marks]] = WORD
    g.node("Concat", g.constant("head", head), scores, axis=1, name="logits")
    g.write(
        folder / "model.int8.onnx",
        "tones_sense_voice",
        [
            value_info("x", ["batch", "steps", STACK * BINS]),
            value_info("x_length", ["batch"], TensorProto.INT32),
            value_info("language", ["batch"], TensorProto.INT32),
            value_info("text_norm", ["batch"], TensorProto.INT32),
        ],
        [value_info("logits", ["batch", "steps_and_marks", len(tokens)])],
        {
            "model_type": "sense_voice_ctc",
            "version": 1,
            "vocab_size": len(tokens),
            "normalize_samples": 0,
            "with_itn": with_itn,
            "without_itn": 15,
            "lang_auto": 0,
            "lang_zh": 3,
            "lang_en": 4,
            "lang_yue": 7,
            "lang_ja": ja,
            "lang_ko": 12,
            **STACKING,
            **normalization(mean, scale),
        },
    )
    write_tokens(folder, tokens)


# --- Paraformer --------------------------------------------------------------------------------------------------------

PARAFORMER_TOKENS = ["<blank>", "<s>", "</s>", *WORDS, UNKNOWN_TOKEN]


def paraformer_scores(g, words, end):
    """words [batch, token, BANDS] -> scores of PARAFORMER_TOKENS, of which the end is best where no word is."""
    write_scores(g, words, [UNKNOWN, UNKNOWN, end, *[0.0] * BANDS, UNKNOWN])


def write_paraformer(folder):
    write_offline_paraformer(folder, has_peaks=True)


def write_paraformer_without_peaks(folder):
    write_offline_paraformer(folder, has_peaks=False)


def write_offline_paraformer(folder, has_peaks):
    """Writes one row for each tone and one for the end. A peak marks the step of each, in thirds of a step."""
    mean, scale = 20.0, 0.5
    g = GraphBuilder()
    bands = stacked_bands(g, "speech")
    begin = begins(g, g.node("Sub", loudest(g, bands), g.float32(loud_after(mean, scale))))
    count = g.node("CumSum", begin, g.int64s(1))
    last = g.node("Cast", g.node("ReduceMax", count, keepdims=0), to=TensorProto.INT64)
    one = g.constant("one", np.array(1, np.int64))
    rows = g.node("Add", last, one)
    numbers = g.node("Range", one, g.node("Add", rows, one), one)
    numbers = g.node("Reshape", g.node("Cast", numbers, to=TensorProto.FLOAT), g.int64s(1, -1, 1))
    # 1 where the step (the last dimension) belongs to the tone of that number (the second one).
    distance = g.node("Abs", g.node("Sub", g.node("Transpose", count, perm=[0, 2, 1]), numbers))
    is_tone = g.node("Cast", g.node("Less", distance, g.float32(0.5)), to=TensorProto.FLOAT)
    words = g.node("MatMul", is_tone, g.node("Mul", loudest_band(g, bands), begin))
    paraformer_scores(g, words, END)
    g.node("Cast", g.node("Reshape", rows, g.int64s(-1)), to=TensorProto.INT32, name="token_num")
    peak_outputs = []
    if has_peaks:
        g.node("Squeeze", begin, g.int64s(2), name="us_alphas")
        none = constant_like(g, begin, 0.0)
        peaks = g.node("Reshape", g.node("Concat", begin, none, none, axis=2), g.int64s(0, -1))
        end = constant_like(g, g.node("Slice", peaks, g.int64s(0), g.int64s(1), g.int64s(1)), 1.0)
        g.node("Concat", peaks, end, axis=1, name="us_cif_peak")
        peak_outputs = [value_info("us_alphas", ["batch", "steps"]), value_info("us_cif_peak", ["batch", "peaks"])]
    g.write(
        folder / "model.int8.onnx",
        "tones_paraformer",
        [
            value_info("speech", ["batch", "steps", STACK * BINS]),
            value_info("speech_lengths", ["batch"], TensorProto.INT32),
        ],
        [
            value_info("logits", ["batch", "rows", len(PARAFORMER_TOKENS)]),
            value_info("token_num", ["batch"], TensorProto.INT32),
            *peak_outputs,
        ],
        {
            "model_type": "paraformer",
            "version": 1,
            "vocab_size": len(PARAFORMER_TOKENS),
            **STACKING,
            **normalization(mean, scale),
        },
    )
    write_tokens(folder, PARAFORMER_TOKENS)


def write_streaming_paraformer(folder):
    """Writes an encoder whose weights (alphas) fire where a tone begins, and a decoder that scores what was gathered until
    then. The library adds positions of up to 1 to features that it multiplied by the root of the width."""
    mean, scale = 10.0, 1.0
    width, kernel = BANDS, 3
    g = GraphBuilder()
    bands = stacked_bands(g, "speech")
    loud = loud_after(mean, scale) * float(np.sqrt(width))
    begin = begins(g, g.node("Sub", loudest(g, bands), g.float32(loud)))
    g.node("Identity", loudest_band(g, bands), name="enc")
    g.node("Identity", "speech_lengths", name="enc_len")
    g.node("Squeeze", begin, g.int64s(2), name="alphas")
    g.write(
        folder / "encoder.int8.onnx",
        "tones_paraformer_encoder",
        [
            value_info("speech", ["batch", "steps", STACK * BINS]),
            value_info("speech_lengths", ["batch"], TensorProto.INT32),
        ],
        [
            value_info("enc", ["batch", "steps", width]),
            value_info("enc_len", ["batch"], TensorProto.INT32),
            value_info("alphas", ["batch", "steps"]),
        ],
        {
            "model_type": "paraformer",
            "version": 1,
            "vocab_size": len(PARAFORMER_TOKENS),
            "encoder_output_size": width,
            "decoder_num_blocks": 1,
            "decoder_kernel_size": kernel,
            **STACKING,
            **normalization(mean, scale),
        },
    )
    g = GraphBuilder()
    paraformer_scores(g, "acoustic_embeds", 0.5 * END)
    g.node("ArgMax", "logits", axis=2, keepdims=0, name="sample_ids")
    g.node("Identity", "in_cache_0", name="out_cache_0")
    cache = ["batch", width, kernel - 1]
    g.write(
        folder / "decoder.int8.onnx",
        "tones_paraformer_decoder",
        [
            value_info("enc", ["batch", "steps", width]),
            value_info("enc_len", ["batch"], TensorProto.INT32),
            value_info("acoustic_embeds", ["batch", "rows", width]),
            value_info("acoustic_embeds_len", ["batch"], TensorProto.INT32),
            value_info("in_cache_0", cache),
        ],
        [
            value_info("logits", ["batch", "rows", len(PARAFORMER_TOKENS)]),
            value_info("sample_ids", ["batch", "rows"], TensorProto.INT64),
            value_info("out_cache_0", cache),
        ],
        {},
    )
    write_tokens(folder, PARAFORMER_TOKENS)


# --- Moonshine ---------------------------------------------------------------------------------------------------------

MOONSHINE_TOKENS = [UNKNOWN_TOKEN, "<s>", "</s>", *ENGLISH_WORDS]
ENCODED = ["batch", "steps", BANDS + 1]
TONES = [300, 1000, 2000, 5000]  # Hz
WAVE = 160  # samples of a step
AMPLITUDE = 0.05  # from which a step holds a tone


def amplitudes(g, audio):
    """[batch, sample] -> amplitudes of TONES, [batch, step, BANDS]"""
    angle = 2 * np.pi * np.outer(TONES, np.arange(WAVE)) / 16000
    # Rounded, because the last bits depend on the machine's mathematics.
    waves = np.round(np.concatenate([np.sin(angle), np.cos(angle)]) * 2 / WAVE, 6).astype(np.float32)
    waves = g.constant("waves", waves.reshape(2 * BANDS, 1, WAVE))
    parts = g.node("Conv", g.node("Unsqueeze", audio, g.int64s(1)), waves, strides=[WAVE])
    power = g.node("Mul", parts, parts)
    sines = g.node("Slice", power, g.int64s(0), g.int64s(BANDS), g.int64s(1))
    cosines = g.node("Slice", power, g.int64s(BANDS), g.int64s(2 * BANDS), g.int64s(1))
    return g.node("Transpose", g.node("Sqrt", g.node("Add", sines, cosines)), perm=[0, 2, 1])


def encode(g, bands, name):
    """Returns for each step 1 for the word that begins in it, and the number of words up to it."""
    begin = begins(g, g.node("Sub", loudest(g, bands), g.float32(AMPLITUDE)))
    words = g.node("Mul", loudest_band(g, bands), begin)
    g.node("Concat", words, g.node("CumSum", begin, g.int64s(1)), axis=2, name=name)


def next_token_scores(g, encoded, index):
    """Scores the word of that index (a float, [1, 1, 1] or a scalar), or the end after the last one."""
    words = g.node("Slice", encoded, g.int64s(0), g.int64s(BANDS), g.int64s(2))
    count = g.node("Slice", encoded, g.int64s(BANDS), g.int64s(BANDS + 1), g.int64s(2))
    distance = g.node("Abs", g.node("Sub", g.node("Sub", count, index), g.float32(1.0)))
    is_here = g.node("Cast", g.node("Less", distance, g.float32(0.5)), to=TensorProto.FLOAT)
    word = g.node("ReduceSum", g.node("Mul", words, is_here), g.int64s(1), keepdims=1)
    write_scores(g, word, [UNKNOWN, UNKNOWN, END, *[0.0] * BANDS])


def one(g):
    return g.constant("one", np.ones((1, 1, 1, 1), np.float32))


def write_moonshine(folder):
    """Writes version 1: the first token has a decoder of its own. The first state counts the tokens."""
    logits = value_info("logits", ["batch", 1, len(MOONSHINE_TOKENS)])
    new_states = [value_info(name, [1, 1, 1, 1]) for name in ("functional_1", "functional_2")]
    request = [
        value_info("args_0", ["batch", 1], TensorProto.INT32),
        value_info("args_1", ENCODED),
        value_info("args_2", ["batch"], TensorProto.INT32),
    ]

    g = GraphBuilder()
    g.node("Identity", amplitudes(g, "args_0"), name="sequential")
    audio = [value_info("args_0", ["batch", "samples"])]
    g.write(folder / "preprocess.onnx", "tones_audio", audio, [value_info("sequential", ["batch", "steps", BANDS])], {})

    g = GraphBuilder()
    encode(g, "args_0", "layer_normalization")
    bands = [value_info("args_0", ["batch", "steps", BANDS]), value_info("args_1", ["batch"], TensorProto.INT32)]
    encoded = [value_info("layer_normalization", ENCODED)]
    g.write(folder / "encode.int8.onnx", "tones_encode", bands, encoded, {})

    g = GraphBuilder()
    next_token_scores(g, "args_1", g.float32(0.0))
    g.node("Identity", one(g), name="functional_1")
    g.node("Identity", one(g), name="functional_2")
    g.write(folder / "uncached_decode.int8.onnx", "tones_first_token", request, [logits, *new_states], {})

    g = GraphBuilder()
    next_token_scores(g, "args_1", g.node("Reshape", "args_3", g.int64s(1, 1, 1)))
    g.node("Add", "args_3", one(g), name="functional_1")
    g.node("Identity", "args_4", name="functional_2")
    states = [value_info(name, [1, 1, 1, 1]) for name in ("args_3", "args_4")]
    g.write(folder / "cached_decode.int8.onnx", "tones_next_token", request + states, [logits, *new_states], {})
    write_tokens(folder, MOONSHINE_TOKENS)


def write_moonshine_merged(folder):
    """Writes version 2: one decoder. Its cache grows by one step with each token. tokens.txt holds base64."""
    g = GraphBuilder()
    encode(g, amplitudes(g, "input_values"), "last_hidden_state")
    audio = [value_info("input_values", ["batch", "samples"])]
    encoded = [value_info("last_hidden_state", ENCODED)]
    g.write(folder / "encoder_model.onnx", "tones_encoder_model", audio, encoded, {})

    g = GraphBuilder()
    length = g.node("Slice", g.node("Shape", "past_key_values.0.decoder.key"), g.int64s(2), g.int64s(3))
    count = g.node("Reshape", g.node("Cast", length, to=TensorProto.FLOAT), g.int64s(1, 1, 1))
    next_token_scores(g, "encoder_hidden_states", count)
    caches = [f"0.{part}.{what}" for part in ("decoder", "encoder") for what in ("key", "value")]
    for cache in caches:
        if cache.startswith("0.decoder"):
            g.node("Concat", "past_key_values." + cache, one(g), axis=2, name="present." + cache)
        else:
            g.node("Identity", "past_key_values." + cache, name="present." + cache)
    shape = ["batch", 1, "length", 1]
    g.write(
        folder / "decoder_model_merged.onnx",
        "tones_decoder_model",
        [
            value_info("input_ids", ["batch", "tokens"], TensorProto.INT64),
            value_info("encoder_hidden_states", ENCODED),
            *(value_info("past_key_values." + cache, shape) for cache in caches),
            value_info("use_cache_branch", [1], TensorProto.BOOL),
        ],
        [
            value_info("logits", ["batch", 1, len(MOONSHINE_TOKENS)]),
            *(value_info("present." + cache, shape) for cache in caches),
        ],
        {},
    )
    write_tokens(folder, [base64.b64encode(token.encode()).decode() for token in MOONSHINE_TOKENS])
