import assert from 'node:assert/strict';
import {join} from 'node:path';
import test from 'node:test';

import {helperPath, installed, pythonClient, run, skip, words, writeWav} from './support.mjs';

for (const {name, example, args, env} of [
  {name: 'the Python host', example: 'python', args: [], env: {PYTHONPATH: pythonClient}},
  {name: 'the host without a client', example: 'without-client', args: [helperPath], env: {}},
])
  test(`${name} prints what it hears`, {skip}, async () => {
    const {folder, remove} = installed(example);
    try {
      writeWav(join(folder, 'a.wav'));
      const {status, stdout} = await run('python3', ['host.py', ...args, 'a.wav', 'en-US'], {cwd: folder, env});
      assert.deepEqual({status, stdout}, {status: 0, stdout: `remote: ${words}\n`});
    } finally {
      remove();
    }
  });

test('the Python host ends with a reason when the language is missing', {skip}, async () => {
  const {folder, remove} = installed('python');
  try {
    writeWav(join(folder, 'a.wav'));
    const {status, stderr} = await run('python3', ['host.py', 'a.wav', 'xx-XX'], {cwd: folder, env: {PYTHONPATH: pythonClient}});
    assert.equal(status, 1);
    assert.match(stderr, /^[^\n]*xx-XX[^\n]*\n$/);
  } finally {
    remove();
  }
});
