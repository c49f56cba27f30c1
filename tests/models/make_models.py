#!/usr/bin/env python3
"""Writes the speech models of a few kB that the tests load, one folder for each kind.

usage: make_models.py TARGET [KIND...]     writes TARGET/KIND/..., by default all kinds
       make_models.py --ort TARGET         writes TARGET/moonshine-merged-ort from TARGET/moonshine-merged

A model recognizes tones as words (tone_graphs.py). It has the names of files, the metadata, the inputs and the outputs of a
published model of its kind, and weights that were chosen by hand. The same files result each time, except with --ort. Needs
numpy and onnx, and onnxruntime with --ort.
"""
import pathlib
import shutil
import sys

import attention_models
import ctc_models
import transducer_models

KINDS = {
    "tones": transducer_models.write_tones,
    "streaming-lstm": transducer_models.write_streaming_lstm,
    "streaming-zipformer": transducer_models.write_streaming_zipformer,
    "streaming-zipformer2": transducer_models.write_streaming_zipformer2,
    "streaming-nemo": transducer_models.write_streaming_nemo,
    "streaming-nemo-multilingual": transducer_models.write_streaming_nemo_multilingual,
    "streaming-zipformer2-ctc": ctc_models.write_streaming_zipformer,
    "streaming-nemo-ctc": ctc_models.write_streaming_nemo,
    "streaming-paraformer": attention_models.write_streaming_paraformer,
    "zipformer": transducer_models.write_zipformer,
    "nemo": transducer_models.write_nemo,
    "nemo-tdt": transducer_models.write_nemo_tdt,
    "nemo-ctc": ctc_models.write_nemo,
    "zipformer-ctc": ctc_models.write_zipformer,
    "wenet-ctc": ctc_models.write_wenet,
    "telespeech-ctc": ctc_models.write_telespeech,
    "paraformer": attention_models.write_paraformer,
    "paraformer-without-peaks": attention_models.write_paraformer_without_peaks,
    "sense-voice": attention_models.write_sense_voice,
    "moonshine": attention_models.write_moonshine,
    "moonshine-merged": attention_models.write_moonshine_merged,
}


def convert_to_ort(source, target):
    """Converts a folder's models to the format of the ONNX Runtime, in which Moonshine 2 is published."""
    import onnxruntime  # only here: the tests that write the models again run without it

    target.mkdir(parents=True, exist_ok=True)
    for model in sorted(source.glob("*.onnx")):
        options = onnxruntime.SessionOptions()
        options.graph_optimization_level = onnxruntime.GraphOptimizationLevel.ORT_DISABLE_ALL
        options.optimized_model_filepath = str(target / model.with_suffix(".ort").name)
        options.add_session_config_entry("session.save_model_format", "ORT")
        onnxruntime.InferenceSession(str(model), options, providers=["CPUExecutionProvider"])
    shutil.copy(source / "tokens.txt", target)


def main():
    arguments = sys.argv[1:]
    is_ort = "--ort" in arguments
    arguments = [argument for argument in arguments if argument != "--ort"]
    if not arguments or (is_ort and len(arguments) > 1) or any(kind not in KINDS for kind in arguments[1:]):
        print(__doc__.split("\n\n")[1], file=sys.stderr)
        return 2
    target = pathlib.Path(arguments[0])
    if is_ort:
        convert_to_ort(target / "moonshine-merged", target / "moonshine-merged-ort")
        return 0
    for kind in arguments[1:] or KINDS:
        folder = target / kind
        folder.mkdir(parents=True, exist_ok=True)
        KINDS[kind](folder)
    return 0


if __name__ == "__main__":
    sys.exit(main())
