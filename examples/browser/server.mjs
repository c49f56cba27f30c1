// node server.mjs [PORT]
// Serves a page that recognizes the microphone of this machine. Open the address that it prints.
//
// Listens on the loopback address only. Other web pages cannot use it: requests need the secret path, this server as Host and, where
// the browser names one, as Origin.
import {PalaverHelper} from 'palaver-stt';
import {randomBytes} from 'node:crypto';
import {readFile} from 'node:fs/promises';
import {createServer} from 'node:http';
import {createRequire} from 'node:module';

const longestBody = 64 * 1024;  // two seconds of audio
const files = {
  '': ['index.html', 'text/html'], 'page.js': ['page.js', 'text/javascript'], 'style.css': ['style.css', 'text/css'],
  'worklet.js': ['worklet.js', 'text/javascript'],
  'resampler.js': [createRequire(import.meta.url).resolve('palaver-stt/resampler'), 'text/javascript'],
};
const secret = randomBytes(16).toString('hex');
const sessions = new Map();
const helper = await PalaverHelper.start();

class Refusal extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

/** Returns the part of the path after the secret. */
function checked(request) {
  const {port} = server.address();
  const hosts = [`127.0.0.1:${port}`, `localhost:${port}`];
  const {host, origin} = request.headers;
  if (!hosts.includes(host)) throw new Refusal(403, 'wrong Host');
  const needsOrigin = request.method !== 'GET';
  if ((needsOrigin || origin !== undefined) && origin !== `http://${host}`) throw new Refusal(403, 'wrong Origin');
  const site = request.headers['sec-fetch-site'] ?? 'none';
  if (site !== 'none' && site !== 'same-origin') throw new Refusal(403, 'another site');
  const url = new URL(request.url, `http://${host}`);
  if (!url.pathname.startsWith(`/${secret}/`)) throw new Refusal(404, 'not found');
  return {name: url.pathname.slice(secret.length + 2), query: url.searchParams};
}

async function body(request) {
  const pieces = [];
  let length = 0;
  for await (const piece of request) {
    if ((length += piece.length) > longestBody) throw new Refusal(413, 'too much audio at once');
    pieces.push(piece);
  }
  if (length % 2 === 1) throw new Refusal(400, 'half of a sample');
  const bytes = Buffer.concat(pieces);
  return new Int16Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + length));
}

/** One session for as long as the page is connected. */
async function serveEvents(request, response, locale) {
  response.writeHead(200, {'content-type': 'text/event-stream'});
  const write = (event, data) => response.write(`event: ${event}\ndata: ${JSON.stringify(data)}\n\n`);
  let session;
  try {
    session = await helper.openSession({locale, sources: ['self']});
  } catch (error) {
    write('refused', {message: error.message});
    return response.end();
  }
  sessions.set(session.id, session);
  request.socket.once('close', () => {
    sessions.delete(session.id);
    void session.stop({drainMs: 0});
  });
  if (request.socket.destroyed) return void session.stop({drainMs: 0});
  write('session', {session: session.id, available: session.available, message: helper.status.message});
  const problems = helper.events();
  void (async () => {
    for await (const event of problems) {
      if (event.type === 'helper.error' && event.sessionId === session.id) write('problem', {message: event.message});
    }
  })();
  try {
    for await (const utterance of session.utterances) write('utterance', utterance);
  } catch (error) {
    write('problem', {message: error.message});
  }
  await problems.return();
  response.end();
}

async function serve(request, response) {
  const {name, query} = checked(request);
  const session = sessions.get(query.get('session'));
  if (request.method === 'GET' && name === 'events') return serveEvents(request, response, query.get('locale') ?? undefined);
  if (request.method === 'GET' && Object.hasOwn(files, name)) {
    const [file, type] = files[name];
    const content = await readFile(new URL(file, import.meta.url));
    return response.writeHead(200, {'content-type': `${type}; charset=utf-8`}).end(content);
  }
  if (request.method !== 'POST' || !session) throw new Refusal(404, 'not found');
  if (name === 'audio') {
    const samples = await body(request);
    const capturedAt = query.has('capturedAt') ? Number(query.get('capturedAt')) : undefined;
    return response.writeHead(200, {'content-type': 'text/plain'}).end(session.send('self', samples, capturedAt));
  }
  if (name === 'stop') return response.writeHead(200, {'content-type': 'application/json'}).end(JSON.stringify(await session.stop()));
  throw new Refusal(404, 'not found');
}

const server = createServer((request, response) => {
  response.setHeader('cache-control', 'no-store');
  response.setHeader('content-security-policy', "default-src 'self'; frame-ancestors 'none'");
  response.setHeader('x-content-type-options', 'nosniff');
  serve(request, response).catch(error => {
    if (!response.headersSent) response.writeHead(error.status ?? 500, {'content-type': 'text/plain', connection: 'close'});
    response.end(error instanceof Refusal ? error.message : 'error');
  });
});
server.listen(Number(process.argv[2] ?? 8765), '127.0.0.1', () => {
  console.log(`http://127.0.0.1:${server.address().port}/${secret}/`);
  if (!helper.status.available) console.error(helper.status.message);
});

async function end() {
  server.close();
  server.closeAllConnections?.();
  await helper.close();
  process.exit();
}
for (const signal of ['SIGINT', 'SIGTERM']) process.once(signal, end);
