// Converts 32-bit float audio of any rate to what the helper takes: 16 kHz, mono, signed 16-bit, in chunks of 100 ms.
//
// Polyphase FIR filter with a Kaiser window (J. F. Kaiser, 1974: its formulas for the window's shape and length). With f the lower one
// of both rates: flat within 0.1 dB up to 0.4375 f (7 kHz), at least 80 dB down from 0.5 f (8 kHz) on. Sample n of the output is at the
// time of sample n * rate / 16000 of the input: no delay in time. The filter looks ahead by about 2.5 ms. Runs in browsers, too.

const outputRate = 16_000;
const stopbandDecibels = 84;  // 4 dB more than promised
const passband = 0.4375;
const stopband = 0.5;

/**
 * The modified Bessel function of the first kind and order 0.
 * @param {number} x
 */
function bessel0(x) {
  let sum = 1;
  for (let k = 1, term = 1; term > sum * 1e-12; ++k) sum += term *= (x / (2 * k)) ** 2;
  return sum;
}

/**
 * @param {number} a
 * @param {number} b
 * @returns {number}
 */
const greatestCommonDivisor = (a, b) => (b === 0 ? a : greatestCommonDivisor(b, a % b));

export class Resampler {
  #up;
  #down;
  #half;  // taps on each side, in input samples
  #cutoff;  // cycles per input sample
  #beta = 0.1102 * (stopbandDecibels - 8.7);
  #rows = /** @type {Float64Array[]} */ ([]);
  #input = new Float32Array(0);  // from `#inputStart` on
  #inputStart = 0;
  #inputEnd = 0;
  #outputCount = 0;
  #chunk;
  #filled = 0;

  /** @param {{sampleRate: number, chunkFrames?: number}} options */
  constructor({sampleRate, chunkFrames = 1600}) {
    if (!Number.isInteger(sampleRate) || sampleRate < 8000 || sampleRate > 384_000) {
      throw new RangeError(`sampleRate must be a whole number of 8000 to 384000 Hz, not ${sampleRate}`);
    }
    if (!Number.isInteger(chunkFrames) || chunkFrames < 1) throw new RangeError('chunkFrames must be a whole number of at least 1');
    const divisor = greatestCommonDivisor(sampleRate, outputRate);
    this.sampleRate = sampleRate;
    this.#up = outputRate / divisor;
    this.#down = sampleRate / divisor;
    const lower = Math.min(sampleRate, outputRate) / sampleRate;
    this.#cutoff = lower * (passband + stopband) / 2;
    const taps = (stopbandDecibels - 7.95) / (2.285 * 2 * Math.PI * lower * (stopband - passband));
    this.#half = sampleRate === outputRate ? 0 : Math.ceil(taps / 2);
    this.#inputStart = -this.#half;  // silence before the first sample
    this.#input = new Float32Array(this.#half);
    this.#chunk = new Int16Array(chunkFrames);
  }

  /**
   * @param {Float32Array | readonly Float32Array[]} audio
   * @returns {Int16Array[]}
   */
  push(audio) {
    const mono = audio instanceof Float32Array ? audio : mixed(audio);
    this.#inputEnd += mono.length;
    return this.#run(mono, Infinity);
  }

  /** @returns {Int16Array[]} */
  flush() {
    const chunks = this.#run(new Float32Array(this.#half), Math.ceil(this.#inputEnd * this.#up / this.#down));
    if (this.#filled > 0) chunks.push(this.#chunk.slice(0, this.#filled));
    this.#filled = 0;
    this.#inputStart = -this.#half;
    this.#input = new Float32Array(this.#half);
    this.#inputEnd = this.#outputCount = 0;
    return chunks;
  }

  /** @param {Float32Array} added @param {number} lastOutput */
  #run(added, lastOutput) {
    const input = new Float32Array(this.#input.length + added.length);
    input.set(this.#input);
    input.set(added, this.#input.length);
    const half = this.#half;
    const chunks = [];
    let first = 0;  // in `input`, of the next output's filter
    for (; this.#outputCount < lastOutput; ++this.#outputCount) {
      const position = this.#outputCount * this.#down;
      const phase = position % this.#up;
      first = (position - phase) / this.#up - Math.max(half - 1, 0) - this.#inputStart;
      let sample;
      if (half === 0) {
        if (first >= input.length) break;
        sample = input[first];
      } else {
        if (first + 2 * half > input.length) break;
        const row = this.#rows[phase] ??= this.#row(phase);
        sample = 0;
        for (let tap = 0; tap < row.length; ++tap) sample += row[tap] * input[first + tap];
      }
      // NaN becomes 0. Full scale is 32768, as in the helper.
      this.#chunk[this.#filled++] = Math.max(-32768, Math.min(32767, Math.round(sample * 32768))) || 0;
      if (this.#filled === this.#chunk.length) {
        chunks.push(this.#chunk.slice());
        this.#filled = 0;
      }
    }
    const used = Math.min(first, input.length);
    this.#input = input.slice(used);
    this.#inputStart += used;
    return chunks;
  }

  /**
   * The filter between two input samples, with a gain of exactly 1 for a constant.
   * @param {number} phase
   */
  #row(phase) {
    const row = new Float64Array(2 * this.#half);
    const scale = bessel0(this.#beta);
    let sum = 0;
    for (let tap = 0; tap < row.length; ++tap) {
      const distance = tap - (this.#half - 1) - phase / this.#up;
      const x = 2 * Math.PI * this.#cutoff * distance;
      const window = bessel0(this.#beta * Math.sqrt(Math.max(0, 1 - (distance / this.#half) ** 2))) / scale;
      sum += row[tap] = (x === 0 ? 1 : Math.sin(x) / x) * window;
    }
    return row.map(value => value / sum);
  }
}

/** @param {readonly Float32Array[]} channels of one length */
function mixed(channels) {
  if (channels.length === 1) return channels[0];
  const mono = new Float32Array(channels.length === 0 ? 0 : channels[0].length);
  for (const channel of channels) {
    if (channel.length !== mono.length) throw new RangeError('The channels must have the same number of frames');
    for (let frame = 0; frame < mono.length; ++frame) mono[frame] += channel[frame] / channels.length;
  }
  return mono;
}
