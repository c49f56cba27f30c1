// Types and documentation of `palaver-stt/resampler`, which also runs in browsers and in an AudioWorklet.

/**
 * Converts 32-bit float audio (-1 to 1) to 16 kHz mono 16-bit samples in chunks. One object per stream.
 *
 * Quality, with f the lower one of both rates: flat within 0.1 dB up to 0.4375 f (7 kHz), at least 80 dB down from 0.5 f (8 kHz)
 * on. No delay in time: sample n of the output is at the time of sample n * sampleRate / 16000 of the input. The filter looks ahead
 * by about 2.5 ms. 16 kHz input is only converted to 16 bits. Values beyond full scale are clipped, NaN becomes 0.
 */
export class Resampler {
  /**
   * `sampleRate`: Hz of the input, a whole number of 8000 to 384000. `chunkFrames`: length of the chunks, default 1600 (100 ms).
   * Throws RangeError.
   */
  constructor(options: {readonly sampleRate: number, readonly chunkFrames?: number});

  readonly sampleRate: number;

  /**
   * Takes any number of frames: one channel, or several of the same length, which are averaged. Returns the chunks that are complete.
   * Throws RangeError for channels of different lengths.
   */
  push(audio: Float32Array | readonly Float32Array[]): Int16Array[];

  /** Returns the rest of the stream; the last chunk may be shorter. The object is then as new. */
  flush(): Int16Array[];
}
