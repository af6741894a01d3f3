// The engine in an audio worklet. The module is instantiated here: not all browsers can send a compiled
// one. Input 0 is the microphone, input 1, if there is one, what the loudspeaker plays.
import { Enhancer } from './enhancer.js';

const STATUS_EVERY = 0.1; // s

class EnhancerProcessor extends AudioWorkletProcessor {
  #enhancer = null;
  #micChannels;
  #hasReference;
  #nextStatus = 0;
  #open = true;

  constructor({ processorOptions: { bytes, settings } }) {
    super();
    this.#micChannels = settings.micChannels;
    this.#hasReference = settings.refChannels > 0;
    this.port.onmessage = ({ data }) => this.#receive(data);
    try {
      this.#enhancer = new Enhancer(new WebAssembly.Module(bytes), { ...settings, rate: sampleRate });
      this.#enhancer.warmUp();
      this.port.postMessage({ latency: this.#enhancer.latency });
    } catch (error) {
      this.port.postMessage({ error: error.message });
    }
  }

  #receive({ set, reset, close }) {
    try {
      if (set) this.#enhancer?.set(set);
      if (reset) this.#enhancer?.reset();
      if (close) this.#open = false;
    } catch (error) {
      this.port.postMessage({ error: error.message });
    }
  }

  process(inputs, [[out]]) {
    if (!this.#enhancer) return false;
    const silence = () => new Float32Array(out.length);
    const mics = Array.from({ length: this.#micChannels }, (_, i) => inputs[0][i] ?? silence());
    this.#enhancer.process(mics, this.#hasReference ? [inputs[1]?.[0] ?? silence()] : null, out);
    if (currentTime >= this.#nextStatus) {
      this.#nextStatus = currentTime + STATUS_EVERY;
      this.port.postMessage({ status: this.#enhancer.status });
    }
    return this.#open;
  }
}

registerProcessor('speechenhance', EnhancerProcessor);
