import assert from 'node:assert/strict';
import {chmodSync, mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';

import {PalaverError, findHelper} from '../src/index.js';
import {Collected, PalaverHelper, VirtualClock, fake, gone, isAlive, ofType, realHelper, received, simulator, start,
  startOn, test, withoutHelper, withoutSimulator} from './support.js';

const chunk = new Int16Array(1600);

test('a missing program is named', async () => {
  await assert.rejects(PalaverHelper.start({helperPath: '/nowhere/PalaverSTTHelper'}), {
    name: 'PalaverError', code: 'helper-not-found', message: 'There is no helper at /nowhere/PalaverSTTHelper',
  });
});

test('a program without its executable bit says how to set it', async () => {
  const folder = mkdtempSync(join(tmpdir(), 'palaver-'));
  const path = join(folder, 'PalaverSTTHelper');
  writeFileSync(path, '#!/bin/sh\n', {mode: 0o644});
  await assert.rejects(PalaverHelper.start({helperPath: path}), {code: 'helper-not-executable', message: /chmod \+x/});
  chmodSync(path, 0o755);
  assert.equal(findHelper({PATH: `relative:${folder}`}), path);
  rmSync(folder, {recursive: true});
});

test('the search for a helper names the places', () => {
  assert.throws(() => findHelper({PATH: '/nowhere'}), error => error instanceof PalaverError && error.code === 'helper-not-found' &&
    /helperPath.*PALAVER_STT_HELPER.*prebuilt/.test(error.message));
  assert.equal(findHelper({PALAVER_STT_HELPER: '/named/helper', PATH: ''}), '/named/helper');
});

test('a helper that ends before its first status is not restarted', async () => {
  await assert.rejects(PalaverHelper.start(fake('exit-at-start')), {
    code: 'helper-exited', exitCode: 3, signal: null, stderr: 'no speech framework\n',
  });
});

test('a helper without a status is ended', async () => {
  const error = await start({...fake('silent'), statusTimeoutMs: 300}).catch(caught => caught);
  assert.equal(error.code, 'timeout');
});

test('a helper of another protocol is refused', async () => {
  await assert.rejects(PalaverHelper.start(fake('future')), {code: 'unsupported-protocol'});
});

test('a session without an answer times out and is forgotten', async () => {
  const helper = await start(fake('never-ready'));
  const events = new Collected(helper.events());
  // The helper answers a ping: the session is open, but nothing is ready.
  const session = await helper.openSession({sessionId: 'm', readyTimeoutMs: 200});
  assert.equal(session.available, false);
  await events.find(received('session.start'));
  await helper.close();
  const deaf = await start(fake('deaf'));
  await assert.rejects(deaf.openSession({readyTimeoutMs: 200}), {code: 'timeout'});
  await assert.rejects(deaf.ping({timeoutMs: 50}), {code: 'timeout'});
  await deaf.close({timeoutMs: 100});
});

test('wrong options are refused by name', async () => {
  const helper = await start(fake('plain'));
  const refused = [{locale: 1}, {vocabulary: 'words'}, {vocabulary: [1]}, {vocabulary: Array(101).fill('x')}, {sources: []},
    {sources: ['both']}, {sessionId: 3}, {readyTimeoutMs: 'soon'}];
  for (const options of refused) {
    await assert.rejects(helper.openSession(options), {code: 'invalid-argument', message: new RegExp(Object.keys(options)[0])});
  }
  await helper.openSession({sessionId: 'same'});
  await assert.rejects(helper.openSession({sessionId: 'same'}), {code: 'invalid-argument', message: /already open/});
  await helper.close();
});

test('send never throws and reports wrong arguments once with a count', async () => {
  const helper = await start(fake('plain'));
  const events = new Collected(helper.events());
  const session = await helper.openSession({sources: ['remote']});
  for (let i = 0; i < 5; ++i) assert.equal(session.send('self', chunk), 'dropped');
  assert.equal(session.send('remote', new Float32Array(1600)), 'dropped');
  assert.equal(session.send('remote', undefined), 'dropped');
  assert.equal(session.send('remote', chunk, NaN), 'dropped');
  assert.equal(session.send(Symbol('source'), chunk), 'dropped');
  assert.equal(session.send('remote', chunk), 'sent');
  await session.stop({drainMs: 0});
  assert.equal(session.send('remote', chunk), 'closed');
  await helper.close();
  await events.done;
  const errors = events.values.filter(ofType('client.error'));
  assert.deepEqual(errors.filter(({message}) => message.includes('source self')).map(({count}) => count), [1, 4]);
  assert.deepEqual(errors.filter(({code}) => code === 'invalid-audio').map(({count}) => count), [1, 1, 1]);
});

test('errors per chunk are folded, with their code and cure', async () => {
  const helper = await start(fake('error-per-chunk'));
  const events = new Collected(helper.events());
  const session = await helper.openSession();
  for (let i = 0; i < 20; ++i) session.send('remote', chunk);
  await helper.ping();
  const report = await session.stop({drainMs: 0});
  await helper.close();
  await events.done;
  const errors = events.values.filter(ofType('helper.error'));
  assert.deepEqual(errors.map(({code, count}) => [code, count]), [['model-missing', 1], ['model-missing', 19]]);
  assert.ok(errors[0].cure.length > 0);
  assert.deepEqual(report.errors.map(({code, count, source}) => [code, count, source]), [['model-missing', 20, 'remote']]);
});

test('samples, sequence and time arrive as they were sent', async () => {
  const helper = await start(fake('plain'));
  const events = new Collected(helper.events());
  const session = await helper.openSession();
  const samples = Int16Array.from({length: 1000}, (_, i) => i * 65 - 32768);
  assert.equal(session.send('self', samples.subarray(1, 801), 123.5), 'sent');
  const before = Date.now();
  session.send('self', chunk);
  await helper.ping();
  await events.settled();
  const audio = events.values.filter(received('audio')).map(({raw}) => raw.command);
  const bytes = Buffer.from(audio[0].pcmBase64, 'base64');
  assert.deepEqual(Array.from({length: 800}, (_, i) => bytes.readInt16LE(2 * i)), [...samples.subarray(1, 801)]);
  assert.deepEqual(audio.map(({sequence}) => sequence), [0, 1]);
  assert.equal(audio[0].capturedAt, 123.5);
  assert.ok(Math.abs(audio[1].capturedAt - (before - 100)) < 1000, 'taken as just recorded');
  await helper.close();
});

test('a muted source sends nothing and its utterances are abandoned', async () => {
  const helper = await start(fake('partials'));
  const events = new Collected(helper.events());
  const session = await helper.openSession({sessionId: 'm'});
  const utterances = new Collected(session.utterances);
  session.send('remote', chunk);
  await utterances.find(({state}) => state === 'partial');
  assert.equal(await session.suppress('remote'), 'applied');
  assert.equal(session.send('remote', chunk), 'dropped');
  await utterances.find(({state, text}) => state === 'abandoned' && text === 'words so far');
  assert.equal(await session.suppress('remote', false), 'applied');
  assert.equal(session.send('remote', chunk), 'sent');
  await helper.ping();
  await events.settled();
  assert.equal(events.values.filter(received('audio')).length, 2);
  await helper.close();
  assert.equal(await session.suppress('remote'), 'closed');
});

test('stopping sends 1.5 s of quiet, and on after voice without text', async () => {
  for (const [level, padding] of [[0, 15], [100, 15], [1000, 50]]) {
    const clock = new VirtualClock();
    const helper = await startOn(clock, fake('plain'));
    const events = new Collected(helper.events());
    const session = await helper.openSession({sources: ['self']});
    assert.equal(session.send('self', new Int16Array(1600).fill(level)), 'sent');
    const stopping = session.stop();
    for (let step = 0; step < padding; ++step) {
      await new Promise(setImmediate);  // the client sends, and waits for the clock
      assert.equal(events.values.some(ofType('session.stopped')), false);
      clock.advance(100);
    }
    assert.equal((await stopping).drained, true);
    await events.settled();
    const audio = events.values.filter(received('audio')).map(({raw}) => raw.command.capturedAt);
    assert.equal(audio.length, 1 + padding, `level ${level}`);
    assert.ok(audio.every((time, index) => time === audio[0] + index * 100), 'without a gap');
  }
});

test('an utterance whose id changes with its final is not left open', async () => {
  const helper = await start(fake('changing-ids'));
  const session = await helper.openSession({sessionId: 'm'});
  const utterances = new Collected(session.utterances);
  session.send('remote', chunk);
  await utterances.find(({state}) => state === 'final');
  assert.deepEqual(utterances.values.map(({id, state}) => `${id} ${state}`),
    ['a-1000 partial', 'b-2000 partial', 'a-1000 abandoned', 'a-1010 final']);
  await helper.close();
});

test('on macOS 26 a session waits for each of its sources and for late finals', async () => {
  const helper = await start(fake('analyzer', 'remote,self'));
  assert.equal(helper.status.status, 'ready');
  const session = await helper.openSession({sessionId: 'm'});
  assert.equal(session.available, true);
  const utterances = new Collected(session.utterances);
  const report = await session.stop();
  assert.equal(report.finals, 1);
  assert.equal(report.stopped, true);
  await utterances.done;
  assert.equal(utterances.values[0].text, 'last words');
  await helper.close();

  const half = await start(fake('analyzer', 'self'));
  const onlySelf = await half.openSession({sources: ['self']});
  assert.equal(onlySelf.available, true);
  await half.close();
});

test('close is graceful, bounded and never rejects', async () => {
  const helper = await start(fake('plain'));
  const {pid} = helper;
  const pings = [helper.ping(), helper.ping()];
  await Promise.all(pings);
  const closing = helper.close();
  assert.equal(helper.close({timeoutMs: 1}), closing);
  assert.deepEqual(await closing, {exitCode: 0, signal: null, forced: false});
  assert.equal(isAlive(pid), false);
  assert.equal(helper.pid, undefined);
  await assert.rejects(helper.ping(), {code: 'closed'});
  await assert.rejects(helper.openSession(), {code: 'closed'});
  assert.deepEqual(await helper.events().next(), {value: undefined, done: true});

  const stubborn = await start(fake('stubborn'));
  const began = performance.now();
  assert.deepEqual(await stubborn.close({timeoutMs: 200}), {exitCode: null, signal: 'SIGKILL', forced: true});
  assert.ok(performance.now() - began < 1200 + 1000);
});

test('close settles what waits', async () => {
  const helper = await start(fake('no-pong'));
  const session = await helper.openSession();
  const utterance = session.utterances.next();
  const event = new Collected(helper.events());
  const ping = assert.rejects(helper.ping(), {code: 'closed'});
  await helper.close();
  await ping;
  await event.done;
  assert.equal((await utterance).done, true);
  assert.equal((await session.stop()).stopped, false);
});

test('a process that holds the streams of a killed helper does not delay anything', async () => {
  const helper = await start({...fake('holder'), restart: false});
  const events = new Collected(helper.events());
  const began = performance.now();
  process.kill(helper.pid, 'SIGKILL');
  await events.done;
  assert.ok(performance.now() - began < 2000);
  assert.deepEqual(events.values.filter(ofType('client.exited')).map(({signal, willRestart}) => [signal, willRestart]), [['SIGKILL', false]]);
  await helper.close();
});

test('one-shot modes of the helper', {skip: withoutHelper}, async () => {
  const options = {helperPath: realHelper};
  assert.equal((await PalaverHelper.health(options)).type, 'helper.status');
  assert.deepEqual(await PalaverHelper.authorize(options), {authorized: true, status: 'authorized', type: 'helper.authorization'});
  await assert.rejects(PalaverHelper.installModel('en-US', options), {code: 'system-unsupported', exitCode: 1});
  await assert.rejects(PalaverHelper.health({...fake('silent'), timeoutMs: 200}), {code: 'timeout'});
});

test('a refused permission is a status and a session that is not available', {skip: withoutSimulator}, async () => {
  const folder = mkdtempSync(join(tmpdir(), 'palaver-'));
  const state = join(folder, 'state.json');
  writeFileSync(state, JSON.stringify({system: 'macOS 15.0', platform: {authorization: 'denied'}}));
  const options = {helperPath: simulator, args: ['live', state]};
  const helper = await start(options);
  const events = new Collected(helper.events());
  assert.equal(helper.status.authorization, 'denied');
  assert.match(helper.status.message, /System Settings/);
  const session = await helper.openSession();
  assert.equal(session.available, false);
  session.send('remote', chunk);
  assert.equal((await events.find(ofType('helper.error'))).code, 'permission-missing');
  await helper.close();
  assert.deepEqual((await PalaverHelper.authorize(options)).status, 'denied');
  rmSync(folder, {recursive: true});
});

test('no helper is left over', async () => {
  const helper = await start(fake('plain'));
  const {pid} = helper;
  process.kill(pid, 'SIGSTOP');
  const {forced} = await helper.close({timeoutMs: 100});
  assert.equal(forced, true);
  await gone(pid);
});
