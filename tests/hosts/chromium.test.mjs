// The browser page in Chromium, whose microphone is a recording. With PALAVER_SCREENSHOT=FILE.png it also takes a picture.
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import {mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import test from 'node:test';

import {Browser, chromium} from './Browser.mjs';
import {helperPath, installed, skip as withoutHelper, words, writeWav} from './support.mjs';

const skip = withoutHelper || (chromium ? false : 'there is no Chromium');

test('the page in Chromium hears its microphone', {skip}, async () => {
  const {folder, remove} = installed('browser');
  const profile = mkdtempSync(join(tmpdir(), 'palaver-chromium-'));
  const sound = join(folder, 'microphone.wav');
  writeWav(sound, {secondsOfQuiet: 3});
  const server = spawn(process.execPath, ['server.mjs', '0'], {cwd: folder, stdio: ['ignore', 'pipe', 'ignore'],
    env: {...process.env, PALAVER_STT_HELPER: helperPath}});
  const url = String((await once(server.stdout, 'data'))[0]).trim();
  const browser = new Browser(profile, [
    '--autoplay-policy=no-user-gesture-required', '--use-fake-ui-for-media-stream', '--use-fake-device-for-media-stream',
    `--use-file-for-fake-audio-capture=${sound}%noloop`, '--window-size=640,400',
  ]);
  try {
    const {targetId} = await browser.call('Target.createTarget', {url: 'about:blank'});
    const {sessionId} = await browser.call('Target.attachToTarget', {targetId, flatten: true});
    /** Runs code in the page and waits for its promise. */
    const inPage = async expression => {
      const {result, exceptionDetails} = await browser.call('Runtime.evaluate', {expression, awaitPromise: true, returnByValue: true, userGesture: true}, sessionId);
      assert.equal(exceptionDetails, undefined, JSON.stringify(exceptionDetails));
      return result.value;
    };
    const until = condition => inPage(`new Promise(resolve => {
      const check = () => { if (${condition}) resolve(true); };
      new MutationObserver(check).observe(document, {subtree: true, childList: true, characterData: true, attributes: true});
      addEventListener('load', check);
      check();
    })`);
    await browser.call('Page.navigate', {url}, sessionId);  // resolves when the page has replaced the empty one
    await until(`document.readyState === 'complete'`);
    await inPage(`document.getElementById('start').click()`);
    await until(`document.querySelector('.final')`);
    assert.equal(await inPage(`document.querySelector('.final').firstChild.data`), words);
    assert.equal(await inPage(`document.getElementById('status').textContent`), 'Listening.');
    if (process.env.PALAVER_SCREENSHOT) {
      await until(`document.getElementById('level').textContent === 'quiet'`);
      await browser.call('Emulation.setDeviceMetricsOverride', {width: 640, height: 330, deviceScaleFactor: 1, mobile: false}, sessionId);
      const {data} = await browser.call('Page.captureScreenshot', {format: 'png'}, sessionId);
      writeFileSync(process.env.PALAVER_SCREENSHOT, Buffer.from(data, 'base64'));
    }
    await inPage(`document.getElementById('stop').click()`);
    await until(`document.getElementById('status').textContent.startsWith('Stopped')`);
    assert.equal(await inPage(`document.getElementById('status').textContent`), 'Stopped: 1 utterances.');
  } finally {
    void browser.call('Browser.close').catch(() => {});
    server.kill();
    await Promise.all([once(browser.process, 'close'), once(server, 'close')]);
    rmSync(profile, {recursive: true, maxRetries: 5});
    remove();
  }
});
