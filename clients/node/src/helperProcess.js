// Owns one helper process: its three streams and its end. Knows nothing of sessions.
import {spawn} from 'node:child_process';

import {decodeEvent} from './decodeEvent.js';
import {PalaverError} from './errors.js';
import {LineReader} from './lines.js';
import {outsideOfArchive} from './locate.js';

const streamGraceMs = 500;  // for output that is still in the pipe when the process has ended
const killGraceMs = 500;
const stderrTail = 4096;  // characters kept for an error

/**
 * @typedef {object} Ending
 * @property {number | null} exitCode
 * @property {string | null} signal
 * @property {PalaverError} [error] why the process could not be started
 */

/**
 * @typedef {object} Handlers
 * @property {(event: any) => void} onEvent
 * @property {() => void} [onWritable] the input accepts lines again
 * @property {(text: string) => void} [onStderr]
 */

/** @param {NodeJS.ErrnoException} cause @param {string} path */
function startError(cause, path) {
  if (cause.code === 'ENOENT') return new PalaverError('helper-not-found', `There is no helper at ${path}`, {cause});
  if (cause.code === 'EACCES') {
    return new PalaverError('helper-not-executable', `${path} is not executable; run: chmod +x '${path}'`, {cause});
  }
  return new PalaverError('helper-not-started', `${path} cannot be started: ${cause.message}`, {cause});
}

/** @param {any} action */
const ignoreErrors = action => { try { action(); } catch { /* the process has ended, which `ended` reports */ } };

export class HelperProcess {
  #child;
  #writable = true;
  #inputClosed = false;
  #stderr = '';
  /** @type {(ending: Ending) => void} */
  #resolveEnded = () => {};
  /**
   * Resolves when the process has ended and its output is read. Never rejects.
   * @type {Promise<Ending>}
   */
  ended = new Promise(resolve => { this.#resolveEnded = resolve; });
  hasEnded = false;

  /**
   * @param {{path: string, args?: readonly string[], env?: Record<string, string | undefined>}} program
   * @param {Handlers} handlers called on the event loop; none after `ended`
   */
  constructor({path, args = [], env = process.env}, handlers) {
    this.path = outsideOfArchive(path);
    this.handlers = handlers;
    const {PALAVER_DISCLAIMED: _, ...environment} = env;  // the helper's own mark
    this.#child = this.#spawn(args, environment);
  }

  get pid() {
    return this.#child?.pid;
  }

  /** The end of its standard error. */
  get stderr() {
    return this.#stderr;
  }

  get writable() {
    return this.#writable && !this.#inputClosed && !this.hasEnded;
  }

  /** @param {readonly string[]} args @param {Record<string, string | undefined>} env */
  #spawn(args, env) {
    /** @type {any} */
    let child;
    try {
      child = spawn(this.path, [...args], {stdio: ['pipe', 'pipe', 'pipe'], env, windowsHide: true});
    } catch (cause) {
      queueMicrotask(() => this.#end({exitCode: null, signal: null, error: startError(/** @type {any} */ (cause), this.path)}));
      return undefined;
    }
    const {stdin, stdout, stderr} = child;
    for (const stream of [stdin, stdout, stderr]) stream.on('error', () => {});  // the end of the process reports it
    stdin.on('drain', () => {
      this.#writable = true;
      if (!this.hasEnded) this.handlers.onWritable?.();
    });
    const lines = new LineReader(line => { if (!this.hasEnded) this.handlers.onEvent(decodeEvent(line)); }, {
      onTooLong: () => this.handlers.onEvent({type: 'unknown', raw: 'a line of more than 16 MiB, which was skipped'}),
    });
    stdout.on('data', (/** @type {Uint8Array} */ bytes) => lines.push(bytes));
    stderr.setEncoding('utf8');
    stderr.on('data', (/** @type {string} */ text) => {
      this.#stderr = (this.#stderr + text).slice(-stderrTail);
      ignoreErrors(() => this.handlers.onStderr?.(text));
    });
    const outputEnded = new Promise(resolve => stdout.once('close', resolve));
    child.on('error', (/** @type {any} */ cause) => {  // also when a signal could not be sent
      if (child.pid === undefined) this.#end({exitCode: null, signal: null, error: startError(cause, this.path)});
    });
    child.once('exit', (/** @type {number | null} */ exitCode, /** @type {string | null} */ signal) => {
      // A child of the process may hold the pipes: on macOS the second process does, until its input ends.
      stdin.destroy();
      const timer = setTimeout(() => { stdout.destroy(); stderr.destroy(); }, streamGraceMs);
      void outputEnded.then(() => {
        clearTimeout(timer);
        stderr.destroy();
        this.#end({exitCode, signal});
      });
    });
    // A helper without output is of no use. Closing its output alone does not end it.
    void outputEnded.then(() => { if (child.exitCode === null && child.signalCode === null) this.terminate(killGraceMs); });
    return child;
  }

  /**
   * Writes a line. Returns false if the pipe is full: wait for `onWritable` before the next one.
   * @param {string} line
   */
  write(line) {
    if (this.#inputClosed || this.hasEnded || !this.#child) return false;
    this.#writable = this.#child.stdin.write(line);
    return this.#writable;
  }

  /** Ends the helper gracefully, after what has been written. */
  closeInput() {
    if (this.#inputClosed) return;
    this.#inputClosed = true;
    ignoreErrors(() => this.#child?.stdin.end());
  }

  /**
   * Ends the helper by SIGTERM and, after `graceMs`, by SIGKILL. Text without a final is lost.
   * @param {number} [graceMs]
   */
  terminate(graceMs = killGraceMs) {
    this.#inputClosed = true;
    const child = this.#child;
    if (!child || this.hasEnded) return;
    child.stdin.destroy();  // the second process on macOS ends with its input
    child.kill('SIGTERM');
    const timer = setTimeout(() => child.kill('SIGKILL'), graceMs);
    void this.ended.then(() => clearTimeout(timer));
  }

  /** @param {Ending} ending */
  #end(ending) {
    if (this.hasEnded) return;
    this.hasEnded = true;
    this.#resolveEnded(ending);
  }
}
