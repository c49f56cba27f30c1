#!/usr/bin/env node
// Runs the helper with the given arguments, such as --health, --authorize or --install-assets.
import {spawn} from 'node:child_process';

import {findHelper} from '../src/locate.js';

try {
  const child = spawn(findHelper(), process.argv.slice(2), {stdio: 'inherit'});
  for (const signal of /** @type {const} */ (['SIGINT', 'SIGTERM', 'SIGHUP'])) process.on(signal, () => child.kill(signal));
  child.on('error', error => {
    console.error(error.message);
    process.exitCode = 1;
  });
  child.on('exit', (status, signal) => {
    if (signal) console.error(`The helper was ended by ${signal}`);
    process.exitCode = status ?? 1;
  });
} catch (error) {
  console.error(error instanceof Error ? error.message : error);
  process.exitCode = 1;
}
