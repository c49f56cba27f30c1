// The package's public classes. Documentation of each member: index.d.ts.
import {Client} from './client.js';
import {authorize, health, installModel} from './modes.js';

export {PalaverError} from './errors.js';
export {findHelper} from './locate.js';
export {Resampler} from './resampler.js';

export class Session {
  #core;

  /** @param {any} core */
  constructor(core) {
    this.#core = core;
    this.utterances = core.utterances.iterate();
  }

  get id() { return this.#core.id; }
  get available() { return this.#core.available; }

  /**
   * @param {any} source
   * @param {Int16Array} samples
   * @param {number} [capturedAt]
   */
  send(source, samples, capturedAt) { return this.#core.send(source, samples, capturedAt); }

  /** @param {any} source @param {boolean} [suppressed] */
  suppress(source, suppressed = true) { return this.#core.suppress(source, suppressed); }

  /** @param {{drainMs?: number}} [options] */
  stop(options) { return this.#core.stop(options); }
}

export class PalaverHelper {
  #client;

  /** @param {any} client */
  constructor(client) { this.#client = client; }

  /** @param {any} [options] */
  static async start(options = {}) {
    return new PalaverHelper(await new Client(options).start());
  }

  static health = health;
  static authorize = authorize;
  static installModel = installModel;

  get status() { return this.#client.status; }
  get pid() { return this.#client.pid; }

  /** @param {any} [options] */
  async openSession(options) { return new Session(await this.#client.openSession(options)); }

  events() { return this.#client.events(); }

  /** @param {{timeoutMs?: number}} [options] */
  ping(options) { return this.#client.ping(options?.timeoutMs); }

  /** @param {{timeoutMs?: number}} [options] */
  close(options) { return this.#client.close(options); }
}
