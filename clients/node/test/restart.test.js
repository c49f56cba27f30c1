import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';

import {Collected, VirtualClock, fake, ofType, received, start, startOn, test} from './support.js';

const chunk = new Int16Array(1600);
const settledWithin = 2000;  // ms

test('a helper killed in the middle of a line settles every promise', async () => {
  const helper = await start({...fake('crash-at-audio'), restart: false});
  const session = await helper.openSession();
  const events = new Collected(helper.events());
  session.send('remote', chunk);
  const began = performance.now();
  const settled = await Promise.allSettled([
    helper.ping(), session.suppress('self'), session.utterances.next(), helper.openSession(), session.stop(), events.done, helper.close(),
  ]);
  assert.ok(performance.now() - began < settledWithin);
  const [ping, suppressed, utterance, opening, report, ended, closing] = settled.map(({value, reason}) => value ?? reason);
  assert.match(ping.code, /^(closed|helper-exited)$/);  // close() may be first
  assert.match(opening.code, /^(closed|helper-exited)$/);
  assert.match(suppressed, /^(closed|deferred)$/);
  assert.ok(utterance.done || utterance.code === 'helper-exited');
  assert.equal(report.stopped, false);
  assert.equal(ended, undefined);
  assert.equal(closing.signal, 'SIGKILL');
});

test('a helper that dies while a session is opened rejects the opening', async () => {
  const helper = await start(fake('crash-at-session'));
  const began = performance.now();
  await assert.rejects(helper.openSession(), {code: 'helper-exited', signal: 'SIGKILL'});
  assert.ok(performance.now() - began < settledWithin);
  await helper.close();
});

test('half of a line is no event', async () => {
  const helper = await start({...fake('crash-at-audio'), restart: false});
  const events = new Collected(helper.events());
  const session = await helper.openSession();
  session.send('remote', chunk);
  await events.done;
  assert.ok(events.values.every(({type, raw}) => type !== 'transcript.partial' && typeof raw !== 'string'));
  assert.deepEqual(events.values.at(-1), {type: 'client.exited', exitCode: null, signal: 'SIGKILL', willRestart: false});
  await helper.close();
});

test('a host that only waits for its audio to be taken goes on when the helper dies', async () => {
  // A process of its own, in which anything unhandled is fatal. Its helper stops reading, so that audio waits.
  const host = spawn(process.execPath, ['--unhandled-rejections=strict', '--input-type=module', '-e', `
    import {PalaverHelper} from ${JSON.stringify(new URL('../src/index.js', import.meta.url).href)};
    const helper = await PalaverHelper.start(${JSON.stringify({...fake('stuck'), restart: false})});
    const session = await helper.openSession();
    void helper.ping().catch(() => {});
    while (session.send('remote', new Int16Array(1600)) === 'sent');
    const began = performance.now();
    const stopping = session.stop({drainMs: 60_000});
    process.kill(helper.pid, 'SIGKILL');
    const {stopped, chunks} = await stopping;
    console.log(JSON.stringify({stopped, dropped: chunks.dropped > 0, inTime: performance.now() - began < ${settledWithin}}));
  `], {stdio: ['ignore', 'pipe', 'inherit']});
  let output = '';
  host.stdout.on('data', text => { output += text; });
  const status = await new Promise(resolve => host.once('close', resolve));
  assert.equal(status, 0);
  assert.deepEqual(JSON.parse(output), {stopped: false, dropped: true, inTime: true});
});

test('sessions and mutes are there again after a restart, and the gap is reported', async () => {
  const helper = await start(fake('partials'));
  const events = new Collected(helper.events());
  const session = await helper.openSession({sessionId: 'm', locale: 'en-US', vocabulary: ['Palaver']});
  const stopped = await helper.openSession({sessionId: 'stopped'});
  await stopped.stop({drainMs: 0});
  const utterances = new Collected(session.utterances);
  assert.equal(await session.suppress('self'), 'applied');
  assert.equal(session.send('remote', chunk, 5000), 'sent');
  await utterances.find(({state}) => state === 'partial');
  const {pid} = helper;
  process.kill(pid, 'SIGKILL');
  assert.equal((await events.find(ofType('client.exited'))).willRestart, true);
  assert.equal(session.send('remote', chunk, 5200), 'queued');
  assert.equal(await session.suppress('remote', false), 'deferred');
  await assert.rejects(helper.ping(), {code: 'helper-exited'});
  const restarted = await events.find(ofType('client.restarted'));
  assert.equal(restarted.signal, 'SIGKILL');
  assert.notEqual(helper.pid, pid);
  const gap = await events.find(ofType('client.gap'));
  assert.deepEqual({...gap}, {
    type: 'client.gap', sessionId: 'm', source: 'remote', reason: 'restart', from: 1000, to: 5200, droppedChunks: 0,
  });
  await events.count(received('audio'), 2);
  const since = events.values.slice(events.values.findIndex(ofType('client.exited')));
  const commands = since.filter(({type, raw}) => type === 'unknown' && raw.type === 'fake.received').map(({raw}) => raw.command);
  assert.deepEqual(commands.map(({type, sessionId, locale, vocabulary, source, capturedAt}) => [type, sessionId, locale, vocabulary, source, capturedAt]), [
    ['session.start', 'm', 'en-US', ['Palaver'], undefined, undefined],
    ['source.suppress', 'm', undefined, undefined, 'self', undefined],
    ['audio', 'm', undefined, undefined, 'remote', 5200],
  ]);
  assert.deepEqual(utterances.values.slice(0, 2).map(({state, text}) => [state, text]),
    [['partial', 'words so far'], ['abandoned', 'words so far']]);
  const report = await session.stop({drainMs: 0});
  assert.equal(report.stopped, true);
  assert.equal(report.gaps, 1);
  await helper.close();
});

