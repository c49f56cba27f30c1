// Types and documentation of the package `palaver-stt`. Needs no other types: not those of Node, not those of a browser.
//
// Times are ms since the Unix epoch, lengths are ms, unless a name says otherwise. Everything runs on the event loop of the caller.
import type {
  AudioSource, ErrorCode, HelperAuthorizationEvent, HelperErrorEvent, HelperEvent as ProtocolEvent, HelperModelEvent, HelperStatusEvent,
} from './protocol.js';

export * from './protocol.js';
export {Resampler} from './resampler.js';

/** Why a promise was rejected. `code` is stable, `message` is English text for developers. */
export class PalaverError extends Error {
  readonly name: 'PalaverError';
  readonly code: ClientErrorCode | ErrorCode | 'unknown';
  /** The helper's exit status, if it ended with one. */
  readonly exitCode: number | null;
  /** The signal that ended the helper, if one did. */
  readonly signal: string | null;
  /**
   * The last 4096 characters of the helper's standard error, if it ended. With `PALAVER_STT_DEBUG=1` they contain spoken text.
   * Protect them like the transcripts.
   */
  readonly stderr: string;
  readonly cause?: unknown;
}

/** Stable names of the errors of this package; those of the helper's `helper.error` are `ErrorCode`. */
export type ClientErrorCode =
  /** There is no helper program at the given path, or none was found. */
  | 'helper-not-found'
  /** The program lacks its executable bit. */
  | 'helper-not-executable'
  /** The system refused to start the program. */
  | 'helper-not-started'
  /** The helper ended while the caller waited, or too often. */
  | 'helper-exited'
  /** The helper did not answer in time. */
  | 'timeout'
  /** The helper speaks a protocol that this package does not know. */
  | 'unsupported-protocol'
  /** `close()` was called. */
  | 'closed'
  | 'invalid-argument'
  | 'invalid-audio'
  | 'invalid-source'
  | 'invalid-recording'
  /** `installModel()` ended without an installed model. */
  | 'model-not-installed';

export interface ProgramOptions {
  /** Path of `PalaverSTTHelper`. Default: `findHelper()`. Inside an asar archive, the unpacked file is used. */
  readonly helperPath?: string;
  /** Arguments before the helper's own, for a simulated helper. Default: none. */
  readonly args?: readonly string[];
  /** Environment of the helper. Default: `process.env`. */
  readonly env?: Readonly<Record<string, string | undefined>>;
}

export interface StartOptions extends ProgramOptions {
  /** How long `start()` waits for the status, in ms. The helper may take 2.5 s on a Mac. Default: 10000. */
  readonly statusTimeoutMs?: number;
  /** Audio of one source that waits at most for a helper that is not reading, in ms. Default: 10000. */
  readonly maxQueuedMs?: number;
  /** `false`: the first unexpected end of the helper is its last. Default: true, see `PalaverHelper`. */
  readonly restart?: boolean;
  /**
   * Called with text from the helper's standard error, which is always read. Default: dropped. What it throws is ignored.
   */
  readonly onStderr?: (text: string) => void;
}

export interface SessionOptions {
  /** Locale identifier, such as `en-US`. Default: `ja-JP`. */
  readonly locale?: string;
  /** Phrases to prefer, such as names and terms. At most 100. Default: none. */
  readonly vocabulary?: readonly string[];
  /** The sources that will send audio. Default: both. */
  readonly sources?: readonly AudioSource[];
  /** Default: a random UUID. */
  readonly sessionId?: string;
  /** How long to wait for `session.ready`, in ms. Default: 10000. */
  readonly readyTimeoutMs?: number;
}

/**
 * Keeps one helper process running. The process ends with the host, however that ends.
 *
 * Restarts: when the helper ends unexpectedly, it is started again after 0, 250, 500 and 1000 ms. The fifth end within 3 minutes is
 * the last one: the iterators of all sessions throw `helper-exited`. Before the first status there is no restart: `start()` rejects.
 * After a restart, open sessions are opened again, muted sources are muted again, and `client.gap` says since when words may be
 * missing. Audio sent meanwhile is queued, up to `maxQueuedMs`.
 */
export class PalaverHelper {
  private constructor();

  /**
   * Starts a helper. Resolves when its status is known; `status.available` may be false. Rejects with `helper-not-found`,
   * `helper-not-executable`, `helper-not-started`, `helper-exited` (with exit status and standard error), `timeout`, or
   * `unsupported-protocol`. After a rejection no process is left.
   */
  static start(options?: StartOptions): Promise<PalaverHelper>;

  /**
   * Returns the status without a meeting (`--health`). Rejects like `start()`, and with `timeout` after `timeoutMs` (ms, default
   * 10000).
   */
  static health(options?: ProgramOptions & {readonly timeoutMs?: number}): Promise<HelperStatusEvent>;

