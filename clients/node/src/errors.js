// The error class of this package, and the classification of the helper's error texts.
import {errorCodes} from './errorCodes.js';

/** See `PalaverError` in index.d.ts. */
export class PalaverError extends Error {
  /**
   * @param {string} code
   * @param {string} message
   * @param {{cause?: unknown, exitCode?: number | null, signal?: string | null, stderr?: string}} [details]
   */
  constructor(code, message, details = {}) {
    super(message);
    this.name = 'PalaverError';
    this.code = code;
    this.exitCode = details.exitCode ?? null;
    this.signal = details.signal ?? null;
    this.stderr = details.stderr ?? '';
    if (details.cause !== undefined) this.cause = details.cause;
  }
}

/**
 * Returns the code of a `helper.error` message, or `unknown` for a text that this version does not know.
 * @param {string} message
 */
export function errorCodeOf(message) {
  for (const [code, pattern] of errorCodes) if (pattern.test(message)) return code;
  return 'unknown';
}
