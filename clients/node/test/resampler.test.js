import assert from 'node:assert/strict';
import test from 'node:test';

import {Resampler} from '../src/resampler.js';

const amplitude = 0.9;

/** A sine of `seconds`, through the resampler in blocks as an AudioWorklet hands them over. */
function resampled(sampleRate, frequency, seconds = 0.25, block = 128) {
  const resampler = new Resampler({sampleRate});
  const input = Float32Array.from({length: Math.round(sampleRate * seconds)}, (_, i) => amplitude * Math.sin(2 * Math.PI * frequency * i / sampleRate));
  const chunks = [];
  for (let at = 0; at < input.length; at += block) chunks.push(...resampler.push(input.subarray(at, at + block)));
  chunks.push(...resampler.flush());
  return joined(chunks);
}

function joined(chunks) {
  const whole = new Int16Array(chunks.reduce((length, chunk) => length + chunk.length, 0));
  let at = 0;
  for (const chunk of chunks) {
    whole.set(chunk, at);
    at += chunk.length;
  }
  return whole;
}

/** Root mean square of the middle, where the filter has all of its input, as dB of the sine that went in. */
function level(samples) {
  const middle = samples.subarray(400, samples.length - 400);
  const meanSquare = middle.reduce((sum, value) => sum + (value / 32768) ** 2, 0) / middle.length;
  return 10 * Math.log10(meanSquare / (amplitude ** 2 / 2) + 1e-20);
}

const rates = [8000, 11_025, 22_050, 24_000, 32_000, 44_100, 48_000, 88_200, 96_000, 192_000];

for (const rate of rates) {
  const limit = Math.min(rate, 16_000);
  test(`${rate} Hz: sines below 0.4375 of the lower rate keep their level, their phase and nothing else`, () => {
    for (let frequency = 50; frequency <= 0.4375 * limit; frequency += limit / 61) {
      const output = resampled(rate, frequency);
      assert.ok(Math.abs(level(output)) <= 0.1, `${frequency} Hz: ${level(output)} dB`);
      let worst = 0;  // against the exact sine at the output's own times
      for (let n = 400; n < output.length - 400; ++n) {
        worst = Math.max(worst, Math.abs(output[n] / 32768 - amplitude * Math.sin(2 * Math.PI * frequency * n / 16_000)));
      }
      assert.ok(worst <= 0.012, `${frequency} Hz: ${worst}`);  // 0.1 dB of 0.9 and half a step
    }
  });
  if (rate <= 16_000) continue;
  test(`${rate} Hz: sines above 8 kHz are at least 80 dB down`, () => {
    for (let frequency = 8000; frequency < rate / 2; frequency += rate / 97) {
      const output = resampled(rate, frequency);
      assert.ok(level(output) <= -80, `${frequency} Hz: ${level(output)} dB`);
    }
  });
}

test('the output does not depend on the cuts', () => {
  const whole = resampled(44_100, 1000, 0.5, Infinity);
  assert.equal(whole.length, 8000);
  for (const block of [1, 127, 128, 441, 4096]) assert.deepEqual(resampled(44_100, 1000, 0.5, block), whole);
});

test('chunks of 100 ms come as soon as they are complete', () => {
  const resampler = new Resampler({sampleRate: 48_000});
  let frames = 0;
  const at = [];
  for (let i = 0; i < 1000; ++i) {
    const chunks = resampler.push(new Float32Array(128));
    frames += 128;
    for (const chunk of chunks) {
      assert.equal(chunk.length, 1600);
      at.push(frames / 48);
    }
  }
  assert.equal(at.length, 26);
  for (const [index, ms] of at.entries()) {
    const late = ms - (index + 1) * 100;
    assert.ok(late >= 0 && late <= 2.6 + 128 / 48, `${late} ms`);
  }
});

test('16 kHz is only converted', () => {
  const resampler = new Resampler({sampleRate: 16_000, chunkFrames: 4});
  const chunks = resampler.push(Float32Array.of(0, 0.5, -1, 1, 2, -2, NaN));
  assert.deepEqual([...chunks, ...resampler.flush()].map(chunk => [...chunk]), [[0, 16_384, -32_768, 32_767], [32_767, -32_768, 0]]);
  assert.deepEqual([...resampler.push(Float32Array.of(0.25, 0, 0, 0))[0]], [8192, 0, 0, 0]);
});

test('channels are averaged and must be of one length', () => {
  const resampler = new Resampler({sampleRate: 16_000, chunkFrames: 2});
  assert.deepEqual([...resampler.push([Float32Array.of(1, 0), Float32Array.of(0, 0.5)])[0]], [16_384, 8192]);
  assert.throws(() => resampler.push([new Float32Array(1), new Float32Array(2)]), RangeError);
  assert.deepEqual(resampler.push([]), []);
});

test('rates and lengths are checked', () => {
  for (const sampleRate of [0, 7999, 384_001, 44_100.5, NaN, '48000', undefined]) assert.throws(() => new Resampler({sampleRate}), RangeError);
  assert.throws(() => new Resampler({sampleRate: 48_000, chunkFrames: 0}), RangeError);
});