  /**
   * Asks the user for the permission (`--authorize`). Resolves with the answer; a refusal is no error. Waits for the user without a
   * limit, unless `timeoutMs` (ms) is given. Rejects like `start()`.
   */
  static authorize(options?: ProgramOptions & {readonly timeoutMs?: number}): Promise<HelperAuthorizationEvent>;

  /**
   * Downloads the model of a locale (`--install-assets`, macOS 26; default `ja-JP`). Resolves when it is installed. Rejects like
   * `start()`, with the code of the helper's error, such as `system-unsupported`, or with `model-not-installed`.
   */
  static installModel(locale?: string, options?: ProgramOptions & {
    readonly timeoutMs?: number, readonly onProgress?: (event: HelperModelEvent) => void,
  }): Promise<HelperModelEvent>;

  /**
   * The latest status. It is about Japanese, whatever the locales of the sessions. Show `message` when `available` is false.
   */
  readonly status: HelperStatusEvent;

  /** The process id, or undefined while no helper runs. */
  readonly pid: number | undefined;

  /**
   * Opens a session: one per meeting. Resolves when the helper is ready for its sources, or has answered without being ready:
   * look at `available`. Rejects with `invalid-argument`, `timeout`, `helper-exited` (also while the helper is being restarted) or
   * `closed`.
   */
  openSession(options?: SessionOptions): Promise<Session>;

  /**
   * All events from now on, including those that this package does not know; right after `start()`, also those before. Ends after
   * `close()` or the helper's last end. Each call returns its own iterator. At most 1000 unread events are kept; `client.overflow` says how many older ones were dropped.
   */
  events(): AsyncIterableIterator<HelperEvent>;

  /**
   * Asks for an answer after all earlier commands. `timeoutMs`: ms, default 10000. Rejects with `timeout`, `helper-exited` or
   * `closed`. A round trip that grows shows that the helper lags.
   */
  ping(options?: {readonly timeoutMs?: number}): Promise<Pong>;

  /**
   * Ends the helper: closes its input, lets it write the last transcripts, and waits. After `timeoutMs` (ms, default 5000) it is
   * ended by signals. Never rejects; resolves within `timeoutMs` + 1000 ms. Further calls return the same promise.
   */
  close(options?: {readonly timeoutMs?: number}): Promise<CloseReport>;
}

export interface Pong {
  /** From `ping()` to the answer, in ms. */
  readonly roundTripMs: number;
  /** The helper's clock minus the host's, in ms, with an error of at most half of the round trip. */
  readonly clockOffsetMs: number;
  /** The helper's clock. */
  readonly helperAt: number;
}

export interface CloseReport {
  readonly exitCode: number | null;
  readonly signal: string | null;
  /** Whether signals were needed: text without a final is lost. */
  readonly forced: boolean;
}

/**
 * What became of a chunk.
 * - `sent`: the pipe to the helper has it.
 * - `queued`: it waits, because the helper is not reading or is being restarted.
 * - `dropped`: audio was lost. It waits in place of the oldest chunk of its source; or the source is muted, or the arguments were
 *   wrong (`client.error` says so) and the chunk itself was not taken.
 * - `closed`: the session is stopped, or the helper has ended for good. The chunk was not taken.
 */
export type SendResult = 'sent' | 'queued' | 'dropped' | 'closed';

/** One meeting. */
export class Session {
  private constructor();

  readonly id: string;

  /** Whether the session's locale can be recognized. If not, each chunk of audio is tried and yields a `helper.error`. */
  readonly available: boolean;

  /**
   * The utterances from the opening on, oldest first. A partial replaces an unread one of the same id, so a slow reader only sees the
   * latest text. Ends when the session is stopped or the helper is closed; throws `helper-exited` if the helper ends for good. One
   * consumer. A second loop continues where the first one was left. At most 10000 unread utterances are kept.
   */
  readonly utterances: AsyncIterableIterator<Utterance>;

  /**
   * Sends one chunk: 16 kHz mono samples, 100 ms (1600) at best, at the pace of speech, quiet ones too. The samples are copied.
   * `capturedAt` is the time of the first sample; the default takes the chunk as just recorded. Never throws and never waits.
   */
  send(source: AudioSource, samples: Int16Array, capturedAt?: number): SendResult;

  /**
   * Mutes or unmutes a source (default: mutes). Audio of a muted source does not leave this process, and its utterances without
   * a final are abandoned. Resolves to `applied` when the helper has confirmed, to `deferred` if the helper is being restarted and
   * will be told then, or to `closed`. Never rejects.
   */
  suppress(source: AudioSource, suppressed?: boolean): Promise<'applied' | 'deferred' | 'closed'>;

