import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import {chmodSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, statSync, symlinkSync, writeFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import test from 'node:test';
import {fileURLToPath} from 'node:url';

const bin = name => fileURLToPath(new URL(`../bin/${name}.js`, import.meta.url));
const afterPack = createRequire(import.meta.url)('../electron/after-pack.cjs').default;

function inFolder(action) {
  return async () => {
    const folder = mkdtempSync(join(tmpdir(), 'palaver-'));
    try {
      await action(folder);
    } finally {
      rmSync(folder, {recursive: true});
    }
  };
}

const init = folder => spawnSync(process.execPath, [bin('palaver-stt-init'), folder], {encoding: 'utf8'});
const manifest = folder => join(folder, 'package.json');

test('the two scripts are added, in the file\'s own style, once', inFolder(folder => {
  const before = '{\r\n\t"name": "host",\r\n\t"scripts": {\r\n\t\t"start": "node ."\r\n\t},\r\n\t"x": [1, "\u3042"]\r\n}\r\n';
  writeFileSync(manifest(folder), before, {mode: 0o640});
  const first = init(folder);
  assert.equal(first.status, 0, first.stderr);
  const after = readFileSync(manifest(folder), 'utf8');
  assert.equal(after, '{\r\n\t"name": "host",\r\n\t"scripts": {\r\n\t\t"start": "node .",\r\n' +
    '\t\t"helper:authorize": "palaver-stt-helper --authorize",\r\n\t\t"helper:install-model": "palaver-stt-helper --install-assets"\r\n' +
    '\t},\r\n\t"x": [\r\n\t\t1,\r\n\t\t"\u3042"\r\n\t]\r\n}\r\n');
  assert.equal(statSync(manifest(folder)).mode & 0o777, 0o640);
  const second = init(folder);
  assert.equal(second.stdout, 'nothing to add\n');
  assert.equal(readFileSync(manifest(folder), 'utf8'), after);
  assert.deepEqual(readdirSync(folder), ['package.json']);
}));

test('what is there is kept and named', inFolder(folder => {
  writeFileSync(manifest(folder), JSON.stringify({scripts: {'helper:authorize': 'my-own'}, build: {asarUnpack: 'mine/**', afterPack: './my.cjs', mac: 1}}));
  const {stdout} = init(folder);
  const {scripts, build} = JSON.parse(readFileSync(manifest(folder), 'utf8'));
  assert.equal(scripts['helper:authorize'], 'my-own');
  assert.equal(scripts['helper:install-model'], 'palaver-stt-helper --install-assets');
  assert.deepEqual(build, {asarUnpack: ['mine/**', '**/node_modules/palaver-stt/prebuilt/**'], afterPack: './my.cjs', mac: 1});
  for (const name of ['scripts.helper:authorize', 'build.afterPack', 'build.mac']) assert.match(stdout, new RegExp(`^kept ${name}: `, 'm'));
}));

test('packaging lines come with electron-builder only', inFolder(folder => {
  writeFileSync(manifest(folder), JSON.stringify({devDependencies: {electron: '1', 'electron-builder': '1', '@electron-forge/cli': '1'}}));
  const {stdout} = init(folder);
  const {build} = JSON.parse(readFileSync(manifest(folder), 'utf8'));
  assert.deepEqual(Object.keys(build), ['asarUnpack', 'afterPack', 'mac']);
  assert.match(build.mac.binaries[0], /app\.asar\.unpacked.*PalaverSTTHelper$/);
  assert.match(stdout, /Electron Forge/);
  writeFileSync(manifest(folder), '{}');
  init(folder);
  assert.deepEqual(Object.keys(JSON.parse(readFileSync(manifest(folder), 'utf8'))), ['scripts']);
}));

test('a file that is no manifest is not touched', inFolder(folder => {
  for (const text of ['', '[]', '{"scripts": }', 'null']) {
    writeFileSync(manifest(folder), text);
    const {status, stderr} = init(folder);
    assert.equal(status, 1);
    assert.match(stderr, /package\.json was not changed/);
    assert.equal(readFileSync(manifest(folder), 'utf8'), text);
  }
  rmSync(manifest(folder));
  assert.match(init(folder).stderr, /was not changed: ENOENT/);
}));

test('a linked manifest stays a link', inFolder(folder => {
  const real = join(folder, 'real.json');
  writeFileSync(real, '{}');
  symlinkSync(real, manifest(folder));
  init(folder);
  assert.match(readFileSync(real, 'utf8'), /helper:authorize/);
}));

test('the scripts run the helper and pass on its status', inFolder(folder => {
  const helper = join(folder, 'PalaverSTTHelper');
  writeFileSync(helper, '#!/bin/sh\necho "$@"\nexit 7\n', {mode: 0o755});
  const run = env => spawnSync(process.execPath, [bin('palaver-stt-helper'), '--authorize', 'x'], {encoding: 'utf8', env});
  const {status, stdout} = run({PALAVER_STT_HELPER: helper, PATH: '/usr/bin:/bin'});
  assert.deepEqual([status, stdout], [7, '--authorize x\n']);
  const none = run({PATH: '/nowhere'});
  assert.equal(none.status, 1);
  assert.match(none.stderr, /No PalaverSTTHelper found/);
}));

test('the executable bit is set outside of the archive', inFolder(async folder => {
  await assert.rejects(afterPack({appOutDir: folder}), /palaver-stt-init/);
  const place = join(folder, 'mac/Host.app/Contents/Resources/app.asar.unpacked/node_modules/palaver-stt/prebuilt/darwin-arm64');
  mkdirSync(place, {recursive: true});
  const helper = join(place, 'PalaverSTTHelper');
  writeFileSync(helper, '');
  const worker = join(place, 'PalaverSpeechWorker');
  writeFileSync(worker, '');
  for (const file of [helper, worker]) chmodSync(file, 0o644);
  await afterPack({appOutDir: folder});
  for (const file of [helper, worker]) assert.equal(statSync(file).mode & 0o777, 0o755);
}));
