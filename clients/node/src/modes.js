// The helper's one-shot modes: each starts a process, reads its events and waits for its end.
import {systemClock, within} from './clock.js';
import {PalaverError, classifyError} from './errors.js';
import {HelperProcess} from './helperProcess.js';
import {findHelper} from './locate.js';

/**
 * @param {string[]} args
 * @param {any} options
 * @param {(event: any) => void} onEvent
 * @returns {Promise<any>}
 */
async function run(args, {helperPath, args: before = [], env, timeoutMs}, onEvent) {
  const path = helperPath ?? findHelper(env);
  const process = new HelperProcess({path, args: [...before, ...args], env}, {onEvent});
  const ended = timeoutMs === undefined ? process.ended : within(systemClock, process.ended, timeoutMs, undefined);
  const ending = await ended;
  if (!ending) {
    process.terminate();
    await process.ended;
    throw new PalaverError('timeout', `${path} ${args[0]} did not end within ${timeoutMs} ms`);
  }
  if (ending.error) throw ending.error;
  return {...ending, stderr: process.stderr, path};
}

/**
 * @param {string[]} args
 * @param {any} options
 * @param {string} type
 * @param {(event: any) => void} [onEvent]
 */
async function answer(args, options, type, onEvent) {
  /** @type {any} */
  let found;
  /** @type {any} */
  let failure;
  const ending = await run(args, options, event => {
    if (event.type === type) {
      found = event;
      onEvent?.(event);
    }
    if (event.type === 'helper.error') failure = event;
  });
  if (failure) throw new PalaverError(classifyError(failure.message).code, failure.message, ending);
  if (!found) throw new PalaverError('helper-exited', `${ending.path} ${args[0]} ended without an answer`, ending);
  return {found, ending};
}

/** @param {any} [options] */
export async function health(options = {}) {
  return (await answer(['--health'], {timeoutMs: 10_000, ...options}, 'helper.status')).found;
}

/** @param {any} [options] */
export async function authorize(options = {}) {
  return (await answer(['--authorize'], options, 'helper.authorization')).found;
}

/** @param {string} [locale] @param {any} [options] */
export async function installModel(locale = 'ja-JP', options = {}) {
  const {found, ending} = await answer(['--install-assets', locale], options, 'helper.model', options.onProgress);
  if (ending.exitCode !== 0) {
    throw new PalaverError('model-not-installed', `The model for ${locale} is not installed: ${found.status}`, ending);
  }
  return found;
}