test('a session that is stopped during a restart is not left in the new helper', async () => {
  const helper = await start(fake('plain'));
  const events = new Collected(helper.events());
  const session = await helper.openSession({sessionId: 'm'});
  process.kill(helper.pid, 'SIGKILL');
  await events.find(ofType('client.exited'));
  const report = await session.stop();
  assert.equal(report.stopped, false);
  assert.equal(session.send('remote', chunk), 'closed');
  await events.find(ofType('client.restarted'));
  await helper.ping();
  await events.settled();
  const since = events.values.slice(events.values.findIndex(ofType('client.exited')));
  const of = type => since.filter(received(type)).length;
  assert.equal(of('session.start'), of('session.stop'));
  await helper.close();
});

test('the fifth end within three minutes is the last', async () => {
  const clock = new VirtualClock();
  const helper = await startOn(clock, fake('plain'));
  const events = new Collected(helper.events());
  const session = await helper.openSession();
  const utterances = new Collected(session.utterances);
  for (let end = 1; end <= 4; ++end) {
    const restarted = events.next(ofType('client.restarted'));
    const exited = events.next(ofType('client.exited'));
    process.kill(helper.pid, 'SIGKILL');
    assert.equal((await exited).willRestart, true);
    clock.advance([0, 250, 500, 1000][end - 1]);
    await restarted;
  }
  clock.advance(170_000);  // still within three minutes of the first end
  const last = events.next(ofType('client.exited'));
  process.kill(helper.pid, 'SIGKILL');
  assert.equal((await last).willRestart, false);
  await events.done;
  await assert.rejects(utterances.done, {code: 'helper-exited', message: /the 5th time within 180 s/});
  await assert.rejects(helper.openSession(), {code: 'helper-exited'});
  await assert.rejects(helper.ping(), {code: 'helper-exited'});
  assert.equal(session.send('remote', chunk), 'closed');
  assert.deepEqual(await helper.close(), {exitCode: null, signal: 'SIGKILL', forced: false});
});

test('closing during a restart leaves no process', async () => {
  const clock = new VirtualClock();
  const helper = await startOn(clock, fake('plain'));
  const events = new Collected(helper.events());
  process.kill(helper.pid, 'SIGKILL');
  await events.find(ofType('client.exited'));
  await helper.close();
  clock.advance(60_000);
  await new Promise(setImmediate);
  assert.equal(helper.pid, undefined);
  assert.equal(clock.pending, 0);
});

test('24 hours with a crash in each', async () => {
  const clock = new VirtualClock();
  const helper = await startOn(clock, fake('plain'));
  const events = new Collected(helper.events());
  const session = await helper.openSession({sessionId: 'm', sources: ['remote']});
  const began = clock.now();
  let sent = 0;
  for (let hour = 0; hour < 24; ++hour) {
    for (let i = 0; i < 36; ++i, ++sent) {
      clock.advance(100_000);
      assert.equal(session.send('remote', chunk), 'sent');
    }
    const audio = await events.count(received('audio'), sent);
    const {sequence, capturedAt} = audio.at(-1).raw.command;
    assert.deepEqual([sequence, capturedAt], [sent - 1, began + sent * 100_000 - 100]);
    const exited = events.next(ofType('client.exited'));
    const restarted = events.next(ofType('client.restarted'));
    process.kill(helper.pid, 'SIGKILL');
    assert.equal((await exited).willRestart, true, `hour ${hour}`);
    clock.advance(0);
    await restarted;
  }
  assert.equal(clock.now() - began, 24 * 3_600_000);
  assert.equal(clock.pending, 0);
  const ping = await helper.ping();
  assert.ok(Number.isFinite(ping.clockOffsetMs));
  const report = await session.stop({drainMs: 0});
  assert.deepEqual(report.chunks, {sent: 24 * 36, dropped: 0});
  assert.equal(report.gaps, 24);
  await helper.close();
});
