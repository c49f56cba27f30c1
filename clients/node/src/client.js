// Keeps one helper running: starts it, restarts it, queues what it cannot take yet, and distributes its events.
//
// One event loop, no threads. All state belongs to this object; a process reports only to the object that started it.
import {systemClock, within} from './clock.js';
import {PalaverError, classifyError} from './errors.js';
import {HelperProcess} from './helperProcess.js';
import {findHelper} from './locate.js';
import {IncomingQueue, OutgoingQueue} from './queues.js';
import {SessionCore} from './sessionCore.js';

const knownProtocol = 1;
const restartDelaysMs = [0, 250, 500, 1000];
const restartEnds = 5;  // unexpected ends within `restartWindowMs`; the last of them stops the restarts
const restartWindowMs = 180_000;
const repeatMs = 10_000;  // equal errors within it are folded into one event
const unreadEvents = 1000;
const terminateMs = 1000;

/** @typedef {import('./clock.js').Clock} Clock */

export class Client {
  /**
   * The latest helper.status.
   * @type {any}
   */
  status = undefined;
  /** Whether a process is there to write to. */
  running = false;
  /**
   * Resolves when no process runs and none will be started. Never rejects.
   * @type {Promise<any>}
   */
  ended;
  #resolveEnded = /** @type {(report: any) => void} */ (() => {});
  #process = /** @type {HelperProcess | undefined} */ (undefined);
  #queue;
  /** @type {Map<string, SessionCore>} */
  #sessions = new Map();
  /** @type {Set<IncomingQueue<any>>} */
  #listeners = new Set();
  /** @type {{sentAt: number, began: number, resolve: (pong: any) => void, reject: (error: PalaverError) => void}[]} */
  #pings = [];
  /** @type {Map<string, {event: any, count: number, timer: any}>} */
  #repeats = new Map();
  /** @type {number[]} */
  #ends = [];
  #restartTimer = /** @type {any} */ (undefined);
  #statusSeen = /** @type {((event: any) => void) | undefined} */ (undefined);
  #closing = /** @type {Promise<any> | undefined} */ (undefined);
  #failed = /** @type {PalaverError | undefined} */ (undefined);
  #restarting = /** @type {{exitCode: number | null, signal: string | null, since: number} | undefined} */ (undefined);
  #started = false;
  #lastEnding = /** @type {import('./helperProcess.js').Ending} */ ({exitCode: null, signal: null});
  #lastSentAt = 0;

