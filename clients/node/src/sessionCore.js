// One session (one meeting): its sources, its utterances, and its way through the helper's restarts.
//
// States:
//   opening    session.start is written, session.ready is awaited
//   open       audio is accepted
//   stopping   padding and draining; audio is refused
//   closed     the utterances have ended
//
// All methods run on the event loop. Times are ms since the Unix epoch, lengths ms.
import {randomUUID} from 'node:crypto';
import {endianness} from 'node:os';

import {within} from './clock.js';
import {PalaverError} from './errors.js';
import {Utterances} from './utterances.js';

const framesPerMs = 16;  // 16 kHz
const padding = new Int16Array(1600);  // 100 ms of quiet
const paddingMs = 100;
const leastPaddingMs = 1500;  // 900 ms of quiet end an utterance; the rest is for the recognizer
const voiceThreshold = 0.008;  // root mean square of full scale, as in the helper
const trailingVoiceMs = 500;  // breath after the last word
const stopMs = 5000;
const analyzerFinalsMs = 1000;  // on macOS 26 finals may follow session.stopped
const allSources = ['remote', 'self'];

/** @param {Int16Array} samples */
function base64(samples) {
  const bytes = Buffer.from(samples.buffer, samples.byteOffset, samples.byteLength);
  return endianness() === 'LE' ? bytes.toString('base64') : Buffer.from(bytes).swap16().toString('base64');
}

/** @param {Int16Array} samples */
function isVoiced(samples) {
  let energy = 0;
  for (const sample of samples) energy += sample * sample;
  return energy >= (voiceThreshold * 32_768) ** 2 * samples.length && samples.length > 0;
}

/** @param {any} options */
function checked(options) {
  /** @param {string} message */
  const refuse = message => { throw new PalaverError('invalid-argument', message); };
  const {locale, vocabulary = [], sources = allSources, sessionId = randomUUID(), readyTimeoutMs = 10_000} = options;
  if (locale !== undefined && typeof locale !== 'string') refuse('locale must be a string, such as en-US');
  if (!Array.isArray(vocabulary) || vocabulary.some(phrase => typeof phrase !== 'string')) {
    refuse('vocabulary must be an array of strings');
  }
  if (vocabulary.length > 100) refuse(`vocabulary has ${vocabulary.length} phrases; the helper uses at most 100`);
  if (!Array.isArray(sources) || sources.length === 0 || sources.some(source => !allSources.includes(source))) {
    refuse("sources must hold 'remote', 'self' or both");
  }
  if (typeof sessionId !== 'string') refuse('sessionId must be a string');
  if (typeof readyTimeoutMs !== 'number' || !(readyTimeoutMs >= 0)) refuse('readyTimeoutMs must be a number of at least 0');
  return {locale, vocabulary: [...vocabulary], sources: [...new Set(sources)], sessionId, readyTimeoutMs};
}

/** What one source has done. */
class SourceState {
  sequence = 0;
  muted = false;
  /**
   * Where the next chunk continues, if the host sends without a pause.
   * @type {number | undefined}
   */
  sentUntil = undefined;
  /** End of the latest chunk with voice. */
  voicedUntil = -Infinity;
  ready = false;
  sent = 0;
  dropped = 0;
  /** @type {{from: number, to: number, chunks: number} | undefined} dropped audio that was not reported yet */
  gap = undefined;
}

export class SessionCore {
  state = /** @type {'opening' | 'open' | 'stopping' | 'closed'} */ ('opening');
  utterances = new Utterances();
  available = false;
  gaps = 0;
  /** @type {Map<string, {code: string, message: string, cure: string, source?: string, count: number}>} */
  errors = new Map();
  /** @type {Map<string, SourceState>} */
  #sources = new Map();
  /** @type {(() => void) | undefined} */
  #opened = undefined;
  /** @type {(() => void) | undefined} */
  #stopped = undefined;
  /** @type {((reason: PalaverError) => void) | undefined} */
  #interrupted = undefined;
  /** @type {{source: string, suppressed: boolean, resolve: (result: string) => void}[]} */
  #suppressing = [];
  #started = false;
  #stopping = /** @type {Promise<any> | undefined} */ (undefined);

