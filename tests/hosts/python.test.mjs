import assert from 'node:assert/strict';
import {join} from 'node:path';
import test from 'node:test';

import {helperPath, installed, run, skip, words, writeWav} from './support.mjs';

test('the Python host prints what it hears', {skip}, async () => {
  const {folder, remove} = installed('python');
  try {
    writeWav(join(folder, 'a.wav'));
    const {status, stdout} = await run('python3', ['host.py', helperPath, 'a.wav', 'en-US'], {cwd: folder});
    assert.deepEqual({status, stdout}, {status: 0, stdout: `remote: ${words}\n`});
  } finally {
    remove();
  }
});
