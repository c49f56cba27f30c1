// Drives a headless Chromium over two pipes.
import {spawn, spawnSync} from 'node:child_process';

export const chromium = ['chromium', 'chromium-browser', 'google-chrome'].find(name => !spawnSync(name, ['--version']).error);

/** Speaks the DevTools protocol: JSON messages, each ended by a zero byte. */
export class Browser {
  #last = 0;
  #answers = new Map();

  /** `folder` holds the profile. `onEvent` gets the method and parameters of each event. */
  constructor(folder, options, onEvent = () => {}) {
    this.process = spawn(chromium, [
      '--headless=new', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage', '--no-first-run', '--disable-background-networking',
      '--remote-debugging-pipe', `--user-data-dir=${folder}`, ...options, 'about:blank',
    ], {stdio: ['ignore', 'ignore', 'ignore', 'pipe', 'pipe'], env: {...process.env, HOME: folder}});
    let rest = Buffer.alloc(0);
    this.process.stdio[4].on('data', bytes => {
      rest = Buffer.concat([rest, bytes]);
      for (let end; (end = rest.indexOf(0)) >= 0; rest = rest.subarray(end + 1)) {
        const {id, result, error, method, params} = JSON.parse(rest.toString('utf8', 0, end));
        if (id === undefined) onEvent(method, params);
        else this.#answers.get(id)(error ? Promise.reject(new Error(error.message)) : result);
      }
    });
    this.process.stdio[3].on('error', () => {});
  }

  call(method, params = {}, sessionId = undefined) {
    const id = ++this.#last;
    const answer = new Promise(resolve => this.#answers.set(id, resolve));
    this.process.stdio[3].write(JSON.stringify({id, method, params, sessionId}) + '\0');
    return answer;
  }
}
