// A host in TypeScript. Compiled, not run.
import {PalaverError, PalaverHelper, Resampler} from 'palaver-stt';
import type {AudioSource, HelperEvent, SendResult, StopReport, Utterance} from 'palaver-stt';
import {paced, readRecording} from 'palaver-stt/recording';
import {Resampler as ForBrowsers} from 'palaver-stt/resampler';

/** Narrowing by `type` holds although unknown events are part of the union. */
function describe(event: HelperEvent): string {
  switch (event.type) {
    case 'helper.status': return event.available ? 'ready' : event.message ?? event.status;
    case 'helper.error': return `${event.code} x${event.count}: ${event.message} (${event.cure})`;
    case 'client.gap': return `${event.source}: ${event.to - event.from} ms, ${event.droppedChunks} dropped`;
    case 'client.exited': return String(event.willRestart);
    case 'transcript.final': return event.endpointing.reason;
    case 'unknown': return JSON.stringify(event.raw);
    default: return event.type;
  }
}

function draw(utterance: Utterance): string {
  if (utterance.state === 'final') return `${utterance.text} (${utterance.latencyMs} ms, ${utterance.reason})`;
  // @ts-expect-error a partial has no latency
  utterance.latencyMs;
  return utterance.text;
}

export async function meeting(samples: Float32Array): Promise<StopReport> {
  const helper = await PalaverHelper.start({restart: true, onStderr: text => text.length});
  const {roundTripMs, clockOffsetMs}: {roundTripMs: number, clockOffsetMs: number} = await helper.ping();
  const session = await helper.openSession({locale: 'en-US', vocabulary: ['Palaver'], sources: ['remote', 'self']});
  const resampler = new Resampler({sampleRate: 48_000});
  const source: AudioSource = 'self';
  for (const chunk of resampler.push([samples, samples])) {
    const result: SendResult = session.send(source, chunk, Date.now());
    if (result === 'closed') break;
  }
  for await (const chunk of paced(await readRecording('meeting.wav'))) session.send('remote', chunk);
  const muted: 'applied' | 'deferred' | 'closed' = await session.suppress('self');
  for await (const utterance of session.utterances) draw(utterance);
  for await (const event of helper.events()) describe(event);
  const report = await session.stop({drainMs: 2000});
  const {forced}: {forced: boolean} = await helper.close({timeoutMs: roundTripMs + clockOffsetMs});
  return forced || muted === 'closed' ? Promise.reject(new TypeError()) : report;
}

export function explain(error: unknown): string {
  if (!(error instanceof PalaverError)) return 'something else';
  if (error.code === 'helper-exited') return `${error.exitCode} ${error.signal} ${error.stderr}`;
  // @ts-expect-error no such code
  if (error.code === 'no-such-code') return '';
  return error.code;
}

// @ts-expect-error the constructor is private
new PalaverHelper();
// @ts-expect-error no such source
export const wrong = (session: import('palaver-stt').Session) => session.send('both', new Int16Array(0));
export const browser: ForBrowsers = new ForBrowsers({sampleRate: 44_100, chunkFrames: 160});
