// Hands the microphone's samples to the page: 128 frames at a time, 32-bit float, at the device's rate.
registerProcessor('tap', class extends AudioWorkletProcessor {
  process([channels]) {
    if (channels.length > 0) this.port.postMessage(channels.map(channel => channel.slice()));
    return true;
  }
});
