#!/usr/bin/env node
// Adds to a host's package.json what the helper's messages name and what packaging needs. Keeps what is there.
//
//   palaver-stt-init [FOLDER]
import {readFileSync, realpathSync, renameSync, rmSync, statSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';

const scripts = {
  'helper:authorize': 'palaver-stt-helper --authorize',
  'helper:install-model': 'palaver-stt-helper --install-assets',
};
const unpacked = '**/node_modules/palaver-stt/prebuilt/**';
const afterPack = 'palaver-stt/electron/after-pack.cjs';
const macBinary = 'Contents/Resources/app.asar.unpacked/node_modules/palaver-stt/prebuilt/darwin-arm64/PalaverSTTHelper';

/** @param {unknown} value @returns {value is Record<string, any>} */
const isObject = value => typeof value === 'object' && value !== null && !Array.isArray(value);

class Edit {
  /** @type {string[]} */
  added = [];
  /** @type {string[]} */
  kept = [];

  /** @param {Record<string, any>} object @param {string} key @param {string} where @returns {Record<string, any> | undefined} */
  object(object, key, where) {
    if (object[key] === undefined) object[key] = {};
    if (isObject(object[key])) return object[key];
    this.kept.push(`${where}: not an object`);
    return undefined;
  }

  /** @param {Record<string, any>} object @param {string} key @param {string} value @param {string} where */
  text(object, key, value, where) {
    if (object[key] === undefined) {
      object[key] = value;
      this.added.push(`${where}: ${value}`);
    } else if (object[key] !== value) {
      this.kept.push(`${where}: ${JSON.stringify(object[key])}; expected ${JSON.stringify(value)}`);
    }
  }

  /** @param {Record<string, any>} object @param {string} key @param {string} value @param {string} where */
  item(object, key, value, where) {
    const list = object[key] === undefined ? [] : typeof object[key] === 'string' ? [object[key]] : object[key];
    if (!Array.isArray(list)) {
      this.kept.push(`${where}: neither a text nor a list; expected ${JSON.stringify(value)} in it`);
    } else if (!list.includes(value)) {
      object[key] = [...list, value];
      this.added.push(`${where}: ${value}`);
    }
  }
}

/** @param {Record<string, any>} manifest */
function edit(manifest) {
  const result = new Edit();
  const own = result.object(manifest, 'scripts', 'scripts');
  if (own) for (const [name, command] of Object.entries(scripts)) result.text(own, name, command, `scripts.${name}`);
  const used = {...manifest.dependencies, ...manifest.devDependencies};
  if (manifest.build !== undefined || 'electron-builder' in used) {
    const build = result.object(manifest, 'build', 'build');
    if (build) {
      result.item(build, 'asarUnpack', unpacked, 'build.asarUnpack');
      result.text(build, 'afterPack', afterPack, 'build.afterPack');
      const mac = result.object(build, 'mac', 'build.mac');
      if (mac) result.item(mac, 'binaries', macBinary, 'build.mac.binaries');
    }
  }
  return {...result, forge: '@electron-forge/cli' in used};
}

/** @param {string} path */
function run(path) {
  const text = readFileSync(path, 'utf8');
  const mark = text.startsWith('\ufeff') ? '\ufeff' : '';
  const manifest = JSON.parse(text.slice(mark.length));
  if (!isObject(manifest)) throw new Error('it holds no object');
  const {added, kept, forge} = edit(manifest);
  if (added.length > 0) {
    const indent = /^[{\s]*?\n([ \t]+)"/.exec(text.slice(mark.length))?.[1] ?? 2;
    const end = /\s*$/.exec(text)?.[0] ?? '';
    const newline = text.includes('\r\n') ? '\r\n' : '\n';
    const target = realpathSync(path);
    const temporary = `${target}.${process.pid}.tmp`;
    try {  // all or nothing
      writeFileSync(temporary, mark + JSON.stringify(manifest, null, indent).replaceAll('\n', newline) + end, {mode: statSync(target).mode});
      renameSync(temporary, target);
    } finally {
      rmSync(temporary, {force: true});
    }
  }
  for (const line of added) console.log(`added ${line}`);
  for (const line of kept) console.log(`kept ${line}`);
  if (added.length + kept.length === 0) console.log('nothing to add');
  if (forge) {
    console.log(`Electron Forge: put these into packagerConfig of forge.config.js
  asar: {unpack: '${unpacked}'},
  afterCopy: [(folder, version, platform, arch, done) => require('${afterPack}').default({appOutDir: folder, asar: false}).then(() => done(), done)],`);
  }
}

const path = join(process.argv[2] ?? '.', 'package.json');
try {
  run(path);
} catch (error) {
  console.error(`${path} was not changed: ${error instanceof Error ? error.message : error}`);
  process.exitCode = 1;
}
