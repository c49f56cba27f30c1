"""host.py HELPER: opens a session, prints the helper's process id, and waits for its own end."""

import asyncio
import sys

import support  # noqa: F401, finds the package

from palaver_stt import Helper


async def main() -> None:
    async with Helper.start(sys.argv[1]) as helper, helper.session("en-US") as session:
        session.send("remote", bytes(3200))
        print(helper.pid, flush=True)
        await asyncio.Event().wait()


asyncio.run(main())
