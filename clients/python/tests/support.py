"""What the tests of the client share."""

from __future__ import annotations

import asyncio
import os
import select
import sys
import time
import unittest
from pathlib import Path
from typing import Any, Awaitable, TypeVar

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "src"))

FAKE = [sys.executable, "-S", str(Path(__file__).with_name("fake_helper.py"))]
HELPER = os.environ.get("PALAVER_HELPER", "")
SIMULATOR = os.environ.get("PALAVER_SIMULATOR", "")
DATA = Path("/usr/share/pocketsphinx/test/data")
VOICE = b"\x10\x00" * 1600
QUIET = bytes(3200)

T = TypeVar("T")


class ClientTest(unittest.IsolatedAsyncioTestCase):
    """Fails a test that leaves an unhandled error in the event loop."""

    async def asyncSetUp(self) -> None:
        self.unhandled: list[dict[str, Any]] = []
        asyncio.get_running_loop().set_exception_handler(lambda _, context: self.unhandled.append(context))

    async def asyncTearDown(self) -> None:
        self.assertEqual(self.unhandled, [])

    async def within(self, seconds: float, awaitable: Awaitable[T]) -> T:
        """The result, which must be there in time; an exception of the awaitable passes."""
        start = time.monotonic()
        try:
            return await asyncio.wait_for(awaitable, seconds + 20)
        finally:
            self.assertLess(time.monotonic() - start, seconds)


def process_ends_within(pid: int, seconds: float) -> bool:
    try:
        descriptor = os.pidfd_open(pid)
    except ProcessLookupError:
        return True
    try:
        return bool(select.select([descriptor], [], [], seconds)[0])
    finally:
        os.close(descriptor)