  /** @param {any} options @param {Clock} [clock] */
  constructor(options, clock = systemClock) {
    this.clock = clock;
    this.options = {statusTimeoutMs: 10_000, maxQueuedMs: 10_000, restart: true, ...options};
    this.#queue = new OutgoingQueue(this.options.maxQueuedMs);
    this.ended = new Promise(resolve => { this.#resolveEnded = resolve; });
  }

  get pid() {
    return this.running ? this.#process?.pid : undefined;
  }

  /** Whether commands reach a helper that knows the sessions. */
  get accepting() {
    return this.running && !this.#restarting;
  }

  get closed() {
    return this.#closing !== undefined || this.#failed !== undefined;
  }

  /** Starts the first process and waits for what it says of the machine. */
  async start() {
    const {helperPath = findHelper(this.options.env), statusTimeoutMs} = this.options;
    this.path = helperPath;
    /** @type {any} */
    let status;
    /** @type {Promise<void>} */
    const known = new Promise(resolve => {
      this.#statusSeen = event => {
        if (event.type === 'helper.status') status = event;
        // The status of macOS 26 comes in two events; an error may take the place of the second.
        const preliminary = event.type === 'helper.status' && ['checking-model', 'unavailable'].includes(event.status);
        if (status && !preliminary) resolve();
      };
    });
    const process = this.#spawn();
    const ending = await within(this.clock, Promise.race([known, process.ended]), statusTimeoutMs, undefined);
    this.#statusSeen = undefined;
    if (ending) {
      const {exitCode, signal, error} = ending;
      const how = signal ? `was ended by ${signal}` : `ended with status ${exitCode}`;
      throw error ?? new PalaverError('helper-exited', `${helperPath} ${how} before its first status`,
        {exitCode, signal, stderr: process.stderr});
    }
    if (!status) {
      process.terminate();
      await process.ended;
      throw new PalaverError('timeout', `${helperPath} wrote no helper.status within ${statusTimeoutMs} ms`, {stderr: process.stderr});
    }
    if ((status.protocolVersion ?? knownProtocol) !== knownProtocol) {
      await this.close({timeoutMs: 1000});
      throw new PalaverError('unsupported-protocol', `The helper speaks protocol ${status.protocolVersion}, this client ${knownProtocol}`);
    }
    this.#started = true;
    setImmediate(() => { this.#early = undefined; });
    if (process.hasEnded) this.#processEnded(await process.ended);
    return this;
  }

  #spawn() {
    const process = new HelperProcess({path: this.path, args: this.options.args, env: this.options.env}, {
      onEvent: event => this.#handle(event),
      onWritable: () => this.#flush(),
      onStderr: this.options.onStderr,
    });
    this.#process = process;
    this.running = true;
    void process.ended.then(ending => {
      this.running = false;
      this.#lastEnding = ending;
      if (this.#started || this.#closing) this.#processEnded(ending);
    });
    return process;
  }

  /** @param {import('./helperProcess.js').Ending} ending */
  #processEnded({exitCode, signal, error}) {
    const message = signal ? `The helper was ended by ${signal}` : `The helper ended with status ${exitCode}`;
    const reason = error ?? new PalaverError('helper-exited', message, {exitCode, signal, stderr: this.#process?.stderr});
    for (const {reject} of this.#pings.splice(0)) reject(reason);
    this.#queue.removeCommands();
    for (const session of [...this.#sessions.values()]) session.helperEnded(reason);
    if (this.#closing) return this.#end(undefined);
    const now = this.clock.monotonic();
    this.#ends = [...this.#ends.filter(end => now - end < restartWindowMs), now];
    const willRestart = this.options.restart !== false && this.#ends.length < restartEnds;
    this.emit({type: 'client.exited', exitCode, signal, willRestart});
    if (!willRestart) {
      const limit = this.options.restart === false ? '' : `, the ${restartEnds}th time within ${restartWindowMs / 1000} s`;
      return this.#end(new PalaverError('helper-exited', message + limit, {exitCode, signal, stderr: this.#process?.stderr}));
    }
    this.#restarting ??= {exitCode, signal, since: now};
    this.#restartTimer = this.clock.setTimeout(() => this.#restart(), restartDelaysMs[this.#ends.length - 1]);
  }

  #restart() {
    this.#restartTimer = undefined;
    const process = this.#spawn();
    const reopened = [...this.#sessions.values()];
    for (const session of reopened) for (const command of session.reopenCommands()) process.write(line(command));
    this.#statusSeen = event => {
      if (event.type !== 'helper.status') return;
      this.#statusSeen = undefined;
      const {exitCode, signal, since} = /** @type {any} */ (this.#restarting);
      this.#restarting = undefined;
      this.emit({type: 'client.restarted', exitCode, signal, downMs: this.clock.monotonic() - since});
      for (const session of reopened) {
        if (session.state === 'open') session.reopened();
        else this.command({type: 'session.stop', sessionId: session.id});  // stopped meanwhile
      }
      this.#flush();
    };
  }

  // Output.

  /** @param {any} command */
  command(command) {
    if (!this.accepting) return;  // reopenCommands() has the state
    this.#queue.pushCommand(line(command));
    this.#flush();
  }

  /** @param {{line: string, key: string, ms: number, capturedAt: number}} entry */
  audio(entry) {
    if (this.accepting && this.#process?.writable && this.#queue.empty) {
      this.#process.write(entry.line);
      return {result: 'sent', dropped: []};
    }
    const dropped = this.#queue.pushAudio(entry);
    return {result: dropped.length > 0 ? 'dropped' : 'queued', dropped};
  }

  /** @param {string} key */
  hasQueuedAudio(key) {
    return this.#queue.hasAudio(key);
  }

  /** @param {string} key */
  oldestQueued(key) {
    return this.#queue.oldestCapturedAt(key);
  }

  /** @param {string} key */
  removeQueuedAudio(key) {
    return this.#queue.removeAudio(key);
  }

  #flush() {
    if (this.#restarting) return;  // audio waits for the first status of the new process
    while (this.#process?.writable) {
      const entry = this.#queue.take();
      if (!entry) break;
      this.#process.write(entry.line);
    }
    for (const session of this.#sessions.values()) session.reportDropped();
    if (this.#queue.empty) this.#flushed?.();
  }
  #flushed = /** @type {(() => void) | undefined} */ (undefined);

  // Input.

  /** @param {any} event */
  #handle(event) {
    if (event.type === 'helper.status') this.status = event;
    if (event.type === 'helper.error') {
      event = {...event, ...classifyError(event.message)};
      this.#sessions.get(event.sessionId)?.handle(event);
      this.error(event);
    } else {
      if (event.type === 'pong') this.#pong(event);
      this.#sessions.get(event.sessionId)?.handle(event);
      this.emit(event);
    }
    if (event.type === 'helper.status' || event.type === 'helper.error') this.#statusSeen?.(event);
  }

  /** @param {any} pong */
  #pong({sentAt, helperAt}) {
    const index = this.#pings.findIndex(ping => ping.sentAt === sentAt);
    if (index < 0) return;
    const [{began, resolve}] = this.#pings.splice(index, 1);
    const roundTripMs = this.clock.monotonic() - began;
    resolve({roundTripMs, clockOffsetMs: helperAt - (sentAt + roundTripMs / 2), helperAt});
  }

  /**
   * Folds repeats of an error: the first is delivered immediately, the others as one with their count.
   * @param {any} event
   */
  error(event) {
    const {at: _, ...identity} = event;
    const key = JSON.stringify(identity);
    const repeat = this.#repeats.get(key);
    if (repeat) {
      repeat.event = event;
      ++repeat.count;
      return;
    }
    this.emit({...event, count: 1});
    if (this.#repeats.size >= 100) return;  // errors with ever new texts are delivered one by one
    const timer = this.clock.setTimeout(() => this.#emitRepeats(key), repeatMs);
    timer?.unref?.();
    this.#repeats.set(key, {event, count: 0, timer});
  }

  /** @param {string} key */
  #emitRepeats(key) {
    const repeat = this.#repeats.get(key);
    if (!repeat) return;
    this.#repeats.delete(key);
    this.clock.clearTimeout(repeat.timer);
    if (repeat.count > 0) this.emit({...repeat.event, count: repeat.count});
  }

  /** @param {any} event */
  emit(event) {
    if (this.#early && this.#early.length < unreadEvents) this.#early.push(event);
    for (const queue of this.#listeners) queue.push(event);
  }
  /** What comes before the host can call events(). */
  #early = /** @type {any[] | undefined} */ ([]);

  events() {
    /** @type {IncomingQueue<any>} */
    const queue = new IncomingQueue(unreadEvents);
    for (const event of this.#early ?? []) queue.push(event);
    if (this.#hasEnded) queue.end();
    else this.#listeners.add(queue);
    const stop = () => { queue.end(); this.#listeners.delete(queue); };
    return {
      async next() {
        const count = queue.takeDropped();
        return count > 0 ? {value: {type: 'client.overflow', count}, done: false} : queue.next();
      },
      async return() {
        stop();
        return {value: undefined, done: true};
      },
      [Symbol.asyncIterator]() { return this; },
    };
  }
  #hasEnded = false;

  // What the host calls.

  /** @param {any} options */
  async openSession(options = {}) {
    if (this.closed) throw this.#failed ?? new PalaverError('closed', 'The helper is closed');
    if (!this.accepting) throw new PalaverError('helper-exited', 'The helper is being restarted; try again after client.restarted');
    const session = new SessionCore(this, options ?? {});
    if (this.#sessions.has(session.id)) throw new PalaverError('invalid-argument', `The session ${session.id} is already open`);
    this.#sessions.set(session.id, session);
    return session.open();
  }

  /** @param {SessionCore} session */
  forget(session) {
    if (this.#sessions.get(session.id) === session) this.#sessions.delete(session.id);
    for (const [key, {event}] of [...this.#repeats]) if (event.sessionId === session.id) this.#emitRepeats(key);
  }

  /** @param {number} [timeoutMs] @returns {Promise<any>} */
  async ping(timeoutMs = 10_000) {
    if (this.closed) throw this.#failed ?? new PalaverError('closed', 'The helper is closed');
    if (!this.accepting) throw new PalaverError('helper-exited', 'The helper is being restarted');
    const began = this.clock.monotonic();
    // Pings of one millisecond are told apart by their fraction, which the helper returns as it is.
    const sentAt = this.#lastSentAt = Math.max(this.clock.now(), this.#lastSentAt + 0.001);
    /** @type {any} */
    const ping = {sentAt, began};
    const answer = new Promise((resolve, reject) => Object.assign(ping, {resolve, reject}));
    this.#pings.push(ping);
    this.command({type: 'ping', sentAt});
    const pong = await within(this.clock, answer, timeoutMs, undefined);
    if (pong) return pong;
    this.#pings = this.#pings.filter(other => other !== ping);
    throw new PalaverError('timeout', `The helper did not answer a ping within ${timeoutMs} ms`);
  }

  /** @param {{timeoutMs?: number}} [options] @returns {Promise<any>} */
  close(options) {
    return this.#closing ??= this.#close(options?.timeoutMs ?? 5000);
  }

  /** @param {number} timeoutMs */
  async #close(timeoutMs) {
    const {clock} = this;
    await Promise.resolve();  // `#closing` is set
    if (this.#restartTimer !== undefined) clock.clearTimeout(this.#restartTimer);
    const reason = new PalaverError('closed', 'The helper was closed');
    for (const {reject} of this.#pings.splice(0)) reject(reason);
    const process = this.#process;
    let forced = false;
    if (process && !process.hasEnded) {
      const began = clock.monotonic();
      if (!this.#queue.empty && !this.#restarting) {
        await within(clock, Promise.race([new Promise(resolve => { this.#flushed = () => resolve(true); }), process.ended]), timeoutMs, 0);
      }
      process.closeInput();
      const left = Math.max(0, timeoutMs - (clock.monotonic() - began));
      if (!(await within(clock, process.ended, left, undefined))) {
        forced = true;
        process.terminate();
        await within(clock, process.ended, terminateMs, undefined);
      }
    }
    this.running = false;
    this.#end(undefined);
    return {exitCode: this.#lastEnding.exitCode, signal: this.#lastEnding.signal, forced};
  }

  /**
   * No process will follow.
   * @param {PalaverError | undefined} failure
   */
  #end(failure) {
    if (this.#hasEnded) return;
    this.#hasEnded = true;
    this.#failed = failure;
    for (const session of [...this.#sessions.values()]) session.close(failure);
    for (const key of [...this.#repeats.keys()]) this.#emitRepeats(key);
    this.#queue.clear();
    for (const queue of this.#listeners) queue.end();
    this.#listeners.clear();
    this.#resolveEnded(failure);
  }
}

/** @param {any} command */
const line = command => JSON.stringify(command) + '\n';
