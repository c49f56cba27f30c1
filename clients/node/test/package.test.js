import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import {existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import test from 'node:test';
import {fileURLToPath} from 'node:url';

import * as own from '../src/index.js';

const root = fileURLToPath(new URL('..', import.meta.url));
const manifest = JSON.parse(readFileSync(join(root, 'package.json'), 'utf8'));
const npm = spawnSync('npm', ['--version'], {encoding: 'utf8'});
const tar = spawnSync('tar', ['--version'], {encoding: 'utf8'});

test('every file that the manifest names exists', () => {
  const named = [manifest.main, manifest.types, ...Object.values(manifest.bin), ...Object.values(manifest.exports).flatMap(entry =>
    typeof entry === 'string' ? entry : Object.values(entry))];
  for (const file of named) assert.ok(existsSync(join(root, file)), file);
  assert.equal(manifest.dependencies, undefined);
  for (const file of readdirSync(join(root, 'src'))) {
    const imports = [...readFileSync(join(root, 'src', file), 'utf8').matchAll(/^import .*?from '([^']+)'|^} from '([^']+)'/gm)];
    for (const [, a, b] of imports) assert.match(a ?? b, /^(node:|\.\/)/, `${file} needs nothing else`);
  }
});

test('the resampler imports nothing, so browsers can load it', () => {
  assert.doesNotMatch(readFileSync(join(root, 'src/resampler.js'), 'utf8'), /^import |\brequire\(|process\.|Buffer/m);
});

test('the package packs without a registry and works from CommonJS', {skip: npm.error || tar.error ? 'there is no npm' : false}, () => {
  const folder = mkdtempSync(join(tmpdir(), 'palaver-'));
  try {
    const packed = spawnSync('npm', ['pack', '--offline', '--silent', '--ignore-scripts', '--pack-destination', folder, root],
      {encoding: 'utf8', cwd: folder, env: {...process.env, npm_config_cache: join(folder, 'cache')}});
    assert.equal(packed.status, 0, packed.stderr);
    const modules = join(folder, 'node_modules');
    mkdirSync(modules);
    assert.equal(spawnSync('tar', ['-xzf', join(folder, packed.stdout.trim()), '-C', modules]).status, 0);
    spawnSync('mv', [join(modules, 'package'), join(modules, 'palaver-stt')]);
    const files = readdirSync(join(modules, 'palaver-stt')).sort();
    assert.deepEqual(files, ['LICENSE', 'README.md', 'bin', 'electron', 'index.d.ts', 'package.json', 'protocol.d.ts', 'recording.d.ts',
      'resampler.d.ts', 'src']);
    for (const file of ['src/index.js', 'protocol.d.ts']) {
      assert.equal(readFileSync(join(modules, 'palaver-stt', file), 'utf8'), readFileSync(join(root, file), 'utf8'));
    }
    const host = `import('palaver-stt').then(async all => {
      const {Resampler} = await import('palaver-stt/resampler');
      const {paced} = await import('palaver-stt/recording');
      console.log(Object.keys(all).sort().join(), Resampler === all.Resampler, typeof paced);
    });`;
    const {stdout, stderr} = spawnSync(process.execPath, ['--input-type=commonjs', '-e', host], {cwd: folder, encoding: 'utf8'});
    assert.equal(stdout, `${Object.keys(own).sort().join()} true function\n`, stderr);
  } finally {
    rmSync(folder, {recursive: true});
  }
});
