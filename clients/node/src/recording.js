// Recordings as a source of audio: reads WAV files and paces samples like a microphone.
import {readFile} from 'node:fs/promises';

import {systemClock} from './clock.js';
import {PalaverError} from './errors.js';
import {Resampler} from './resampler.js';

const formatPCM = 1, formatFloat = 3, formatExtensible = 0xfffe;

/** @param {Uint8Array} bytes @returns {Int16Array} */
export function decodeWav(bytes) {
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  /** @param {string} why @returns {never} */
  const refuse = why => { throw new PalaverError('invalid-recording', `Not a WAV file that can be read: ${why}`); };
  /** @param {number} at */
  const tag = at => String.fromCharCode(...bytes.subarray(at, at + 4));
  if (bytes.length < 12 || tag(0) !== 'RIFF' || tag(8) !== 'WAVE') refuse('no RIFF header');
  /** @type {{kind: number, channels: number, sampleRate: number, bits: number} | undefined} */
  let format;
  for (let at = 12; at + 8 <= bytes.length;) {
    const length = view.getUint32(at + 4, true);
    const body = at + 8;
    if (tag(at) === 'fmt ') {
      if (length < 16 || body + length > bytes.length) refuse('its format is cut short');
      let kind = view.getUint16(body, true);
      if (kind === formatExtensible && length >= 26) kind = view.getUint16(body + 24, true);
      format = {kind, channels: view.getUint16(body + 2, true), sampleRate: view.getUint32(body + 4, true), bits: view.getUint16(body + 14, true)};
    }
    if (tag(at) === 'data') {
      if (!format) return refuse('no format before the samples');
      const {kind, channels, sampleRate, bits} = format;
      const isInteger = kind === formatPCM && bits === 16;
      if (!isInteger && !(kind === formatFloat && bits === 32)) refuse(`format ${kind} with ${bits} bits; 16-bit and 32-bit float are read`);
      if (channels < 1 || channels > 32) refuse(`${channels} channels`);
      const sampleBytes = bits / 8;
      const frames = Math.floor(Math.min(length, bytes.length - body) / (sampleBytes * channels));  // a recorder that died leaves less
      /** @param {number} index */
      const sample = index => isInteger ? view.getInt16(body + index * 2, true) / 32768 : view.getFloat32(body + index * 4, true);
      const mono = new Float32Array(frames);
      for (let frame = 0; frame < frames; ++frame) {
        for (let channel = 0; channel < channels; ++channel) mono[frame] += sample(frame * channels + channel) / channels;
      }
      if (sampleRate < 8000 || sampleRate > 384_000) refuse(`${sampleRate} Hz`);
      const resampler = new Resampler({sampleRate, chunkFrames: Math.max(1, Math.ceil(frames * 16_000 / sampleRate))});
      return [...resampler.push(mono), ...resampler.flush()][0] ?? new Int16Array(0);
    }
    at = body + length + length % 2;
  }
  return refuse('no samples');
}

/** @param {string | URL} path */
export async function readRecording(path) {
  return decodeWav(await readFile(path));
}

/**
 * @param {Int16Array} samples
 * @param {{chunkMs?: number}} [options]
 * @param {import('./clock.js').Clock} [clock]
 */
export async function* paced(samples, options = {}, clock = systemClock) {
  const {chunkMs = 100} = options;
  const frames = Math.max(1, Math.round(chunkMs * 16));
  const began = clock.monotonic();
  for (let at = 0; at < samples.length; at += frames) {
    const chunk = samples.subarray(at, at + frames);
    const wait = began + (at + chunk.length) / 16 - clock.monotonic();
    if (wait > 0) await new Promise(resolve => clock.setTimeout(() => resolve(undefined), wait));
    yield chunk;
  }
}
