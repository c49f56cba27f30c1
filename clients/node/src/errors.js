// The error class of this package, and the classification of the helper's error texts.
import {errorDefinitions} from './errorDefinitions.js';

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
 * Returns the code of a `helper.error` message and what to do about it. A text that this version does not know has the code `unknown`.
 * @param {string} message
 * @returns {{code: string, cure: string}}
 */
export function classifyError(message) {
  const {code, cure} = errorDefinitions.find(({pattern}) => pattern.test(message)) ?? {code: 'unknown', cure: 'log it'};
  return {code, cure};
}
