"""Checks what a helper wrote against the schema and the rules of the protocol, where jsonschema is installed."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "protocol"))

import conversation  # noqa: E402

try:
    import validate
except ImportError:
    validate = None
    print(f"not checked: the lines against the schema, as {sys.executable} lacks jsonschema", file=sys.stderr)


def faults(lines, arguments=(), status=None):
    """Every breach in the lines (bytes) of a helper that has ended with that status, or runs (None)."""
    texts = [line.decode("utf-8").removesuffix("\n") for line in lines]
    run = conversation.Conversation(texts, list(arguments), None, status is not None, status)
    if validate is None:
        return [f"{rule}: {text}" for rule, text in conversation.violations(run)]
    return validate.faults(run, validate.Schemas())
