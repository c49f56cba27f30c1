// What the tests share: fake helpers, the real one, a clock that the test moves, and waiting for what happens.
import {AsyncLocalStorage} from 'node:async_hooks';
import {existsSync, readFileSync} from 'node:fs';
import nodeTest from 'node:test';
import {fileURLToPath} from 'node:url';

import {Client} from '../src/client.js';
import {PalaverHelper} from '../src/index.js';

const path = relative => fileURLToPath(new URL(relative, import.meta.url));

/** The helpers of the running test. */
const started = new AsyncLocalStorage();

/** Like node:test's, but a test that fails leaves no helper running, which would keep the runner waiting. */
export function test(name, ...rest) {
  const action = rest.pop();
  nodeTest(name, ...rest, () => {
    const helpers = [];
    return started.run(helpers, async () => {
      try {
        await action();
      } finally {
        await Promise.all(helpers.map(helper => helper.close({timeoutMs: 1000})));
      }
    });
  });
}

export async function start(options) {
  const helper = await PalaverHelper.start(options);
  started.getStore().push(helper);
  return helper;
}

/** Options that start a fake helper. */
export const fake = (mode, ...rest) => ({helperPath: process.execPath, args: [path('fakes/helper.js'), mode, ...rest]});

export const realHelper = process.env.PALAVER_STT_HELPER ?? path('../../../build/dev/PalaverSTTHelper');
export const simulator = process.env.PALAVER_STT_SIMULATOR ?? path('../../../build/dev/simulator/PalaverSTTSimulator');
export const recordings = '/usr/share/pocketsphinx/test/data';

/** Why a test on the real helper cannot run, or false. */
export const withoutHelper = !existsSync(realHelper) ? `there is no helper at ${realHelper}`
  : !existsSync(`${recordings}/goforward.raw`) ? 'the recordings of pocketsphinx-testdata are not installed' : false;
export const withoutSimulator = existsSync(simulator) ? false : `there is no simulator at ${simulator}`;

/** A headerless recording of 16 kHz, mono, 16 bits. */
export function rawRecording(name) {
  const bytes = readFileSync(`${recordings}/${name}`);
  return new Int16Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length - bytes.length % 2));
}

/** Collects what an iterator yields, and waits for what matches. */
export class Collected {
  values = [];
  #waiting = [];

  constructor(iterable) {
    this.done = (async () => {
      for await (const value of iterable) {
        this.values.push(value);
        this.#waiting = this.#waiting.filter(({matches, resolve}) => !matches(value) || resolve(value));
      }
    })();
    this.done.catch(() => {});  // tests that expect an error await `done`
  }

  /** Resolves when everything that was delivered is in `values`. */
  settled() {
    return new Promise(setImmediate);
  }

  /** The first value, past or future, that matches. */
  find(matches) {
    const found = this.values.find(matches);
    return found !== undefined ? Promise.resolve(found) : new Promise(resolve => this.#waiting.push({matches, resolve}));
  }

  /** The first future value that matches. */
  next(matches) {
    return new Promise(resolve => this.#waiting.push({matches, resolve}));
  }

  /** Resolves when so many values match. */
  async count(matches, number) {
    while (this.values.filter(matches).length < number) await this.next(matches);
    return this.values.filter(matches);
  }
}

/** Matches an event of a fake helper that reports a command. */
export const received = type => event => event.type === 'unknown' && event.raw?.type === 'fake.received' && event.raw.command.type === type;
export const ofType = type => event => event.type === type;

/** Whether a process is there. A zombie is not: it has ended. */
export function isAlive(pid) {
  try {
    process.kill(pid, 0);
    return readFileSync(`/proc/${pid}/stat`, 'latin1').replace(/.*\) /, '')[0] !== 'Z';
  } catch {
    return false;
  }
}

/** Resolves when a process has ended, which only its parent is told. */
export async function gone(pid) {
  while (isAlive(pid)) await new Promise(setImmediate);
}

/** Time that only the test moves. */
export class VirtualClock {
  #now = Date.UTC(2026, 0, 1);
  #timers = new Set();
  now = () => this.#now;
  monotonic = () => this.#now;
  setTimeout = (action, ms) => {
    const timer = {at: this.#now + ms, action};
    this.#timers.add(timer);
    return timer;
  };
  clearTimeout = timer => this.#timers.delete(timer);
  get pending() { return this.#timers.size; }

  /** Moves the time and runs what is due, in order. */
  advance(ms) {
    const until = this.#now + ms;
    for (;;) {
      const due = [...this.#timers].filter(({at}) => at <= until).sort((a, b) => a.at - b.at)[0];
      if (!due) break;
      this.#timers.delete(due);
      this.#now = Math.max(this.#now, due.at);
      due.action();
    }
    this.#now = until;
  }
}

/** A helper like `PalaverHelper.start()` on a clock of the test. */
export async function startOn(clock, options) {
  const helper = new PalaverHelper(await new Client({...options}, clock).start());
  started.getStore().push(helper);
  return helper;
}
export {PalaverHelper};
