import assert from 'node:assert/strict';

import {paced} from '../src/recording.js';
import {Collected, ofType, rawRecording, realHelper, start, test, withoutHelper as skip} from './support.js';

const words = 'go forward ten meters';
const quiet = ms => new Int16Array(ms * 16);

async function play(session, source, ...recordings) {
  for (const samples of recordings) for await (const chunk of paced(samples)) session.send(source, chunk);
}

test('a helper that is stopped for ten seconds goes on without a restart', {skip}, async () => {
  const helper = await start({helperPath: realHelper});
  const events = new Collected(helper.events());
  const session = await helper.openSession({locale: 'en-US', sources: ['remote']});
  const utterances = new Collected(session.utterances);
  const {pid} = helper;
  await play(session, 'remote', rawRecording('goforward.raw'), quiet(1500));
  await utterances.find(({state}) => state === 'final');
  process.kill(pid, 'SIGSTOP');
  await play(session, 'remote', quiet(6000), rawRecording('goforward.raw'), quiet(1400));  // ten seconds in all
  process.kill(pid, 'SIGCONT');
  const report = await session.stop({drainMs: 20_000});
  await utterances.done;
  assert.equal(helper.pid, pid);
  assert.equal(events.values.some(ofType('client.exited')), false);
  assert.deepEqual(utterances.values.filter(({state}) => state === 'final').map(({text}) => text), [words, words]);
  assert.equal(report.chunks.dropped, 0);
  assert.equal(report.drained, true);
  await helper.close();
});
