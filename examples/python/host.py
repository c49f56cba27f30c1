"""python3 host.py FILE.wav [LOCALE]

Plays a recording (16 kHz, mono, 16-bit) to the helper as the far side of a call, and prints the transcript. The helper is found
by PALAVER_STT_HELPER, or on the path.
"""
import asyncio
import sys
import wave

from palaver_stt import Helper, SessionUnavailableError


async def transcribe(path: str, locale: str = "ja-JP") -> None:
    async with Helper.start() as helper, helper.session(locale) as session:

        async def show() -> None:
            async for utterance in session.utterances(finals_only=True):
                print(f"{utterance.source}: {utterance.text}")

        showing = asyncio.create_task(show())
        with wave.open(path) as file:
            while chunk := file.readframes(1600):  # 100 ms
                session.send("remote", chunk)
                await asyncio.sleep(0.1)  # the pace of speech
        await session.stop()
        await showing


try:
    asyncio.run(transcribe(*sys.argv[1:3]))
except SessionUnavailableError as error:
    sys.exit(str(error))
