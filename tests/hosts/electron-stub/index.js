// Takes the place of Electron's main process in a test: one window, whose page plays a recording at 48 kHz instead of a microphone.
import {EventEmitter} from 'node:events';
import {readFileSync} from 'node:fs';
import {pathToFileURL} from 'node:url';

const handlers = new Map();
const log = (what, value) => console.log(JSON.stringify([what, value]));
let page = 'about:blank';
const event = () => ({senderFrame: {url: page}});

export const ipcMain = Object.assign(new EventEmitter(), {handle: (channel, handler) => handlers.set(channel, handler)});
const invoke = (channel, ...values) => handlers.get(channel)(event(), ...values);

class App extends EventEmitter {
  whenReady() { return Promise.resolve(); }

  quit() {
    let prevented = false;
    this.emit('before-quit', {preventDefault() { prevented = true; }});
    log('quit', {prevented});
    if (!prevented) process.exit(0);
  }
}
export const app = new App();
export const systemPreferences = {};
export const session = {
  defaultSession: {
    setPermissionRequestHandler(handler) {
      for (const [url, permission] of [[page, 'media'], ['https://elsewhere.example/', 'media'], [page, 'geolocation']]) {
        this.requests ??= [];
        this.requests.push(() => handler({getURL: () => url === 'about:blank' ? page : url}, permission, granted => log('permission', [permission, granted])));
      }
    },
  },
};

export class BrowserWindow {
  webContents = {send: (channel, value) => log(channel, value)};
  isDestroyed() { return false; }

  async loadFile(path) {
    page = pathToFileURL(path).href;
    readFileSync(path);
    for (const request of session.defaultSession.requests) request();
    log('foreign', await handlers.get('meeting:start')({senderFrame: {url: 'https://elsewhere.example/'}}, {sampleRate: 48_000}) ?? null);
    log('status', await invoke('helper:status'));
    log('start', await invoke('meeting:start', {locale: 'en-US', sampleRate: 48_000}));
    const bytes = readFileSync(process.env.RECORDING);
    const samples = new Int16Array(bytes.buffer, bytes.byteOffset, Math.floor(bytes.length / 2));
    const began = performance.now();
    for (let at = 0; at < samples.length; at += 160) {  // 10 ms
      // Each sample three times: 48 kHz, with images above 8 kHz that the resampler has to remove.
      const block = Float32Array.from({length: 480}, (_, i) => (samples[at + Math.floor(i / 3)] ?? 0) / 32_768);
      const wait = began + at / 16 - performance.now();
      if (wait > 0) await new Promise(resolve => setTimeout(resolve, wait));
      ipcMain.emit('meeting:audio', event(), [block]);
    }
    log('report', await invoke('meeting:stop'));
    app.emit('window-all-closed');
  }
}
