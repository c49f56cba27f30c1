import assert from 'node:assert/strict';

import {decodeEvent} from '../src/decodeEvent.js';
import {LineReader} from '../src/lines.js';
import {Collected, fake, ofType, start, test} from './support.js';

const japanese = '本日はお集まり\u2028いただき\u2029ありがとうございます。𠮷野家 👩‍💻';

test('lines end at 0x0A only, however the bytes are cut', () => {
  const text = `{"a":"${japanese}"}\r\n\n  \n{"b":"\u0085\u000b"}\n`;
  const bytes = Buffer.from(text);
  for (let size = 1; size <= bytes.length; ++size) {
    const lines = [];
    const reader = new LineReader(line => lines.push(line));
    for (let at = 0; at < bytes.length; at += size) reader.push(bytes.subarray(at, at + size));
    assert.deepEqual(lines, [`{"a":"${japanese}"}\r`, '{"b":"\u0085\u000b"}'], `pieces of ${size} bytes`);
  }
});

test('a line beyond the limit is skipped to its end and holds no memory', () => {
  const lines = [];
  let tooLong = 0;
  const reader = new LineReader(line => lines.push(line), {maxBytes: 10, onTooLong: () => ++tooLong});
  for (let i = 0; i < 100; ++i) {
    reader.push(Buffer.from('abcdef'));
    assert.ok(reader.pendingBytes <= 10);
  }
  reader.push(Buffer.from('end\nnext\n0123456789\n'));
  assert.deepEqual(lines, ['next', '0123456789']);
  assert.equal(tooLong, 1);
});

test('what is unknown is wrapped and what is known keeps its unknown keys', () => {
  assert.deepEqual(decodeEvent('{"type":"pong","sentAt":1,"helperAt":2,"more":[3]}'), {type: 'pong', sentAt: 1, helperAt: 2, more: [3]});
  assert.deepEqual(decodeEvent('{"type":"new"}'), {type: 'unknown', raw: {type: 'new'}});
  assert.deepEqual(decodeEvent('{"type":"pong","sentAt":"1"}'), {type: 'unknown', raw: {type: 'pong', sentAt: '1'}});
  assert.deepEqual(decodeEvent('{"type":"toString"}'), {type: 'unknown', raw: {type: 'toString'}});
  assert.deepEqual(decodeEvent('oops'), {type: 'unknown', raw: 'oops'});
  assert.deepEqual(decodeEvent('null'), {type: 'unknown', raw: null});
});

test('Japanese and U+2028 that come byte by byte are whole', async () => {
  const helper = await start(fake('byte-by-byte', japanese));
  const session = await helper.openSession({sessionId: 'm'});
  session.send('remote', new Int16Array(1600));
  const {value} = await session.utterances.next();
  assert.equal(value.state, 'final');
  assert.equal(value.text, japanese);
  await helper.close();
});

test('strange lines are delivered and break nothing', async () => {
  const helper = await start(fake('strange'));
  const events = new Collected(helper.events());
  assert.deepEqual(helper.status.newKey, {nested: [1]});
  const session = await helper.openSession({sessionId: 'm'});
  assert.equal(session.available, true);
  await helper.ping();
  await helper.close();
  await events.done;
  assert.ok(events.values.some(ofType('session.ready')));
});

test('unknown events reach the iterator', async () => {
  const helper = await start(fake('strange'));
  const events = new Collected(helper.events());
  await events.find(({type, raw}) => type === 'unknown' && raw?.type === 'helper.weather' && raw.sunny);
  await events.find(({type, raw}) => type === 'unknown' && raw?.type === 'transcript.partial');
  await events.find(({type, raw}) => type === 'unknown' && raw?.type === '__proto__');
  await events.find(({type, raw}) => type === 'unknown' && raw === '\ufffd\ufffd');
  await helper.close();
});

test('a line of 17 MiB is reported and the next one read', async () => {
  const helper = await start(fake('endless'));
  const events = new Collected(helper.events());
  const session = await helper.openSession({sessionId: 'm'});
  session.send('remote', new Int16Array(1600));
  const {value} = await session.utterances.next();
  assert.equal(value.text, 'after the long line');
  assert.ok(events.values.some(({type, raw}) => type === 'unknown' && /more than 16 MiB/.test(raw)));
  await helper.close();
});
