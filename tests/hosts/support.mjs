// What the tests of the examples share.
import {spawn} from 'node:child_process';
import {cpSync, existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, symlinkSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import {fileURLToPath} from 'node:url';

const root = fileURLToPath(new URL('../..', import.meta.url));
export const helperPath = process.env.PALAVER_STT_HELPER ?? join(root, 'build/dev/PalaverSTTHelper');
export const recording = '/usr/share/pocketsphinx/test/data/goforward.raw';
export const pythonClient = join(root, 'clients/python/src');
export const words = 'go forward ten meters';
export const skip = !existsSync(helperPath) ? `there is no helper at ${helperPath}`
  : !existsSync(recording) ? 'the recordings of pocketsphinx-testdata are not installed' : false;

/** A copy of an example with its packages installed; the test removes it. */
export function installed(example) {
  const folder = mkdtempSync(join(tmpdir(), 'palaver-'));
  cpSync(join(root, 'examples', example), folder, {recursive: true, filter: path => !path.includes('node_modules')});
  const modules = join(folder, 'node_modules');
  mkdirSync(modules);
  symlinkSync(join(root, 'clients/node'), join(modules, 'palaver-stt'));
  if (example === 'electron') symlinkSync(join(root, 'tests/hosts/electron-stub'), join(modules, 'electron'));
  return {folder, remove: () => rmSync(folder, {recursive: true, maxRetries: 5})};
}

/** Writes the recording, followed by quiet, as a WAV file. */
export function writeWav(path, {secondsOfQuiet = 0} = {}) {
  const raw = readFileSync(recording);
  const sampleRate = 16_000;
  const quiet = Int16Array.from({length: Math.round(16_000 * secondsOfQuiet)}, (_, i) => i % 7 - 3);  // not zeros: a live microphone
  const samples = Buffer.concat([raw.subarray(0, raw.length - raw.length % 2), Buffer.from(quiet.buffer)]);
  const head = Buffer.alloc(44);
  head.write('RIFF');
  head.writeUInt32LE(36 + samples.length, 4);
  head.write('WAVEfmt ', 8);
  head.writeUInt32LE(16, 16);
  head.writeUInt16LE(1, 20);
  head.writeUInt16LE(1, 22);
  head.writeUInt32LE(sampleRate, 24);
  head.writeUInt32LE(2 * sampleRate, 28);
  head.writeUInt16LE(2, 32);
  head.writeUInt16LE(16, 34);
  head.write('data', 36);
  head.writeUInt32LE(samples.length, 40);
  writeFileSync(path, Buffer.concat([head, samples]));
}

/** Runs a program to its end. */
export function run(command, args, options = {}) {
  const child = spawn(command, args, {stdio: ['ignore', 'pipe', 'pipe'], ...options, env: {...process.env, PALAVER_STT_HELPER: helperPath, ...options.env}});
  const result = {stdout: '', stderr: ''};
  child.stdout.setEncoding('utf8').on('data', text => { result.stdout += text; });
  child.stderr.setEncoding('utf8').on('data', text => { result.stderr += text; });
  return new Promise((resolve, reject) => {
    child.once('error', reject);
    child.once('close', (status, signal) => resolve({...result, status, signal}));
  });
}
