// Compiles the published types as a host would, and the sources against them, with each TypeScript compiler at hand.
import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import {cpSync, mkdirSync, mkdtempSync, rmSync, symlinkSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import test from 'node:test';
import {fileURLToPath} from 'node:url';

const root = fileURLToPath(new URL('..', import.meta.url));
/** Debian's compiler (4.8), and the paths in PALAVER_TYPESCRIPT, separated by colons. */
const compilers = ['tsc', ...(process.env.PALAVER_TYPESCRIPT ?? '').split(':').filter(Boolean)];

function compile(compiler, project) {
  const {status, stdout, stderr, error} = spawnSync(compiler, ['-p', project], {encoding: 'utf8'});
  return error ? {status: -1, output: String(error)} : {status, output: stdout + stderr};
}

for (const compiler of compilers) {
  const version = spawnSync(compiler, ['--version'], {encoding: 'utf8'});
  const skip = version.error ? `there is no ${compiler}` : false;
  const name = skip ? compiler : `TypeScript ${version.stdout.trim().replace('Version ', '')}`;
  const isOld = /Version [45]\./.test(version.stdout ?? '');

  test(`${name}: the sources have the published types`, {skip}, () => {
    const {status, output} = compile(compiler, join(root, 'test/types'));
    assert.equal(status, 0, output);
  });

  for (const [module, moduleResolution] of [['node16', 'node16'], ['es2022', isOld ? 'node' : 'bundler']]) {
    test(`${name}: a host compiles with module resolution ${moduleResolution}`, {skip}, () => {
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
