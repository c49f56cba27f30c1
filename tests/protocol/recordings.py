"""What the simulated helper writes in every scenario, for the tests of the protocol."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "protocol"))

from conversation import Conversation  # noqa: E402

HELPER = os.environ.get("PALAVER_HELPER", "")
SIMULATOR = os.environ.get("PALAVER_SIMULATOR", "")


def require_jsonschema(what: str) -> None:
    """Ends the test as skipped if jsonschema is missing."""
    try:
        import jsonschema

        jsonschema.Draft202012Validator
    except (ImportError, AttributeError):
        print(f"SKIPPED: {what} not checked: {sys.executable} lacks jsonschema 4 (Debian: python3-jsonschema)")
        sys.exit(77)


def short_run() -> Conversation:
    """The real helper with a session that is opened and stopped."""
    commands = [
        {"type": "session.start", "sessionId": "m", "locale": "en-US", "vocabulary": ["Palaver", "田中"]},
        {"type": "source.suppress", "sessionId": "m", "source": "self", "suppressed": True},
        {"type": "session.stop", "sessionId": "m"},
    ]
    data = b"".join(json.dumps(command, ensure_ascii=False).encode() + b"\n" for command in commands)
    done = subprocess.run([HELPER], input=data, capture_output=True, check=True, timeout=60)
    return Conversation(done.stdout.decode().splitlines(), [], data, True, done.returncode)


def scenarios() -> dict[str, Conversation]:
    """Every run of every scenario, by the scenario's name and the run's seed."""
    files = sorted(map(str, (ROOT / "tests/scenarios").glob("*.json")))
    done = subprocess.run([SIMULATOR, "record", *files], capture_output=True, check=True)
    runs = {}
    for line in done.stdout.splitlines():
        run = json.loads(line)
        pieces = [bytes.fromhex(piece[0]) if isinstance(piece, list) else piece.encode() for piece in run["input"]]
        runs[f"{run['scenario']} {run['seed'] or ''}".strip()] = Conversation(
            run["output"], run["arguments"], b"".join(pieces), run["exitStatus"] is not None, run["exitStatus"]
        )
    return runs
