// Finds the helper program.
import {accessSync, constants, statSync} from 'node:fs';
import {delimiter, isAbsolute, join} from 'node:path';
import {fileURLToPath} from 'node:url';

import {PalaverError} from './errors.js';

export const programName = 'PalaverSTTHelper';
const packageRoot = fileURLToPath(new URL('..', import.meta.url));

/** @param {string} path */
function isExecutableFile(path) {
  try {
    accessSync(path, constants.X_OK);
    return statSync(path).isFile();
  } catch {
    return false;
  }
}

/**
 * A program cannot be started inside an asar archive. Electron builders put unpacked files next to it.
 * @param {string} path
 */
export const outsideOfArchive = path => path.replace(/\.asar(?=[\\/])/g, '.asar.unpacked');

/**
 * Returns the path of the helper: `PALAVER_STT_HELPER`, then this package's `prebuilt/<platform>-<arch>/`, then the resources of an
 * Electron application, then the `PATH`. Throws `helper-not-found` with the places that were tried.
 * @param {Record<string, string | undefined>} [env]
 */
export function findHelper(env = process.env) {
  if (env.PALAVER_STT_HELPER) return env.PALAVER_STT_HELPER;
  const resources = /** @type {any} */ (process).resourcesPath;
  const places = [
    outsideOfArchive(join(packageRoot, 'prebuilt', `${process.platform}-${process.arch}`, programName)),
    ...(resources ? [join(resources, programName)] : []),
  ];
  for (const folder of (env.PATH ?? '').split(delimiter)) if (isAbsolute(folder)) places.push(join(folder, programName));
  const found = places.find(isExecutableFile);
  if (found) return found;
  throw new PalaverError('helper-not-found',
    `No ${programName} found. Pass helperPath, set PALAVER_STT_HELPER, or put it at ${places[0]} or on the PATH`);
}
