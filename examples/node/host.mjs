// node host.mjs FILE.wav [LOCALE]
// Plays a recording to the helper as the far side of a call, and prints the transcript.
import {PalaverHelper} from 'palaver-stt';
import {paced, readRecording} from 'palaver-stt/recording';

const [file, locale = 'ja-JP'] = process.argv.slice(2);
const recording = await readRecording(file);
const helper = await PalaverHelper.start();
const session = await helper.openSession({locale, sources: ['remote']});
if (!session.available) console.error(`No recognition of ${locale}. ${helper.status.message}`);
const printing = (async () => {
  for await (const {state, source, text} of session.utterances) if (state === 'final') console.log(`${source}: ${text}`);
})();
for await (const chunk of paced(recording)) session.send('remote', chunk);
for (const {message, count} of (await session.stop()).errors) console.error(`${message} (${count} times)`);
await printing;
process.exitCode = (await helper.close()).exitCode ?? 1;
