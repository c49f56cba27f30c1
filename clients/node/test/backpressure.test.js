import assert from 'node:assert/strict';

import {IncomingQueue, OutgoingQueue} from '../src/queues.js';
import {Collected, fake, ofType, received, start, test} from './support.js';

const chunk = new Int16Array(1600);
const chunkMs = 100;

test('the oldest audio of a source is dropped, and no command', () => {
  const queue = new OutgoingQueue(300);
  const audio = (key, name) => queue.pushAudio({line: name, key, ms: 100, capturedAt: 0}).map(({line}) => line);
  queue.pushCommand('start');
  assert.deepEqual([audio('a', 'a1'), audio('b', 'b1'), audio('a', 'a2'), audio('a', 'a3')], [[], [], [], []]);
  queue.pushCommand('mute');
  assert.deepEqual([audio('a', 'a4'), audio('a', 'a5')], [['a1'], ['a2']]);
  const taken = [];
  for (let entry; (entry = queue.take());) taken.push(entry.line);
  assert.deepEqual(taken, ['start', 'b1', 'a3', 'mute', 'a4', 'a5']);
  assert.ok(queue.empty);
});

test('a queue that is never read holds as much as it may', () => {
  const queue = new OutgoingQueue(1000);
  queue.pushCommand('start');
  for (let i = 0; i < 100_000; ++i) queue.pushAudio({line: 'x', key: String(i % 2), ms: 100, capturedAt: i});
  assert.ok(queue.size <= 2048, `${queue.size} entries`);
  assert.equal(queue.take().line, 'start');
  let left = 0;
  while (queue.take()) ++left;
  assert.equal(left, 20);

  const incoming = new IncomingQueue(100);
  for (let i = 0; i < 100_000; ++i) incoming.push(i);
  assert.equal(incoming.size, 100);
  assert.equal(incoming.takeDropped(), 99_900);
});

test('a chunk longer than the limit waits alone', () => {
  const queue = new OutgoingQueue(300);
  assert.deepEqual(queue.pushAudio({line: 'long', key: 'a', ms: 5000, capturedAt: 0}), []);
  assert.equal(queue.pushAudio({line: 'next', key: 'a', ms: 100, capturedAt: 0}).length, 1);
  assert.equal(queue.take().line, 'next');
});

test('a helper that does not read costs its oldest audio and no memory', async () => {
  const helper = await start({...fake('stuck'), maxQueuedMs: 2000});
  const events = new Collected(helper.events());
  const session = await helper.openSession({sessionId: 'm'});
  const results = {sent: 0, queued: 0, dropped: 0};
  const before = process.memoryUsage();
  let at = 0;
  ++results[session.send('remote', chunk, at)];
  at += chunkMs;
  await events.find(received('audio'));  // it reads no more from here on
  for (let i = 1; i < 20_000; ++i, at += chunkMs) ++results[session.send('remote', chunk, at)];  // half an hour: 87 MB of lines
  const muting = session.suppress('self');
  const after = process.memoryUsage();
  assert.ok(after.heapUsed + after.external - before.heapUsed - before.external < 40e6);
  assert.ok(results.sent > 0 && results.queued === 20, JSON.stringify(results));
  process.kill(helper.pid, 'SIGUSR2');
  assert.equal(await muting, 'applied');
  const gap = await events.find(ofType('client.gap'));
  assert.deepEqual(gap, {
    type: 'client.gap', sessionId: 'm', source: 'remote', reason: 'backpressure', from: results.sent * chunkMs,
    to: at - 20 * chunkMs, droppedChunks: results.dropped,
  });
  await helper.ping();
  await events.settled();
  const audio = events.values.filter(received('audio')).map(({raw}) => raw.command.capturedAt);
  const kept = [...Array(results.sent).keys(), ...Array.from({length: 20}, (_, i) => 19_980 + i)];
  assert.deepEqual(audio.map(time => time / chunkMs), kept);
  const report = await session.stop({drainMs: 0});
  assert.deepEqual(report.chunks, {sent: results.sent + 20, dropped: results.dropped});
  await helper.close();
});

test('1 MB of standard error before the first status blocks nothing', async () => {
  let length = 0;
  const helper = await start({...fake('loud-at-start'), onStderr: text => { length += text.length; }});
  await helper.ping();
  await helper.close();
  assert.equal(length, 1024 * 1024);
});

test('a listener of standard error that throws is ignored', async () => {
  const helper = await start({...fake('loud-at-start'), onStderr: () => { throw new Error('no'); }});
  await helper.ping();
  await helper.close();
});

test('unread iterators hold what they may and report what was dropped', async () => {
  const helper = await start(fake('flood', '12000'));
  const events = helper.events();
  const session = await helper.openSession({sessionId: 'm'});
  const before = process.memoryUsage().heapUsed;
  session.send('remote', chunk);
  await helper.ping({timeoutMs: 60_000});  // 132,000 events later
  assert.ok(process.memoryUsage().heapUsed - before < 60e6);
  const {value} = await events.next();
  assert.equal(value.type, 'client.overflow');
  assert.ok(value.count >= 131_000, String(value.count));
  const report = await session.stop({drainMs: 0});
  assert.equal(report.finals, 12_000);
  assert.equal(report.unread, 2000);
  const utterances = new Collected(session.utterances);
  await utterances.done;
  assert.equal(utterances.values.length, 10_000);
  assert.deepEqual(utterances.values.at(-1).text, 'utterance 11999');
  assert.ok(utterances.values.every(({state}) => state === 'final'), 'partials are folded');
  await helper.close();
});

test('leaving a loop and coming back loses nothing', async () => {
  const helper = await start(fake('flood', '3'));
  const session = await helper.openSession({sessionId: 'm'});
  session.send('remote', chunk);
  await helper.ping();
  const texts = [];
  for await (const {text} of session.utterances) {
    texts.push(text);
    break;
  }
  await session.stop({drainMs: 0});
  for await (const {text} of session.utterances) texts.push(text);
  assert.deepEqual(texts, ['utterance 0', 'utterance 1', 'utterance 2']);
  await helper.close();
});
