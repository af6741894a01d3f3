// Plays two sounds in step, one of them audible: switching keeps the position and makes no gap.
const FADE = 0.01; // s

export class Player extends EventTarget {
  #context = null;
  #sounds;  // { before, after }: Float32Array
  #rate;
  #playing = null; // { sources, gains, began }
  #offset = 0;
  #side = 'after';

  load(sounds, rate) {
    this.stop();
    this.#sounds = sounds;
    this.#rate = rate;
    this.#offset = 0;
  }

  get duration() { return this.#sounds.before.length / this.#rate; }
  get playing() { return this.#playing !== null; }
  get side() { return this.#side; }

  get position() {
    const passed = this.#playing ? this.#context.currentTime - this.#playing.began : 0;
    return Math.min(this.duration, this.#offset + Math.max(0, passed));
  }

  set side(side) {
    this.#side = side;
    for (const [name, gain] of Object.entries(this.#playing?.gains ?? {})) {
      gain.gain.setTargetAtTime(name === side ? 1 : 0, this.#context.currentTime, FADE / 3);
    }
  }

  async play() {
    this.#context ??= new AudioContext();
    await this.#context.resume();
    if (this.position >= this.duration) this.#offset = 0;
    const context = this.#context;
    const began = context.currentTime + 0.02;
    const sources = [], gains = {};
    for (const [name, samples] of Object.entries(this.#sounds)) {
      const buffer = context.createBuffer(1, samples.length, this.#rate);
      buffer.copyToChannel(samples, 0);
      const gain = gains[name] = new GainNode(context, { gain: name === this.#side ? 1 : 0 });
      const source = new AudioBufferSourceNode(context, { buffer });
      source.connect(gain).connect(context.destination);
      source.start(began, this.#offset);
      sources.push(source);
    }
    this.#playing = { sources, gains, began };
    sources[0].onended = () => { this.stop(); this.dispatchEvent(new Event('ended')); };
  }

  stop() {
    if (!this.#playing) return;
    this.#offset = this.position;
    this.#playing.sources[0].onended = null;
    for (const source of this.#playing.sources) source.stop();
    this.#playing = null;
  }

  async seek(seconds) {
    const was = this.playing;
    this.stop();
    this.#offset = Math.max(0, Math.min(this.duration, seconds));
    if (was) await this.play();
  }
}
