// Hands what comes in, the microphone and its enhanced sound, to the page.
class Recorder extends AudioWorkletProcessor {
  process(inputs) {
    const length = 128;
    this.port.postMessage(inputs.map((input) => (input[0] ? input[0].slice() : new Float32Array(length))));
    return true;
  }
}
registerProcessor('recorder', Recorder);
