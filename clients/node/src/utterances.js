// Folds the transcripts of one session into utterances.
//
// States of an utterance:
//   partial    the text so far; a later one of the same id replaces it
//   final      the text will not change
//   abandoned  no final will follow: the source was muted, the helper ended, or a final under another id covers it
import {IncomingQueue} from './queues.js';

const unreadLimit = 10_000;  // hours of speech
const openLimit = 1_000;

export class Utterances {
  /** @type {Map<string, any>} */
  #open = new Map();
  #queue = /** @type {IncomingQueue<any>} */ (new IncomingQueue(unreadLimit));

  finals = 0;
  abandoned = 0;
  /** Utterances that were dropped because the host did not read them. */
  get unread() {
    return this.#unread += this.#queue.takeDropped();
  }
  #unread = 0;

  /** @param {any} event a transcript.partial or transcript.final */
  handle(event) {
    const {utteranceId: id, source, text, startedAt, transcribedAt} = event;
    const base = {id, source, text, startedAt, transcribedAt};
    if (event.type === 'transcript.partial') {
      const before = this.#open.get(id);
      const utterance = Object.freeze({state: 'partial', ...base});
      this.#open.set(id, utterance);
      if (this.#open.size > openLimit) this.#abandon(/** @type {any} */ (this.#open.values().next().value));
      if (before?.text !== text || before.startedAt !== startedAt) this.#queue.push(utterance, id);
      return;
    }
    this.#open.delete(id);
    ++this.finals;
    this.#finalUntil.set(source, event.speechEndedAt);
    // On macOS 26 the id contains the start, which may change with the final.
    for (const utterance of [...this.#open.values()]) {
      if (utterance.source === source && utterance.startedAt < event.speechEndedAt) this.#abandon(utterance);
    }
    const {speechEndedAt, latencyMs, endpointing} = event;
    const final = {state: 'final', ...base, speechEndedAt, latencyMs, reason: String(endpointing.reason ?? 'unknown')};
    this.#queue.push(Object.freeze(final), id);
  }

  /**
   * End of a source's latest final, ms since the Unix epoch.
   * @param {string} source
   */
  finalUntil(source) {
    return this.#finalUntil.get(source) ?? -Infinity;
  }
  /** @type {Map<string, number>} */
  #finalUntil = new Map();

  /**
   * The utterances without a final.
   * @param {string} [source]
   */
  open(source) {
    return [...this.#open.values()].filter(utterance => source === undefined || utterance.source === source);
  }

  /**
   * Abandons the utterances without a final.
   * @param {string} [source]
   */
  abandon(source) {
    for (const utterance of this.open(source)) this.#abandon(utterance);
  }

  /** @param {any} utterance */
  #abandon(utterance) {
    this.#open.delete(utterance.id);
    ++this.abandoned;
    this.#queue.push(Object.freeze({...utterance, state: 'abandoned'}), utterance.id);
  }

  /** @param {unknown} [error] */
  end(error) {
    this.abandon();
    this.#queue.end(error);
  }

  /** One consumer at a time; leaving a loop and starting another continues where the first one stopped. */
  iterate() {
    const queue = this.#queue;
    return {
      next: () => queue.next(),
      return: () => Promise.resolve({value: undefined, done: true}),
      [Symbol.asyncIterator]() { return this; },
    };
  }
}
