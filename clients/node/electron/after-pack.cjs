// Sets the executable bits of the helper and its worker in a packed application, which archives and file systems may lose.
//
// electron-builder calls it after packing and before signing, so the signature covers the file as it is. Fails when the helper is
// missing or only inside the archive, from where it cannot be started.
const {chmod, readdir} = require('node:fs/promises');
const {basename, join, sep} = require('node:path');

const programName = 'PalaverSTTHelper';
const workerName = 'PalaverSpeechWorker'; // of Linux, beside the helper

async function* find(folder) {
  for (const entry of await readdir(folder, {withFileTypes: true})) {
    const path = join(folder, entry.name);
    if (entry.isDirectory()) yield* find(path);
    else if (entry.isFile() && (entry.name === programName || entry.name === workerName)) yield path;
  }
}

/** @param {{appOutDir: string}} context of electron-builder's afterPack hook */
exports.default = async ({appOutDir, asar = true}) => {
  let found = 0;
  for await (const path of find(appOutDir)) {
    if (asar && !path.includes(`.asar.unpacked${sep}`) && path.includes('node_modules')) continue;
    await chmod(path, 0o755);
    if (basename(path) === programName) ++found;
  }
  if (found === 0) throw new Error(`No ${programName} outside of an archive in ${appOutDir}; run npx palaver-stt-init`);
};
