"""Finds the helper program."""

from __future__ import annotations

import os
import shutil
from pathlib import Path

PROGRAM = "PalaverSTTHelper"

# A wheel for a platform holds the programs.
_OWN = Path(__file__).with_name("_programs")


def find_helper() -> str:
    """The path of the helper: PALAVER_STT_HELPER, then the one in this package, then the PATH. Its bare name if there is none."""
    own = _OWN / PROGRAM
    return os.environ.get("PALAVER_STT_HELPER") or (str(own) if os.access(own, os.X_OK) else None) or shutil.which(PROGRAM) or PROGRAM
