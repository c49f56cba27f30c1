// Runs the tests that depend on Node's own streams with every other version of Node at hand.
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import test, {describe} from 'node:test';
import {fileURLToPath} from 'node:url';

import {nodes} from './tools.js';

const files = ['framing', 'lifecycle', 'restart'].map(name => fileURLToPath(new URL(`${name}.test.js`, import.meta.url)));
const major = version => Number(version.split('.')[0]);
const found = nodes();
const majors = found.map(({version}) => major(version));
/** One of each major version but this one. */
const others = found.filter(({version}, index) => major(version) !== major(process.versions.node) && majors.indexOf(major(version)) === index);

describe('Node versions', {concurrency: 2}, () => {
  for (const {program, version} of others) {
    test(`Node ${version}`, async () => {
      const {NODE_TEST_CONTEXT: _, ...env} = process.env;  // a runner of its own
      const run = spawn(program, ['--test', ...files], {env, stdio: ['ignore', 'pipe', 'inherit'], timeout: 90_000});
      let output = '';
      run.stdout.on('data', text => { output += text; });
      const status = await new Promise(resolve => run.once('close', resolve));
      assert.equal(status, 0, output);
      const passed = Number(/^\S* ?pass (\d+)$/m.exec(output)?.[1]);
      assert.ok(passed >= 35, output);
    });
  }
  for (const [name, is] of [['18', majors.includes(18)], ['20', majors.includes(20)], ['later than 20', majors.some(own => own > 20)]]) {
    if (!is) test(`Node ${name}`, {skip: 'it is not there'}, () => {});
  }
});
