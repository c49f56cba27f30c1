// A helper that misbehaves as its first argument says. It answers commands, and reports each as an event `fake.received`.
//
//   node helper.js MODE [ARGUMENT]
import {spawn} from 'node:child_process';
import {writeSync} from 'node:fs';

const [mode, argument] = process.argv.slice(2);
const statusLine = {
  type: 'helper.status', status: 'ready', available: true, implementation: 'sf-speech-recognizer', authorization: 'authorized',
  modelStatus: 'installed', dictation: 'enabled', message: 'ready', protocolVersion: mode === 'future' ? 2 : 1,
};
const write = event => process.stdout.write(JSON.stringify(event) + '\n');
const transcript = (id, text, extra = {}) => ({
  type: 'transcript.partial', sessionId: 'm', source: 'remote', utteranceId: id, text, startedAt: 1000, transcribedAt: 2000, ...extra,
});
const final = (id, text) => transcript(id, text, {
  type: 'transcript.final', speechEndedAt: 1500, latencyMs: 500, endpointing: {provider: 'apple-sfspeech', reason: 'silence'},
});
process.stdout.on('error', () => process.exit(0));

/** Ends in the middle of a line, like a process that crashes. */
function crashInLine() {
  writeSync(1, JSON.stringify(transcript('cut', 'half of a li')).slice(0, 60));
  process.kill(process.pid, 'SIGKILL');
}

const onCommand = {
  'session.start': ({sessionId, locale = 'ja-JP'}) => {
    if (mode === 'crash-at-session') return crashInLine();
    if (mode !== 'never-ready') write({type: 'session.ready', sessionId, available: true, implementation: 'sf-speech-recognizer', locale});
  },
  'session.stop': ({sessionId}) => write({type: 'session.stopped', sessionId, at: Date.now()}),
  'source.suppress': ({sessionId, source, suppressed}) => write({type: 'source.suppressed', sessionId, source, suppressed, at: Date.now()}),
  ping: ({sentAt}) => { if (mode !== 'no-pong') write({type: 'pong', sentAt, helperAt: Date.now()}); },
  audio: ({sessionId, source}) => {
    if (mode === 'partials') write(transcript('open', 'words so far', {sessionId, source}));
    if (mode === 'error-per-chunk') {
      write({type: 'helper.error', at: Date.now(), sessionId, source, message: 'The on-device recognition model for ja-JP is not installed'});
    }
    if (mode === 'crash-at-audio') crashInLine();
  },
};

let rest = '';
function read() {
  process.stdin.on('data', bytes => {
    rest += bytes;
    for (let end; (end = rest.indexOf('\n')) >= 0; rest = rest.slice(end + 1)) {
      const command = JSON.parse(rest.slice(0, end));
      write({type: 'fake.received', command});
      onCommand[command.type]?.(command);
    }
  });
  process.stdin.on('end', () => { if (mode !== 'stubborn') process.exit(0); });
}

const modes = {
  'exit-at-start': () => {
    process.stderr.write('no speech framework\n');
    process.exitCode = 3;
  },
  silent: () => { setInterval(() => {}, 1e6); },
  'crash-after-status': () => {
    write(statusLine);
    process.stdout.write('', () => process.kill(process.pid, 'SIGKILL'));
  },
  // Never reads its input.
  deaf: () => {
    write(statusLine);
    setInterval(() => {}, 1e6);
  },
  // Stops reading at the first audio, until a signal comes.
  stuck: () => {
    let stuck = false;
    process.on('SIGUSR2', () => process.stdin.resume());
    write(statusLine);
    read();
    onCommand.audio = () => {
      if (!stuck) process.stdin.pause();
      stuck = true;
    };
    setInterval(() => {}, 1e6);
  },
  stubborn: () => {
    process.on('SIGTERM', () => {});
    write(statusLine);
    read();
    setInterval(() => {}, 1e6);
  },
  // Leaves a process behind that holds its streams for 4 s, as a second process may.
  holder: () => {
    spawn(process.execPath, ['-e', 'setTimeout(() => {}, 4000)'], {stdio: 'inherit'}).once('spawn', () => write(statusLine));
  },
  'loud-at-start': () => {
    const line = 'x'.repeat(1023) + '\n';
    for (let i = 0; i < 1024; ++i) writeSync(2, line);  // blocks while nobody reads
    write(statusLine);
    read();
  },
  // One utterance whose final comes byte by byte, with the line and paragraph separators inside it.
  'byte-by-byte': () => {
    write(statusLine);
    read();
    onCommand.audio = async () => {
      const bytes = Buffer.from(JSON.stringify(final('ja', argument)) + '\n');
      for (const byte of bytes) await new Promise(resolve => process.stdout.write(Buffer.from([byte]), () => setImmediate(resolve)));
    };
  },
  // Events that no client knows, and lines that are no events.
  strange: () => {
    process.stdout.write('\nnot JSON\n[1,2]\nnull\n"text"\n{"type":7}\n');
    write({...statusLine, newKey: {nested: [1]}});
    write({type: 'helper.weather', sunny: true});
    write({type: 'transcript.partial', sessionId: 'm'});
    write({type: '__proto__'});
    process.stdout.write('\xff\xfe\n', 'latin1');
    read();
  },
  // Many utterances at once, with ten partials each.
  flood: () => {
    write(statusLine);
    read();
    onCommand.audio = () => {
      const lines = [];
      for (let i = 0; i < Number(argument); ++i) {
        for (let partial = 1; partial <= 10; ++partial) lines.push(JSON.stringify(transcript(`u${i}`, 'word '.repeat(partial).trim())));
        lines.push(JSON.stringify(final(`u${i}`, `utterance ${i}`)));
      }
      process.stdout.write(lines.join('\n') + '\n');
    };
  },
  // A line without an end.
  endless: () => {
    write(statusLine);
    read();
    onCommand.audio = () => {
      process.stdout.write('x'.repeat(17 * 1024 * 1024) + '\n');
      write(final('after', 'after the long line'));
    };
  },
  // Utterances whose id changes with their final, and a final that mutes nothing.
  'changing-ids': () => {
    write(statusLine);
    read();
    onCommand.audio = () => {
      write(transcript('a-1000', 'good'));
      write(transcript('a-1000', 'good'));
      write(transcript('b-2000', 'next', {startedAt: 2000}));
      write(final('a-1010', 'good morning'));
    };
  },
  analyzer: () => {
    write({...statusLine, status: 'checking-model', available: false, implementation: 'speech-analyzer'});
    write({...statusLine, implementation: 'speech-analyzer'});
    read();
    onCommand['session.start'] = ({sessionId}) => {
      for (const source of argument.split(',')) {
        write({type: 'session.ready', sessionId, source, available: true, implementation: 'speech-analyzer', locale: 'ja-JP'});
      }
    };
    onCommand['session.stop'] = ({sessionId}) => {
      write({type: 'session.stopped', sessionId, at: Date.now()});
      write({...final('late', 'last words'), sessionId});
    };
  },
};
(modes[mode] ?? (() => {
  write(statusLine);
  read();
}))();
