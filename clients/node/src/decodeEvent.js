// Decodes one line of the helper's output.
//
// Tolerant: unknown keys are kept, and what is unknown or lacks a key that this client needs is delivered as `{type: 'unknown', raw}`
// and changes nothing else.

const sources = ['remote', 'self'];
/** @type {(value: unknown) => boolean} */
const text = value => typeof value === 'string';
/** @type {(value: unknown) => boolean} */
const number = value => typeof value === 'number';
/** @type {(value: unknown) => boolean} */
const flag = value => typeof value === 'boolean';
/** @type {(value: unknown) => boolean} */
const source = value => typeof value === 'string' && sources.includes(value);
/** @type {(value: unknown) => boolean} */
const object = value => typeof value === 'object' && value !== null;

const transcript = {sessionId: text, source, utteranceId: text, text, startedAt: number, transcribedAt: number};

/**
 * The keys that this client relies on.
 * @type {Record<string, Record<string, (value: unknown) => boolean>>}
 */
const required = {
  'helper.status': {status: text, available: flag, implementation: text},
  'session.ready': {sessionId: text, available: flag},
  'transcript.partial': transcript,
  'transcript.final': {...transcript, speechEndedAt: number, latencyMs: number, endpointing: object},
  'source.suppressed': {sessionId: text, source, suppressed: flag},
  'session.stopped': {sessionId: text},
  pong: {sentAt: number, helperAt: number},
  'helper.error': {message: text},
  'helper.authorization': {authorized: flag, status: text},
  'helper.model': {locale: text, status: text},
  'research.complete': {},
};

/**
 * @param {string} line
 * @returns {any} an event of the protocol, or `{type: 'unknown', raw}` with the parsed value, or with the line if it is not JSON
 */
export function decodeEvent(line) {
  /** @type {any} */
  let value;
  try {
    value = JSON.parse(line);
  } catch {
    return {type: 'unknown', raw: line};
  }
  const keys = object(value) && Object.hasOwn(required, value.type) ? required[value.type] : undefined;
  if (!keys || Object.keys(keys).some(key => !keys[key](value[key]))) return {type: 'unknown', raw: value};
  return value;
}
