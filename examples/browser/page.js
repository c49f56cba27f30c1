// The page: microphone to chunks of 16 kHz, chunks to the server, utterances to the list.
import {Resampler} from './resampler.js';

const element = id => document.getElementById(id);
const voiceThreshold = 0.008;  // root mean square of full scale; the helper takes quieter chunks for silence
let meeting;

/** Zeros are a microphone that is muted or not permitted. They look like silence to a recognizer. */
function describeLevel(samples) {
  const meanSquare = samples.reduce((sum, sample) => sum + (sample / 32768) ** 2, 0) / samples.length;
  if (meanSquare === 0) return 'no signal';
  return Math.sqrt(meanSquare) < voiceThreshold ? 'quiet' : 'speech';
}

function draw({id, state, text, latencyMs}) {
  let item = document.getElementById(id);
  if (!item) {
    item = document.createElement('li');
    item.id = id;
    element('utterances').append(item);
  }
  item.className = state;
  item.textContent = text;
  if (state === 'final') {
    const time = document.createElement('span');
    time.className = 'time';
    time.textContent = `${Math.round(latencyMs)} ms after the speech`;
    item.append(time);
  }
}

const show = text => { element('status').textContent = text; };

async function start() {
  element('start').disabled = true;
  show('Starting…');
  const stream = await navigator.mediaDevices.getUserMedia({audio: {channelCount: 1, echoCancellation: false, noiseSuppression: false}});
  const audio = new AudioContext();
  const events = new EventSource(`events?locale=${encodeURIComponent(element('locale').value)}`);
  const id = await new Promise((resolve, reject) => {
    events.addEventListener('session', ({data}) => {
      const {session, available, message} = JSON.parse(data);
      show(available ? 'Listening.' : message);
      resolve(session);
    });
    events.addEventListener('refused', ({data}) => reject(new Error(JSON.parse(data).message)));
    events.onerror = () => reject(new Error('The server has ended.'));
  }).catch(error => {
    events.close();
    throw error;
  });
  events.onerror = () => {  // no second connection: it would be another session
    events.close();
    show('The server has ended the session.');
  };
  events.addEventListener('utterance', ({data}) => draw(JSON.parse(data)));
  events.addEventListener('problem', ({data}) => show(JSON.parse(data).message));

  await audio.audioWorklet.addModule('worklet.js');
  const tap = new AudioWorkletNode(audio, 'tap', {numberOfOutputs: 0});
  const resampler = new Resampler({sampleRate: audio.sampleRate});
  let posting = Promise.resolve();  // one request after the other: chunks must not overtake each other
  let waiting = 0;
  const post = chunk => {
    element('level').textContent = describeLevel(chunk);
    const capturedAt = Date.now() - chunk.length / 16;
    if (++waiting > 100) return void --waiting;  // ten seconds behind: the server hangs
    posting = posting.then(() => fetch(`audio?session=${id}&capturedAt=${capturedAt}`, {method: 'POST', body: chunk}))
      .catch(() => show('The server does not answer.')).finally(() => --waiting);
  };
  tap.port.onmessage = ({data}) => resampler.push(data).forEach(post);
  audio.createMediaStreamSource(stream).connect(tap);
  meeting = {stream, audio, events, id, finish: () => { resampler.flush().forEach(post); return posting; }};
  element('stop').disabled = false;
}

async function stop() {
  element('stop').disabled = true;
  show('Finishing…');
  const {stream, audio, events, id, finish} = meeting;
  for (const track of stream.getTracks()) track.stop();
  await audio.close();
  await finish();
  const report = await (await fetch(`stop?session=${id}`, {method: 'POST'})).json();
  events.close();
  element('level').textContent = 'off';
  show(`Stopped: ${report.finals} utterances.`);
  element('start').disabled = false;
}

const guarded = action => () => action().catch(error => {
  show(error.message);
  element('start').disabled = false;
});
element('start').addEventListener('click', guarded(start));
element('stop').addEventListener('click', guarded(stop));
