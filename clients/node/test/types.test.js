// Compiles the published types as a host would, and the sources against them, with each TypeScript compiler at hand.
import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import {cpSync, mkdirSync, mkdtempSync, rmSync, symlinkSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import test from 'node:test';
import {fileURLToPath} from 'node:url';

import {compilers} from './tools.js';

const root = fileURLToPath(new URL('..', import.meta.url));
function compile(compiler, project) {
  const {status, stdout, stderr, error} = spawnSync(compiler, ['-p', project], {encoding: 'utf8'});
  return error ? {status: -1, output: String(error)} : {status, output: stdout + stderr};
}

const found = compilers();
for (const [name, isThere] of [['4', found.some(({version}) => version.startsWith('4.'))], ['7', found.some(({version}) => version.startsWith('7.'))]]) {
  if (!isThere) test(`TypeScript ${name}`, {skip: 'it is not there'}, () => {});
}
for (const {program: compiler, version} of found) {
  const name = `TypeScript ${version}`;
  const isOld = /^[45]\./.test(version);

  test(`${name}: the sources have the published types`, () => {
    const {status, output} = compile(compiler, join(root, 'test/types'));
    assert.equal(status, 0, output);
  });

  for (const [module, moduleResolution] of [['node16', 'node16'], ['es2022', isOld ? 'node' : 'bundler']]) {
    test(`${name}: a host compiles with module resolution ${moduleResolution}`, () => {
      const folder = mkdtempSync(join(tmpdir(), 'palaver-'));
      try {
        mkdirSync(join(folder, 'node_modules'));
        symlinkSync(root, join(folder, 'node_modules/palaver-stt'));
        cpSync(join(root, 'test/types/host.ts'), join(folder, 'host.ts'));
        writeFileSync(join(folder, 'package.json'), '{"type": "module"}');
        writeFileSync(join(folder, 'tsconfig.json'), JSON.stringify({
          compilerOptions: {strict: true, noEmit: true, target: 'es2022', lib: ['es2022'], types: [], module, moduleResolution},
          files: ['host.ts'],
        }));
        const {status, output} = compile(compiler, folder);
        assert.equal(status, 0, output);
        // The check can fail: an event without a known type is no event.
        writeFileSync(join(folder, 'host.ts'), "import type {HelperEvent} from 'palaver-stt';\nexport const event: HelperEvent = {type: 'no.such'};\n");
        assert.match(compile(compiler, folder).output, /no\.such/);
      } finally {
        rmSync(folder, {recursive: true});
      }
    });
  }
}
