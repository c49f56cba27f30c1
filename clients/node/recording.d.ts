// Types and documentation of `palaver-stt/recording`.

/**
 * Reads a WAV file (16-bit or 32-bit float, any number of channels, 8 to 384 kHz) as 16 kHz mono samples. Rejects with the error of
 * the file system, or with a PalaverError `invalid-recording`.
 */
export function readRecording(path: string): Promise<Int16Array>;

/** Decodes the bytes of a WAV file like `readRecording`. Throws PalaverError `invalid-recording`. */
export function decodeWav(bytes: Uint8Array): Int16Array;

/**
 * Yields chunks of 16 kHz samples at the pace of a microphone: each when its last sample would have been recorded. `chunkMs`: ms,
 * default 100. The helper measures pauses with its own clock, so recordings must be paced.
 */
export function paced(samples: Int16Array, options?: {readonly chunkMs?: number}): AsyncGenerator<Int16Array, void, void>;
