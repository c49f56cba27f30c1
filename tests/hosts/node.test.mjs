import assert from 'node:assert/strict';
import {join} from 'node:path';
import test from 'node:test';

import {installed, run, skip, words, writeWav} from './support.mjs';

test('the Node host prints what it hears', {skip}, async () => {
  const {folder, remove} = installed('node');
  try {
    writeWav(join(folder, 'a.wav'));
    const {status, stdout, stderr} = await run(process.execPath, ['host.mjs', 'a.wav', 'en-US'], {cwd: folder});
    assert.deepEqual({status, stdout, stderr}, {status: 0, stdout: `remote: ${words}\n`, stderr: ''});
  } finally {
    remove();
  }
});

test('the Node host explains a locale without a model', {skip}, async () => {
  const {folder, remove} = installed('node');
  try {
    writeWav(join(folder, 'a.wav'));
    const {status, stdout, stderr} = await run(process.execPath, ['host.mjs', 'a.wav', 'fr-FR'], {cwd: folder});
    assert.deepEqual([status, stdout], [0, '']);
    assert.match(stderr, /No recognition of fr-FR/);
    assert.match(stderr, /fr-FR is not installed \(\d\d times\)/);
  } finally {
    remove();
  }
});
