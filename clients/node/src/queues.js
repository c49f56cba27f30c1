// Bounded queues: what waits for the helper, and what waits for the host.

/**
 * @typedef {object} Entry a line that waits for the helper
 * @property {string} line with its line feed; empty once dropped
 * @property {string} [key] of audio: session and source
 * @property {number} [ms] of audio: its length
 * @property {number} [capturedAt] of audio: ms since the Unix epoch
 */

/**
 * Holds lines that the helper's pipe has not accepted, first in, first out. Beyond `maxAudioMs` of one source, the oldest audio of
 * that source is dropped. Commands are never dropped.
 */
export class OutgoingQueue {
  #entries = /** @type {Entry[]} */ ([]);
  #head = 0;
  #audio = /** @type {Map<string, {entries: Entry[], ms: number}>} */ (new Map());

  /** @param {number} maxAudioMs */
  constructor(maxAudioMs) {
    this.maxAudioMs = maxAudioMs;
  }

  get empty() {
    this.#skipDropped();
    return this.#head === this.#entries.length;
  }

  /** The entries held, dropped ones included: what bounds memory. */
  get size() {
    return this.#entries.length - this.#head;
  }

  /** @param {string} line */
  pushCommand(line) {
    this.#entries.push({line});
  }

  /**
   * Returns the entries dropped to make room.
   * @param {Required<Entry>} entry
   */
  pushAudio(entry) {
    let waiting = this.#audio.get(entry.key);
    if (!waiting) this.#audio.set(entry.key, waiting = {entries: [], ms: 0});
    const dropped = [];
    while (waiting.entries.length > 0 && waiting.ms + entry.ms > this.maxAudioMs) {
      const oldest = /** @type {Required<Entry>} */ (waiting.entries.shift());
      waiting.ms -= oldest.ms;
      dropped.push({...oldest});
      oldest.line = '';
    }
    waiting.entries.push(entry);
    waiting.ms += entry.ms;
    this.#entries.push(entry);
    if (dropped.length > 0) this.#compact();
    return dropped;
  }

  /** Removes and returns the next entry, or undefined. */
  take() {
    this.#skipDropped();
    const entry = this.#entries[this.#head];
    if (!entry) return undefined;
    ++this.#head;
    this.#forgetAudio(entry);
    this.#compact();
    return entry;
  }

  /** Removes the commands, which were for a process that has ended. Audio stays. */
  removeCommands() {
    this.#entries = this.#entries.slice(this.#head).filter(entry => entry.key !== undefined && entry.line !== '');
    this.#head = 0;
  }

  /**
   * Removes the audio of a session's source and returns it.
   * @param {string} key
   */
  removeAudio(key) {
    const removed = (this.#audio.get(key)?.entries ?? []).map(entry => ({...entry}));
    for (const entry of this.#audio.get(key)?.entries ?? []) entry.line = '';
    this.#audio.delete(key);
    return removed;
  }

  /** @param {string} key */
  hasAudio(key) {
    return (this.#audio.get(key)?.entries.length ?? 0) > 0;
  }

  /**
   * When the oldest waiting audio of a source was captured.
   * @param {string} key
   */
  oldestCapturedAt(key) {
    return this.#audio.get(key)?.entries[0]?.capturedAt;
  }

  clear() {
    this.#entries = [];
    this.#head = 0;
    this.#audio.clear();
  }

  /** @param {Entry} entry */
  #forgetAudio(entry) {
    if (entry.key === undefined) return;
    const waiting = this.#audio.get(entry.key);
    if (!waiting) return;
    waiting.entries.shift();  // entries leave in the order in which they came
    waiting.ms -= entry.ms ?? 0;
    if (waiting.entries.length === 0) this.#audio.delete(entry.key);
  }

  #skipDropped() {
    while (this.#head < this.#entries.length && this.#entries[this.#head].line === '') ++this.#head;
  }

  #compact() {
    this.#skipDropped();
    if (this.#head > 256 && this.#head * 2 > this.#entries.length) {
      this.#entries = this.#entries.slice(this.#head);
      this.#head = 0;
    }
    const live = [...this.#audio.values()].reduce((sum, {entries}) => sum + entries.length, 0);
    // Dropped audio behind a command that waits. Commands are few, so this bounds the whole.
    if (this.#entries.length - this.#head > 2 * live + 1024) {
      this.#entries = this.#entries.slice(this.#head).filter(entry => entry.line !== '');
      this.#head = 0;
    }
  }
}

/**
 * Hands values to one consumer. Beyond `limit` unread values the oldest are dropped and counted. A value with a key replaces an
 * unread one with the same key.
 * @template T
 */
export class IncomingQueue {
  #values = /** @type {Map<unknown, T>} */ (new Map());
  #waiting = /** @type {{resolve: (result: IteratorResult<T>) => void, reject: (error: unknown) => void}[]} */ ([]);
  #ended = false;
  #error = /** @type {unknown} */ (undefined);
  #next = 0;
  /** Values dropped since the last `takeDropped()`. */
  #dropped = 0;

  /** @param {number} limit */
  constructor(limit) {
    this.limit = limit;
  }

  get size() {
    return this.#values.size;
  }

  get ended() {
    return this.#ended;
  }

  /** @param {T} value @param {unknown} [key] */
  push(value, key = this.#next++) {
    if (this.#ended) return;
    const waiting = this.#waiting.shift();
    if (waiting) {
      waiting.resolve({value, done: false});
      return;
    }
    this.#values.set(key, value);
    if (this.#values.size > this.limit) {
      this.#values.delete(this.#values.keys().next().value);
      ++this.#dropped;
    }
  }

  /** Returns the number of values dropped since the last call. */
  takeDropped() {
    const dropped = this.#dropped;
    this.#dropped = 0;
    return dropped;
  }

  /**
   * What is unread can still be read. Afterwards the iteration ends, or throws the error.
   * @param {unknown} [error]
   */
  end(error) {
    if (this.#ended) return;
    this.#ended = true;
    this.#error = error;
    for (const {resolve, reject} of this.#waiting.splice(0)) {
      if (error === undefined) resolve({value: undefined, done: true});
      else reject(error);
    }
  }

  /** @returns {Promise<IteratorResult<T>>} */
  next() {
    const first = this.#values.keys().next();
    if (!first.done) {
      const value = /** @type {T} */ (this.#values.get(first.value));
      this.#values.delete(first.value);
      return Promise.resolve({value, done: false});
    }
    if (this.#ended) {
      return this.#error === undefined ? Promise.resolve({value: undefined, done: true}) : Promise.reject(this.#error);
    }
    return new Promise((resolve, reject) => this.#waiting.push({resolve, reject}));
  }
}
