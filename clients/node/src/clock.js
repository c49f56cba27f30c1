// Time as the client sees it. Tests replace it.

/**
 * @typedef {object} Clock
 * @property {() => number} now ms since the Unix epoch
 * @property {() => number} monotonic ms since an arbitrary moment; never steps
 * @property {(action: () => void, ms: number) => any} setTimeout
 * @property {(timer: any) => void} clearTimeout
 */

/** @type {Clock} */
export const systemClock = {
  now: () => Date.now(),
  monotonic: () => performance.now(),
  setTimeout: (action, ms) => setTimeout(action, ms),
  clearTimeout: timer => clearTimeout(timer),
};

/**
 * Resolves to the promise's value, or to `otherwise` after `ms`. Never leaves a timer behind.
 * @template T, U
 * @param {Clock} clock @param {Promise<T>} promise @param {number} ms @param {U} otherwise
 * @returns {Promise<T | U>}
 */
export function within(clock, promise, ms, otherwise) {
  /** @type {any} */
  let timer;
  /** @type {Promise<U>} */
  const late = new Promise(resolve => { timer = clock.setTimeout(() => resolve(otherwise), ms); });
  return Promise.race([promise, late]).finally(() => clock.clearTimeout(timer));
}
