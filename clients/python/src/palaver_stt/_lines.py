"""Splits a stream of bytes into lines at 0x0A."""

from __future__ import annotations


class LineSplitter:
    """Splits at the byte 0x0A and nowhere else, so that U+2028 inside a string and a character cut by a read do no harm.

    longest: bytes; a longer line is skipped to its end, which bounds memory.
    """

    def __init__(self, longest: int = 64 << 20) -> None:
        self._longest = longest
        self._rest = bytearray()
        self._skipping = False

    def feed(self, data: bytes) -> list[bytes]:
        """Returns the lines that `data` completes, without their line feeds."""
        first, *others = data.split(b"\n")
        self._append(first)
        lines: list[bytes] = []
        for piece in others:
            if not self._skipping:
                lines.append(bytes(self._rest))
            self._rest.clear()
            self._skipping = False
            self._append(piece)
        return lines

    def _append(self, piece: bytes) -> None:
        if self._skipping:
            return
        self._rest += piece
        if len(self._rest) > self._longest:
            self._rest.clear()
            self._skipping = True
