// The page of palaver-stt report in Chromium: it shows what was said, draws it, and asks nothing of anyone.
import assert from 'node:assert/strict';
import {once} from 'node:events';
import {mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import test from 'node:test';
import {pathToFileURL} from 'node:url';

import {Browser, chromium} from './Browser.mjs';
import {run} from './support.mjs';

const tool = process.env.PALAVER_STT_TOOL;
const skip = !tool ? 'PALAVER_STT_TOOL does not name palaver-stt' : chromium ? false : 'there is no Chromium';
const words = 'これは <b>会議</b> です & "more"';

/** A recording of two seconds of loud audio on both sides, with a final, an error and a gap. */
function recordingOfMeeting() {
  const start = 1_700_000_000_000;
  const lines = [{recording: 1, startedAt: start, redacted: false, command: ['helper']}];
  const say = (at, from, message) => lines.push({at, from, text: JSON.stringify(message) + '\n'});
  say(5, 'helper', {type: 'helper.status', implementation: 'sf-speech-recognizer'});
  for (const source of ['remote', 'self'])
    for (let at = 100; at <= 2000; at += 100) {
      if (at === 1500) continue;
      const samples = Int16Array.from({length: 1600}, (_, i) => i % 50 < 25 ? 4 * at : -4 * at);
      say(at, 'host', {type: 'audio', source, capturedAt: start + at - 100, pcmBase64: Buffer.from(samples.buffer).toString('base64')});
    }
  say(2100, 'helper', {type: 'transcript.final', source: 'remote', text: words, startedAt: start + 200, speechEndedAt: start + 1500,
    latencyMs: 600, endpointing: {reason: 'silence', minSilenceMs: 500}});
  say(2200, 'helper', {type: 'helper.error', message: 'Something <failed>'});
  lines.push({at: 2300, from: 'helper', end: 'exit status 0'});
  return lines.map(line => JSON.stringify(line)).join('\n') + '\n';
}

test('the report shows words and pictures, without errors and requests', {skip}, async () => {
  const folder = mkdtempSync(join(tmpdir(), 'palaver-report-'));
  const recording = join(folder, 'meeting.jsonl');
  writeFileSync(recording, recordingOfMeeting());
  const made = await run(tool, ['report', recording]);
  assert.equal(made.status, 0, made.stderr);
  const url = pathToFileURL(recording + '.html').href;
  const complaints = [], requests = [];
  const loaded = {};
  const hasLoaded = new Promise(resolve => { loaded.resolve = resolve; });
  const browser = new Browser(folder, ['--window-size=900,1200'], (method, params) => {
    if (method === 'Log.entryAdded') complaints.push(params.entry.text);
    if (method === 'Runtime.exceptionThrown' || method === 'Runtime.consoleAPICalled') complaints.push(JSON.stringify(params));
    if (method === 'Network.requestWillBeSent') requests.push(params.request.url);
    if (method === 'Page.loadEventFired') loaded.resolve();
  });
  try {
    const {targetId} = await browser.call('Target.createTarget', {url: 'about:blank'});
    const {sessionId} = await browser.call('Target.attachToTarget', {targetId, flatten: true});
    for (const domain of ['Log', 'Runtime', 'Network', 'Page']) await browser.call(`${domain}.enable`, {}, sessionId);
    const inPage = async expression => {
      const {result, exceptionDetails} = await browser.call('Runtime.evaluate', {expression, returnByValue: true}, sessionId);
      assert.equal(exceptionDetails, undefined, JSON.stringify(exceptionDetails));
      return result.value;
    };
    await browser.call('Page.navigate', {url}, sessionId);
    await hasLoaded;
    assert.equal(await inPage('document.title'), 'meeting');
    const text = await inPage('document.body.innerText');
    for (const part of [words, 'Something <failed>', 'sf-speech-recognizer', '600 ms', 'exit status 0']) assert.ok(text.includes(part), `${part}\n${text}`);
    assert.equal(await inPage(`document.querySelectorAll('b, script, link, img, iframe').length`), 0);
    const boxes = await inPage(`[...document.querySelectorAll('svg')].map(svg => {
      const {width, height} = svg.getBoundingClientRect();
      const drawn = [...svg.querySelectorAll('.loudness, .utterance, .gap')].map(shape => [shape.getAttribute('class'), shape.getBBox().width, shape.getBBox().height,
        getComputedStyle(shape).fill]);
      return {width, height, drawn};
    })`);
    assert.equal(boxes.length, 2);
    for (const {width, height, drawn} of boxes) {
      assert.ok(width > 500 && height > 50, `${width} x ${height}`);
      for (const [name, shapeWidth, shapeHeight, fill] of drawn) assert.ok(shapeWidth > 0 && shapeHeight > 0 && fill !== 'none', name);
      assert.ok(drawn.some(([name, shapeWidth, shapeHeight]) => name === 'loudness' && shapeWidth > 500 && shapeHeight > 50));
      assert.ok(drawn.some(([name]) => name === 'gap'));
    }
    assert.ok(boxes[0].drawn.some(([name]) => name === 'utterance'));
    assert.deepEqual(complaints, []);
    assert.deepEqual(requests, [url]);
    // Something on the console would have been noticed.
    await inPage(`console.log('noise')`);
    assert.equal(complaints.length, 1);
  } finally {
    void browser.call('Browser.close').catch(() => {});
    await once(browser.process, 'close');
    rmSync(folder, {recursive: true, maxRetries: 5});
  }
});