  /**
   * Ends the session without losing words: sends quiet for 1.5 s, and on while an utterance is open or voice has yielded
   * no text yet, at most `drainMs` (ms, default 5000; 0: none). Then stops the session and waits for the last finals. Never
   * rejects; resolves within `drainMs` + 6000 ms, and within 2000 ms after the helper's end. Further calls return the same promise.
   */
  stop(options?: {readonly drainMs?: number}): Promise<StopReport>;
}

export interface StopReport {
  /** Whether the helper confirmed. */
  readonly stopped: boolean;
  /** Whether it confirmed and no utterance was left without a final. */
  readonly drained: boolean;
  readonly finals: number;
  /** Utterances without a final. */
  readonly abandoned: number;
  /** Utterances that were dropped because they were not read. */
  readonly unread: number;
  readonly chunks: {readonly sent: number, readonly dropped: number};
  /** The number of `client.gap` events. */
  readonly gaps: number;
  /** The helper's errors, each text once, with its count. */
  readonly errors: ReadonlyArray<{
    readonly code: ErrorCode | 'unknown', readonly message: string, readonly cure: string, readonly source?: AudioSource,
    readonly count: number,
  }>;
}

interface UtteranceText {
  /** The same in all states of one utterance. */
  readonly id: string;
  readonly source: AudioSource;
  /** The complete text so far. */
  readonly text: string;
  /** Start of the first word, on the clock of `capturedAt`. */
  readonly startedAt: number;
  /** When the helper wrote it, on its clock. */
  readonly transcribedAt: number;
}

/** The text so far. It may change. */
export interface PartialUtterance extends UtteranceText {
  readonly state: 'partial';
}

/** The text will not change. */
export interface FinalUtterance extends UtteranceText {
  readonly state: 'final';
  /** End of the last word, on the clock of `capturedAt`. */
  readonly speechEndedAt: number;
  /** From the end of the speech to the event. Meaningless if `capturedAt` was on another clock. */
  readonly latencyMs: number;
  /** Why it ended: `silence`, `max-speech`, `fallback`, `flush`, `framework`, or a later version's word. */
  readonly reason: string;
}

/** No final will follow: the source was muted, the helper ended, or a final with another id has the words. */
export interface AbandonedUtterance extends UtteranceText {
  readonly state: 'abandoned';
}

export type Utterance = PartialUtterance | FinalUtterance | AbandonedUtterance;

/** An event that this version does not know, or that lacks a key. `raw` is the parsed JSON, or the line if it is not JSON. */
export interface UnknownEvent {
  readonly type: 'unknown';
  readonly raw: unknown;
}

/** An error of the helper, with its code. Equal errors within 10 s are folded: the first one immediately, the others as one. */
export interface HelperError extends HelperErrorEvent {
  readonly code: ErrorCode | 'unknown';
  /** What to do, for developers. */
  readonly cure: string;
  /** How many events this one stands for. */
  readonly count: number;
}

/** A wrong use of `send()` or `suppress()`. Folded like `HelperError`. */
export interface ClientErrorEvent {
  readonly type: 'client.error';
  readonly code: ClientErrorCode;
  readonly message: string;
  readonly sessionId: string;
  readonly count: number;
}

/** The helper ended unexpectedly. */
export interface ExitedEvent {
  readonly type: 'client.exited';
  readonly exitCode: number | null;
  readonly signal: string | null;
  readonly willRestart: boolean;
}

/** A new helper runs and has the open sessions. */
export interface RestartedEvent {
  readonly type: 'client.restarted';
  /** Of the helper that ended. */
  readonly exitCode: number | null;
  readonly signal: string | null;
  /** How long no helper was there, in ms. */
  readonly downMs: number;
}

/** Words may be missing: the helper was restarted, or did not read for so long that audio was dropped. */
export interface GapEvent {
  readonly type: 'client.gap';
  readonly sessionId: string;
  readonly source: AudioSource;
  readonly reason: 'restart' | 'backpressure';
  /** On the clock of `capturedAt`. */
  readonly from: number;
  /** On the clock of `capturedAt`. */
  readonly to: number;
  /** Chunks that this package dropped. Audio that an ended helper had not recognized comes on top. */
  readonly droppedChunks: number;
}

/** This iterator was not read: events were dropped. */
export interface OverflowEvent {
  readonly type: 'client.overflow';
  readonly count: number;
}

/** What `PalaverHelper.events()` yields. `type` tells them apart. */
export type HelperEvent =
  | Exclude<ProtocolEvent, HelperErrorEvent>
  | HelperError
  | ClientErrorEvent
  | ExitedEvent
  | RestartedEvent
  | GapEvent
  | OverflowEvent
  | UnknownEvent;

/**
 * Returns the path of the helper: `PALAVER_STT_HELPER`, or `prebuilt/<platform>-<arch>/` of this package, or the resources of an
 * Electron application, or the `PATH`. Throws `helper-not-found` with the places that were tried.
 */
export function findHelper(env?: Readonly<Record<string, string | undefined>>): string;
