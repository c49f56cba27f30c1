"""The speech engines of this machine, as the environment that makes a helper use them."""

import pathlib

WHISPER = pathlib.Path(__file__).resolve().parents[1] / "build/speech/models/whisper-tiny.en"
TONES = pathlib.Path(__file__).resolve().parents[1] / "tests/models/tones"


def environment_with(folder, models):
    """A user's folder of data, made in `folder`, with links to models by locale."""
    place = folder / "palaver-stt/models"
    place.mkdir(parents=True)
    for locale, model in models.items():
        (place / locale).symlink_to(model)
    return {"XDG_DATA_HOME": str(folder)}


def english_engines(folder):
    """By name, the environment of each engine that hears English. Whisper's model is that of ./dev demo."""
    found = {"PocketSphinx": environment_with(folder / "pocketsphinx", {})}
    if WHISPER.is_dir():
        found["Whisper tiny.en"] = environment_with(folder / "whisper", {"en-US": WHISPER})
    return found
