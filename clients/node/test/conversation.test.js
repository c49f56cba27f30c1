import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import {describe} from 'node:test';

import {paced} from '../src/recording.js';
import {Collected, gone, isAlive, ofType, rawRecording, realHelper, simulator, start, test, withoutHelper,
  withoutSimulator} from './support.js';

const skip = withoutHelper;
const words = 'go forward ten meters';
const quiet = ms => new Int16Array(ms * 16);

async function play(session, source, ...recordings) {
  for (const samples of recordings) for await (const chunk of paced(samples)) session.send(source, chunk);
}

describe('meetings', {concurrency: 2}, () => {
  test('a recording is recognized, drained and reported', {skip}, async () => {
    const helper = await start({helperPath: realHelper});
    const session = await helper.openSession({locale: 'en-US', sources: ['remote']});
    assert.equal(session.available, true);
    const utterances = new Collected(session.utterances);
    await play(session, 'remote', rawRecording('goforward.raw'));
    const report = await session.stop({drainMs: 20_000});
    await utterances.done;
    const finals = utterances.values.filter(({state}) => state === 'final');
    assert.deepEqual(finals.map(({text, source, reason}) => [text, source, reason]), [[words, 'remote', 'silence']]);
    assert.ok(utterances.values.some(({state}) => state === 'partial'));
    assert.ok(finals[0].speechEndedAt > finals[0].startedAt);
    assert.equal(report.drained, true);
    assert.equal(report.finals, 1);
    assert.ok(Math.abs((await helper.ping()).clockOffsetMs) < 1000);
    assert.deepEqual(await helper.close(), {exitCode: 0, signal: null, forced: false});
  });

  test('words that are open when the host closes become finals', {skip}, async () => {
    const helper = await start({helperPath: realHelper});
    const session = await helper.openSession({locale: 'en-US', sources: ['self']});
    const utterances = new Collected(session.utterances);
    const playing = play(session, 'self', rawRecording('goforward.raw'));
    await utterances.find(({state, text}) => state === 'partial' && text.startsWith('go forward'));
    await helper.close();
    await utterances.done;
    await playing;
    assert.equal(utterances.values.at(-1).state, 'final');
    assert.equal(utterances.values.at(-1).reason, 'flush');
  });

  test('two clients at once keep their words apart', {skip}, async () => {
    const meeting = async (name, expected) => {
      const helper = await start({helperPath: realHelper});
      const session = await helper.openSession({locale: 'en-US', sources: ['remote']});
      const utterances = new Collected(session.utterances);
      await play(session, 'remote', rawRecording(name));
      await session.stop({drainMs: 20_000});
      await utterances.done;
      await helper.close();
      assert.equal(utterances.values.filter(({state}) => state === 'final').map(({text}) => text).join(' ').includes(expected), true,
        JSON.stringify(utterances.values.at(-1)));
    };
    await Promise.all([meeting('goforward.raw', words), meeting('something.raw', 'something')]);
  });

  test('the helper ends with a host that is killed', {skip}, async () => {
    const host = spawn(process.execPath, ['--input-type=module', '-e', `
      import {PalaverHelper} from ${JSON.stringify(new URL('../src/index.js', import.meta.url).href)};
      const helper = await PalaverHelper.start({helperPath: ${JSON.stringify(realHelper)}});
      const session = await helper.openSession({locale: 'en-US'});
      session.send('remote', new Int16Array(1600));
      await helper.ping();
      console.log(helper.pid);
      setInterval(() => {}, 1e6);
    `], {stdio: ['ignore', 'pipe', 'inherit']});
    const pid = Number(String((await once(host.stdout, 'data'))[0]));
    assert.equal(isAlive(pid), true);
    const began = performance.now();
    host.kill('SIGKILL');
    await gone(pid);
    assert.ok(performance.now() - began < 1000);
  });

  test('a host may play macOS 26 with its sources prepared one by one', {skip: skip || withoutSimulator}, async () => {
    const helper = await start({helperPath: simulator, args: ['analyzer']});
    assert.equal(helper.status.implementation, 'speech-analyzer');
    const session = await helper.openSession({locale: 'en-US', sources: ['remote', 'self']});
    assert.equal(session.available, true);
    const utterances = new Collected(session.utterances);
    await play(session, 'remote', rawRecording('goforward.raw'));
    const report = await session.stop({drainMs: 20_000});
    await utterances.done;
    assert.deepEqual(utterances.values.filter(({state}) => state === 'final').map(({text, reason}) => [text, reason]), [[words, 'framework']]);
    assert.equal(report.abandoned, utterances.values.filter(({state}) => state === 'abandoned').length);
    await helper.close();
  });

  test('a killed helper is replaced in the middle of a meeting', {skip}, async () => {
    const helper = await start({helperPath: realHelper});
    const events = new Collected(helper.events());
    const session = await helper.openSession({locale: 'en-US', sources: ['remote']});
    const utterances = new Collected(session.utterances);
    const playing = play(session, 'remote', rawRecording('goforward.raw'));
    await utterances.find(({state}) => state === 'partial');
    process.kill(helper.pid, 'SIGKILL');
    await playing;
    const gap = await events.find(ofType('client.gap'));
    assert.ok(gap.to >= gap.from);
    await play(session, 'remote', quiet(1000), rawRecording('goforward.raw'));
    await session.stop({drainMs: 20_000});
    await utterances.done;
    const finals = utterances.values.filter(({state}) => state === 'final');
    assert.equal(finals.at(-1).text, words);
    assert.ok(utterances.values.some(({state}) => state === 'abandoned'));
    await helper.close();
  });
});
