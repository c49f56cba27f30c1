// Renderer: the microphone's samples go to the main process, utterances come back.
const element = id => document.getElementById(id);
const show = text => { element('status').textContent = text; };
let microphone;

window.palaver.onProblem(show);
window.palaver.onUtterance(({id, text, state}) => {
  const item = document.getElementById(id) ?? element('utterances').appendChild(document.createElement('li'));
  item.id = id;
  item.textContent = state === 'final' ? text : `${text} …`;
});
window.palaver.status().then(status => show(status.message ?? status.status), error => show(error.message));

element('start').addEventListener('click', async () => {
  const stream = await navigator.mediaDevices.getUserMedia({audio: true});
  const audio = new AudioContext();
  const started = await window.palaver.start({locale: 'en-US', sampleRate: audio.sampleRate});
  if (!started?.available) show('This locale is not available.');
  await audio.audioWorklet.addModule('worklet.js');
  const tap = new AudioWorkletNode(audio, 'tap', {numberOfOutputs: 0});
  tap.port.onmessage = ({data}) => window.palaver.audio(data);
  audio.createMediaStreamSource(stream).connect(tap);
  microphone = {stream, audio};
  element('start').disabled = true;
  element('stop').disabled = false;
});

element('stop').addEventListener('click', async () => {
  for (const track of microphone.stream.getTracks()) track.stop();
  await microphone.audio.close();
  const report = await window.palaver.stop();
  show(`${report.finals} utterances`);
  element('start').disabled = false;
  element('stop').disabled = true;
});
