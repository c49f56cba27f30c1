import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import {readFileSync} from 'node:fs';
import {request as httpRequest} from 'node:http';
import {connect} from 'node:net';
import {networkInterfaces} from 'node:os';
import test from 'node:test';
import {setTimeout as sleep} from 'node:timers/promises';

import {helperPath, installed, recording, skip, words} from './support.mjs';

async function startServer(folder) {
  const server = spawn(process.execPath, ['server.mjs', '0'], {cwd: folder, stdio: ['ignore', 'pipe', 'ignore'],
    env: {...process.env, PALAVER_STT_HELPER: helperPath}});
  const [address] = await once(server.stdout.setEncoding('utf8'), 'data');
  return {server, url: new URL(address.trim())};
}

/** One request; `body` is sent as it is. */
function ask(url, {method = 'GET', headers = {}, body} = {}) {
  return new Promise((resolve, reject) => {
    const request = httpRequest(url, {method, headers}, response => {
      let text = '';
      response.setEncoding('utf8').on('data', piece => { text += piece; }).once('end', () => resolve({status: response.statusCode, text, headers: response.headers}));
    });
    request.once('error', reject).end(body);
  });
}

/** The server-sent events of a session. */
function listen(url) {
  const events = [];
  const waiting = [];
  const request = httpRequest(url, response => {
    let rest = '';
    response.setEncoding('utf8').on('data', text => {
      rest += text;
      for (let end; (end = rest.indexOf('\n\n')) >= 0; rest = rest.slice(end + 2)) {
        const [, event, data] = /^event: (.*)\ndata: (.*)$/.exec(rest.slice(0, end));
        events.push({event, data: JSON.parse(data)});
        for (const check of waiting) check();
      }
    });
  }).end();
  request.on('error', () => {});
  return {
    find: matches => new Promise(resolve => {
      const check = () => { const found = events.find(matches); if (found) resolve(found); };
      waiting.push(check);
      check();
    }),
    close: () => request.destroy(),
  };
}

test('the server of the browser page recognizes what is posted, and refuses others', {skip}, async () => {
  const {folder, remove} = installed('browser');
  const {server, url} = await startServer(folder);
  try {
    const page = await ask(url);
    assert.equal(page.status, 200);
    assert.match(page.headers['content-security-policy'], /default-src 'self'/);
    for (const name of ['page.js', 'style.css', 'worklet.js', 'resampler.js']) assert.equal((await ask(new URL(name, url))).status, 200, name);

    const events = listen(new URL('events?locale=en-US', url));
    const {data: {session, available}} = await events.find(({event}) => event === 'session');
    assert.equal(available, true);
    const own = {origin: url.origin};
    const audio = new URL(`audio?session=${session}`, url);
    const refused = async (target, options) => (await ask(target, options)).status;
    assert.equal(await refused(audio, {method: 'POST', headers: {origin: 'http://evil.example'}}), 403);
    assert.equal(await refused(audio, {method: 'POST'}), 403, 'no Origin');
    assert.equal(await refused(url, {headers: {host: 'evil.example'}}), 403, 'a name that was pointed here');
    assert.equal(await refused(url, {headers: {origin: 'http://evil.example'}}), 403);
    assert.equal(await refused(url, {headers: {'sec-fetch-site': 'cross-site'}}), 403);
    assert.equal(await refused(new URL('/', url)), 404, 'without the secret');
    assert.equal(await refused(new URL('server.mjs', url)), 404);
    assert.equal(await refused(new URL('audio?session=other', url), {method: 'POST', headers: own}), 404);
    assert.equal(await refused(audio, {method: 'POST', headers: own, body: Buffer.alloc(3)}), 400);
    assert.equal(await refused(audio, {method: 'POST', headers: own, body: Buffer.alloc(70_000)}), 413);

    const bytes = readFileSync(recording);
    const began = performance.now();
    for (let at = 0; at < bytes.length; at += 3200) {
      await sleep(Math.max(0, began + at / 32 - performance.now()));  // the pace of speech
      const piece = bytes.subarray(at, at + 3200);
      assert.equal((await ask(audio, {method: 'POST', headers: own, body: piece.subarray(0, piece.length - piece.length % 2)})).text, 'sent');
    }
    const report = JSON.parse((await ask(new URL(`stop?session=${session}`, url), {method: 'POST', headers: own})).text);
    assert.equal(report.finals, 1);
    const {data} = await events.find(({event, data}) => event === 'utterance' && data.state === 'final');
    assert.equal(data.text, words);
    events.close();
  } finally {
    server.kill();
    await once(server, 'close');
    remove();
  }
});

test('the server listens on the loopback address only', {skip}, async () => {
  const {folder, remove} = installed('browser');
  const {server, url} = await startServer(folder);
  try {
    const outside = Object.values(networkInterfaces()).flat().filter(({internal, family}) => !internal && family === 'IPv4');
    for (const host of ['127.0.0.2', ...outside.map(({address}) => address)]) {
      const socket = connect(Number(url.port), host);
      const outcome = await once(socket, 'connect').then(() => 'connected', ({code}) => code);
      socket.destroy();
      assert.equal(outcome, 'ECONNREFUSED', host);
    }
  } finally {
    server.kill('SIGINT');
    const [status] = await once(server, 'close');
    assert.equal(status, 0);
    remove();
  }
});
