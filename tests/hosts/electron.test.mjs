// The example's main process with a stub in the place of Electron. Electron itself is not tried.
import assert from 'node:assert/strict';
import test from 'node:test';

import {installed, recording, run, skip, words} from './support.mjs';

test('the main process transcribes what its window sends', {skip}, async () => {
  const {folder, remove} = installed('electron');
  try {
    const {status, stdout, stderr} = await run(process.execPath, ['main.mjs'], {cwd: folder, env: {RECORDING: recording}});
    assert.equal(status, 0, stderr);
    const log = stdout.trim().split('\n').map(line => JSON.parse(line));
    const all = name => log.filter(([what]) => what === name).map(([, value]) => value);
    assert.deepEqual(all('permission'), [['media', true], ['media', false], ['geolocation', false]]);
    assert.deepEqual(all('foreign'), [null], 'another page gets nothing');
    assert.deepEqual(all('start'), [{available: true}]);
    assert.deepEqual(all('utterance').filter(({state}) => state === 'final').map(({text}) => text), [words]);
    assert.equal(all('report')[0].drained, true);
    assert.deepEqual(all('quit'), [{prevented: true}, {prevented: false}], 'the helper ends first');
  } finally {
    remove();
  }
});