  /** @param {import('./client.js').Client} client @param {any} options */
  constructor(client, options) {
    const {locale, vocabulary, sources, sessionId, readyTimeoutMs} = checked(options);
    this.client = client;
    this.id = sessionId;
    this.locale = locale;
    this.vocabulary = vocabulary;
    this.readyTimeoutMs = readyTimeoutMs;
    for (const source of sources) this.#sources.set(source, new SourceState());
  }

  /** Writes session.start and waits for session.ready. */
  async open() {
    const {client} = this;
    const ready = new Promise(resolve => { this.#opened = () => resolve('ready'); });
    /** @type {Promise<PalaverError>} */
    const interrupted = new Promise(resolve => { this.#interrupted = resolve; });
    this.#started = true;
    client.command(this.startCommand());
    const answered = client.ping(this.readyTimeoutMs).then(() => true, () => false);
    const outcome = await within(client.clock, Promise.race([ready, interrupted]), this.readyTimeoutMs, 'late');
    if (outcome instanceof PalaverError) return this.#refuse(outcome);
    // A source of macOS 26 that cannot be prepared yields no session.ready. The answer to a ping tells that from a hanging helper.
    if (outcome === 'late' && !(await answered)) {
      client.command({type: 'session.stop', sessionId: this.id});
      return this.#refuse(new PalaverError('timeout', `The helper did not answer session.start within ${this.readyTimeoutMs} ms`));
    }
    if (this.state !== 'opening') return this.#refuse(new PalaverError('closed', 'The helper was closed'));
    this.#interrupted = undefined;
    this.state = 'open';
    return this;
  }

  /** @param {PalaverError} error @returns {never} */
  #refuse(error) {
    this.state = 'closed';
    this.client.forget(this);
    this.utterances.end();
    throw error;
  }

  startCommand() {
    return {type: 'session.start', sessionId: this.id, locale: this.locale, vocabulary: this.vocabulary};
  }

  /** @param {string} source */
  #key(source) {
    return `${this.id}/${source}`;
  }

  /**
   * @param {string} source
   * @param {Int16Array} samples
   * @param {number} [capturedAt]
   */
  send(source, samples, capturedAt) {
    if (this.state !== 'open') return 'closed';
    const state = this.#sources.get(source);
    if (!state) return this.#misuse('invalid-source', `send() of the source ${String(source)}, which openSession() did not name`);
    if (!(samples instanceof Int16Array)) {
      return this.#misuse('invalid-audio', 'send() takes an Int16Array of 16 kHz mono samples; Resampler makes one of other audio');
    }
    if (capturedAt !== undefined && !Number.isFinite(capturedAt)) {
      return this.#misuse('invalid-audio', 'capturedAt must be a number of ms since the Unix epoch');
    }
    if (state.muted) return 'dropped';
    return this.#send(source, state, samples, capturedAt);
  }

  /**
   * @param {string} source
   * @param {SourceState} state
   * @param {Int16Array} samples
   * @param {number} [at]
   */
  #send(source, state, samples, at) {
    const {client} = this;
    const ms = samples.length / framesPerMs;
    const capturedAt = at ?? client.clock.now() - ms;
    const line = JSON.stringify({
      type: 'audio', sessionId: this.id, source, sequence: state.sequence++, capturedAt, pcmBase64: base64(samples),
    }) + '\n';
    const {result, dropped} = client.audio({line, key: this.#key(source), ms, capturedAt});
    state.sentUntil = capturedAt + ms;
    if (isVoiced(samples)) state.voicedUntil = capturedAt + ms;
    ++state.sent;
    for (const chunk of dropped) this.#countDropped(state, chunk);
    return result;
  }

  /** @param {SourceState} state @param {{capturedAt: number, ms: number}} chunk */
  #countDropped(state, {capturedAt, ms}) {
    --state.sent;
    ++state.dropped;
    state.gap ??= {from: capturedAt, to: capturedAt + ms, chunks: 0};
    state.gap.to = capturedAt + ms;
    ++state.gap.chunks;
  }

  /** Reports audio that was dropped, when the helper accepts audio again. */
  reportDropped() {
    for (const [source, state] of this.#sources) {
      if (!state.gap || this.client.hasQueuedAudio(this.#key(source))) continue;
      const gap = state.gap;
      state.gap = undefined;
      this.#gap(source, 'backpressure', gap.from, gap.to, gap.chunks);
    }
  }

  /**
   * @param {string} source
   * @param {string} reason
   * @param {number} from
   * @param {number} to
   * @param {number} droppedChunks
   */
  #gap(source, reason, from, to, droppedChunks) {
    ++this.gaps;
    this.client.emit({type: 'client.gap', sessionId: this.id, source, reason, from, to, droppedChunks});
  }

  /** @param {string} code @param {string} message */
  #misuse(code, message) {
    this.client.error({type: 'client.error', code, message, sessionId: this.id});
    return 'dropped';
  }

  /**
   * @param {string} source
   * @param {boolean} suppressed
   * @returns {Promise<string>}
   */
  suppress(source, suppressed) {
    const state = this.#sources.get(source);
    if (this.state !== 'open' || !state) {
      if (!state) this.#misuse('invalid-source', `suppress() of the source ${String(source)}, which openSession() did not name`);
      return Promise.resolve('closed');
    }
    state.muted = Boolean(suppressed);
    if (state.muted) {
      for (const chunk of this.client.removeQueuedAudio(this.#key(source))) this.#countDropped(state, /** @type {any} */ (chunk));
      state.gap = undefined;  // muted on request: nothing that the host misses
    }
    if (!this.client.accepting) return Promise.resolve('deferred');
    this.client.command({type: 'source.suppress', sessionId: this.id, source, suppressed: state.muted});
    return new Promise(resolve => this.#suppressing.push({source, suppressed: state.muted, resolve}));
  }

  /** @param {any} event one with this session's id */
  handle(event) {
    switch (event.type) {
      case 'session.ready':
        for (const [source, state] of this.#sources) if (event.source === undefined || event.source === source) state.ready = true;
        this.available = event.available;
        if (event.source === undefined || [...this.#sources.values()].every(state => state.ready)) this.#opened?.();
        break;
      case 'transcript.partial':
      case 'transcript.final':
        if (this.state !== 'closed') this.utterances.handle(event);
        break;
      case 'source.suppressed': {
        if (event.suppressed) this.utterances.abandon(event.source);
        const index = this.#suppressing.findIndex(({source, suppressed}) => source === event.source && suppressed === event.suppressed);
        if (index >= 0) this.#suppressing.splice(index, 1)[0].resolve('applied');
        break;
      }
      case 'session.stopped':
        this.#stopped?.();
        break;
      case 'helper.error': {
        const key = `${event.source ?? ''} ${event.message}`;
        const known = this.errors.get(key);
        if (known) ++known.count;
        else if (this.errors.size < 100) {
          const {code, cure, message, source} = event;
          this.errors.set(key, {code, message, cure, count: 1, ...(source === undefined ? {} : {source})});
        }
        break;
      }
    }
  }

  /** @param {{drainMs?: number}} options @returns {Promise<any>} */
  stop({drainMs = 5000} = {}) {
    return this.#stopping ??= this.#stop(Number(drainMs) >= 0 ? Number(drainMs) : 0);
  }

  /** @param {number} drainMs */
  async #stop(drainMs) {
    const {client} = this;
    if (this.state === 'closed') return this.report(false);
    this.state = 'stopping';
    /** @type {Promise<boolean>} */
    const stopped = new Promise(resolve => {
      this.#stopped = () => resolve(true);
      this.#interrupted = () => resolve(false);
    });
    let answered = false;
    if (client.accepting) {
      await Promise.race([this.#drain(drainMs), stopped]);
      if (client.accepting) client.command({type: 'session.stop', sessionId: this.id});
      answered = await within(client.clock, stopped, stopMs, false);
      if (answered && client.status?.implementation === 'speech-analyzer') {
        await within(client.clock, client.ended, analyzerFinalsMs, undefined);
      }
    }
    return this.close(undefined, answered);
  }

  /**
   * Sends quiet at the pace of speech, so that the helper ends the open utterances.
   * @param {number} drainMs
   */
  async #drain(drainMs) {
    const {client} = this;
    const began = client.clock.monotonic();
    // Where nothing was recognized, as in a locale without a model, there is nothing to wait for.
    const hopeful = this.available || this.utterances.finals > 0 || this.utterances.open().length > 0;
    const sources = hopeful ? [...this.#sources].filter(([, state]) => state.sent > 0 && !state.muted) : [];
    while (sources.length > 0 && client.accepting) {
      const elapsed = client.clock.monotonic() - began;
      const waiting = this.utterances.open().length > 0 || sources.some(([source, state]) => client.hasQueuedAudio(this.#key(source)) ||
        // Voice without text: a busy machine's recognizer is behind, or it was noise.
        state.voicedUntil > this.utterances.finalUntil(source) + trailingVoiceMs);
      if (elapsed >= drainMs || (elapsed >= leastPaddingMs && !waiting)) return;
      for (const [source, state] of sources) this.#send(source, state, padding, state.sentUntil);
      await within(client.clock, client.ended, paddingMs, undefined);
    }
  }

  /**
   * Ends the session on this side and returns its report.
   * @param {PalaverError} [error]
   * @param {boolean} [stopped]
   */
  close(error, stopped = false) {
    if (this.state === 'closed') return this.report(stopped);
    const drained = this.utterances.open().length === 0;
    for (const [source, state] of this.#sources) {
      for (const chunk of this.client.removeQueuedAudio(this.#key(source))) this.#countDropped(state, /** @type {any} */ (chunk));
      if (state.gap) this.#gap(source, 'backpressure', state.gap.from, state.gap.to, state.gap.chunks);
    }
    this.state = 'closed';
    this.#settle(error ?? new PalaverError('closed', 'The session was closed'), 'closed');
    this.utterances.end(error);
    this.client.forget(this);
    return this.report(stopped, drained);
  }

  /** @param {boolean} stopped */
  report(stopped, drained = true) {
    const sum = (/** @type {'sent' | 'dropped'} */ what) => [...this.#sources.values()].reduce((total, state) => total + state[what], 0);
    const {finals, abandoned, unread} = this.utterances;
    return {
      stopped, drained: stopped && drained, finals, abandoned, unread, chunks: {sent: sum('sent'), dropped: sum('dropped')},
      gaps: this.gaps, errors: [...this.errors.values()],
    };
  }

  /** @param {PalaverError} error @param {string} suppression */
  #settle(error, suppression) {
    const interrupted = this.#interrupted;
    this.#interrupted = undefined;
    interrupted?.(error);
    for (const {resolve} of this.#suppressing.splice(0)) resolve(suppression);
  }

  /**
   * The process ended; another one may follow.
   * @param {PalaverError} error
   */
  helperEnded(error) {
    /** @type {Map<string, number>} */
    const from = new Map();
    for (const {source, startedAt} of this.utterances.open()) from.set(source, Math.min(startedAt, from.get(source) ?? Infinity));
    for (const [source, state] of this.#sources) {
      state.ready = false;
      if (state.sentUntil !== undefined && !this.#lostFrom.has(source)) {
        this.#lostFrom.set(source, from.get(source) ?? this.client.oldestQueued(this.#key(source)) ?? state.sentUntil);
      }
    }
    this.utterances.abandon();
    this.#settle(error, 'deferred');
  }
  /**
   * Since when words may be missing, of each source that has sent audio.
   * @type {Map<string, number>}
   */
  #lostFrom = new Map();

  /** What a new process has to know, to be written before any queued audio. */
  reopenCommands() {
    if (!this.#started || this.state !== 'open') return [];
    const muted = [...this.#sources].filter(([, state]) => state.muted);
    return [this.startCommand(), ...muted.map(([source]) => ({type: 'source.suppress', sessionId: this.id, source, suppressed: true}))];
  }

  /** The new process has the session. Audio from now on, and audio that waited, is recognized. */
  reopened() {
    for (const [source, from] of this.#lostFrom) {
      const to = Math.max(from, this.client.oldestQueued(this.#key(source)) ?? this.client.clock.now());
      const state = /** @type {SourceState} */ (this.#sources.get(source));
      const dropped = state.gap?.chunks ?? 0;
      state.gap = undefined;
      this.#gap(source, 'restart', from, to, dropped);
    }
    this.#lostFrom.clear();
  }
}
