"""CTC models: one graph each, whose output scores the tokens of each step."""
from tone_graphs import (
    BINS,
    BLANK,
    BLANK_TOKEN,
    INTEGER_SAMPLES,
    LOUD,
    LOUD_DEVIATIONS,
    TOKENS,
    UNKNOWN,
    UNKNOWN_TOKEN,
    WORD,
    GraphBuilder,
    TensorProto,
    any_tone,
    begins,
    constant_like,
    divided,
    mean_of_steps,
    token_scores,
    value_info,
    write_tokens,
)
from transducer_models import nemo_streaming_encoder, zipformer2_streaming_encoder

NEMO_TOKENS = [UNKNOWN_TOKEN, "▁tone", BLANK_TOKEN]


def write_zipformer(folder):
    write_with_lengths(folder, "log_probs_len", LOUD, {"model_type": "zipformer2_ctc", "version": 1})


def write_wenet(folder):
    """WeNet's features are those of samples up to 32768."""
    metadata = {"model_type": "wenet_ctc", "version": 1, "vocab_size": len(TOKENS), "subsampling_factor": 4}
    write_with_lengths(folder, "log_probs_lens", LOUD + INTEGER_SAMPLES, metadata)


def write_with_lengths(folder, lengths, loud, metadata):
    g = GraphBuilder()
    token_scores(g, "x", 4, loud, name="log_probs")
    divided(g, "x_lens", 4, lengths)
    g.write(
        folder / "model.int8.onnx",
        "tones_ctc",
        [value_info("x", ["batch", "frames", BINS]), value_info("x_lens", ["batch"], TensorProto.INT64)],
        [value_info("log_probs", ["batch", "steps", len(TOKENS)]), value_info(lengths, ["batch"], TensorProto.INT64)],
        metadata,
    )
    write_tokens(folder, TOKENS)


def nemo_scores(g, begin, above, name):
    word = g.node("Mul", begin, g.float32(WORD))
    unknown, blank = (constant_like(g, above, score) for score in (UNKNOWN, BLANK))
    g.node("Concat", unknown, word, blank, axis=2, name=name)


def write_nemo(folder):
    g = GraphBuilder()
    frames = g.node("Transpose", "audio_signal", perm=[0, 2, 1])
    nemo_scores(g, *any_tone(g, frames, 8, LOUD_DEVIATIONS), "logprobs")
    g.write(
        folder / "model.int8.onnx",
        "tones_nemo_ctc",
        [value_info("audio_signal", ["batch", BINS, "frames"]), value_info("length", ["batch"], TensorProto.INT64)],
        [value_info("logprobs", ["batch", "steps", len(NEMO_TOKENS)])],
        {
            "model_type": "EncDecHybridRNNTCTCBPEModel",
            "version": 1,
            "vocab_size": len(NEMO_TOKENS) - 1,  # without the blank
            "subsampling_factor": 8,
            "normalize_type": "per_feature",
        },
    )
    write_tokens(folder, NEMO_TOKENS)


def write_telespeech(folder):
    """TeleSpeech's features are cepstra with the deviation 1, the first of which is the energy. The output is
    [step, batch, token]."""
    tokens = [BLANK_TOKEN, "音"]
    g = GraphBuilder()
    energy = g.node("Slice", mean_of_steps(g, "feats", 4), g.int64s(0), g.int64s(1), g.int64s(2))
    above = g.node("Sub", energy, g.float32(LOUD_DEVIATIONS))
    word = g.node("Mul", begins(g, above), g.float32(WORD))
    scores = g.node("Concat", constant_like(g, above, BLANK), word, axis=2)
    g.node("Transpose", scores, perm=[1, 0, 2], name="logits")
    g.write(
        folder / "model.int8.onnx",
        "tones_telespeech",
        [value_info("feats", ["batch", "frames", 40])],
        [value_info("logits", ["steps", "batch", len(tokens)])],
        {"model_type": "telespeech_ctc", "version": 1},
    )
    write_tokens(folder, tokens)


def write_streaming_zipformer(folder):
    file = folder / "ctc-epoch-20-avg-1-chunk-16-left-128.int8.onnx"
    zipformer2_streaming_encoder(file, "log_probs", {"model_type": "zipformer2", "comment": "streaming ctc zipformer2"})
    write_tokens(folder, TOKENS)


def write_streaming_nemo(folder):
    nemo_streaming_encoder(
        folder / "model.int8.onnx",
        "logprobs",
        ["batch", "steps", len(NEMO_TOKENS)],
        lambda g, begin, count, above, name: nemo_scores(g, begin, above, name),
        {"model_type": "EncDecHybridRNNTCTCBPEModel", "vocab_size": len(NEMO_TOKENS) - 1},
    )
    write_tokens(folder, NEMO_TOKENS)
