import assert from 'node:assert/strict';
import test from 'node:test';

import {decodeWav, paced, readRecording} from '../src/recording.js';
import {VirtualClock} from './support.js';

/** A WAV file of the given samples, interleaved. */
function wav({kind = 1, bits = 16, channels = 1, rate = 16_000, extra = []}, samples) {
  const data = Buffer.alloc(samples.length * bits / 8);
  samples.forEach((sample, i) => (kind === 3 ? data.writeFloatLE(sample, i * 4) : data.writeInt16LE(sample, i * 2)));
  const format = Buffer.alloc(16);
  format.writeUInt16LE(kind, 0);
  format.writeUInt16LE(channels, 2);
  format.writeUInt32LE(rate, 4);
  format.writeUInt16LE(bits, 14);
  const part = (name, body) => {
    const head = Buffer.alloc(8);
    head.write(name, 'latin1');
    head.writeUInt32LE(body.length, 4);
    return Buffer.concat([head, body, Buffer.alloc(body.length % 2)]);
  };
  const parts = Buffer.concat([Buffer.from('WAVE'), part('fmt ', format), ...extra.map(body => part('LIST', body)), part('data', data)]);
  const head = Buffer.alloc(8);
  head.write('RIFF');
  head.writeUInt32LE(parts.length, 4);
  return Buffer.concat([head, parts]);
}

test('16-bit samples are as they were', () => {
  assert.deepEqual([...decodeWav(wav({extra: [Buffer.from('odd')]}, [0, 1, -1, 32_767, -32_768]))], [0, 1, -1, 32_767, -32_768]);
});

test('floats and channels become 16-bit mono', () => {
  assert.deepEqual([...decodeWav(wav({kind: 3, bits: 32, channels: 2}, [0.5, 0, -1, -1]))], [8192, -32_768]);
});

test('another rate is resampled to the same length of time', () => {
  assert.equal(decodeWav(wav({rate: 48_000}, Array(4800).fill(1000))).length, 1600);
});

test('a file that ends early gives what is there', () => {
  const file = wav({}, [1, 2, 3, 4]);
  assert.deepEqual([...decodeWav(file.subarray(0, file.length - 3))], [1, 2]);
});

test('what is no recording is refused by name', async () => {
  const bad = [Buffer.alloc(0), Buffer.from('RIFFxxxxWAVE'), wav({bits: 24}, []), wav({kind: 2}, [1]), wav({channels: 0}, [1]), wav({rate: 100}, [1])];
  for (const bytes of bad) assert.throws(() => decodeWav(bytes), {name: 'PalaverError', code: 'invalid-recording'});
  await assert.rejects(readRecording('/nowhere.wav'), {code: 'ENOENT'});
});

test('paced chunks come when a microphone would have them', async () => {
  const clock = new VirtualClock();
  const began = clock.now();
  const chunks = paced(new Int16Array(4000), {}, clock);
  const got = [];
  for (const [ms, length] of [[100, 1600], [200, 1600], [250, 800]]) {
    const next = chunks.next();
    await new Promise(setImmediate);
    clock.advance(began + ms - clock.now() - 1);
    assert.equal(clock.pending, 1, `nothing before ${ms} ms`);
    clock.advance(1);
    got.push((await next).value.length);
    assert.equal(got.at(-1), length);
  }
  assert.equal((await chunks.next()).done, true);
});
