// A stream of sound through one instance of the module. Runs wherever WebAssembly does, audio worklets
// included; see index.d.ts for what everything means.

const AUTOMATIC = 0x7fffffff;
const MODES = ['denoise', 'mix', 'suppress'];
const CHUNK = 4096; // samples per call into the module

// SEStreamSettings and SEStreamStatus of stream.h: bytes, and where their fields are.
const SETTINGS_BYTES = 4 * 45;
const MODE = 0, AMOUNT = 4, RESIDUAL = 8, NS_RESIDUAL = 12, LIMITER = 16, CEILING = 20, LIMITER_GAIN = 24;
const STATUS_BYTES = 4 * 16;

const imports = {
  env: { emscripten_notify_memory_growth() {} },
  wasi_snapshot_preview1: {
    proc_exit(code) { throw new Error(`speechenhance: the module stopped (${code})`); },
    environ_sizes_get(count, bytes) { void count; void bytes; return 52; }, // there is no environment
    environ_get() { return 52; },
  },
};

// The C interface with strings and numbers in place of pointers.
class Module {
  constructor(instance) {
    this.c = instance.exports;
    this.c._initialize();
  }

  // The memory moves when it grows.
  get view() { return new DataView(this.c.memory.buffer); }
  floats(at, count) { return new Float32Array(this.c.memory.buffer, at, count); }

  text(at) {
    if (at === 0) return null;
    const bytes = new Uint8Array(this.c.memory.buffer, at);
    return String.fromCharCode(...bytes.subarray(0, bytes.indexOf(0)));
  }

  // body(pointer) with room for so many bytes.
  with(bytes, body) {
    const at = this.c.malloc(bytes);
    if (at === 0) throw new RangeError('speechenhance: not enough memory');
    try {
      return body(at);
    } finally {
      this.c.free(at);
    }
  }

  withText(text, body) {
    return this.with(text.length + 1, (at) => {
      const bytes = new Uint8Array(this.c.memory.buffer, at, text.length + 1);
      for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i) & 0xff;
      bytes[text.length] = 0;
      return body(at);
    });
  }

  check(result) {
    if (result !== 0) throw new RangeError(`speechenhance: ${this.text(this.c.se_stream_error_text(result))}`);
  }
}

function delayOf(delay) {
  if (delay === 'auto') return AUTOMATIC;
  if (!Number.isInteger(delay)) throw new TypeError('speechenhance: delay is "auto" or a whole number of ms');
  return delay;
}

function channelsOf(sound, count, name) {
  const channels = sound instanceof Float32Array ? [sound] : sound;
  if (!Array.isArray(channels) || channels.length !== count || !channels.every((c) => c instanceof Float32Array)) {
    throw new TypeError(`speechenhance: ${name} must be ${count === 1 ? 'a Float32Array' : `${count} Float32Arrays`}`);
  }
  return channels;
}

export function presetsOf(module) {
  const m = new Module(new WebAssembly.Instance(module, imports));
  const presets = [];
  for (let i = 0; ; ++i) {
    const name = m.text(m.c.se_stream_preset_name(i));
    if (name === null) return presets;
    presets.push({ name, description: m.text(m.c.se_stream_preset_description(i)) });
  }
}

export class Enhancer {
  #m;
  #stream = 0;
  #channels; // of the microphones, of the reference
  #buffers;  // CHUNK samples for each of them, and for the output
  #pointers; // to the microphones' buffers, then to the reference's
  #outAt;

  static async create(module, options) {
    return new Enhancer(module, options, await WebAssembly.instantiate(module, imports));
  }

  constructor(module, options = {}, instance = new WebAssembly.Instance(module, imports)) {
    const { rate = 16000, micChannels = 1, refChannels = 0, delay = 'auto', preset = 'recording', ...rest } = options;
    const m = this.#m = new Module(instance);
    this.#channels = [micChannels, refChannels];
    m.with(4, (at) => {
      m.check(m.c.se_stream_create(rate, micChannels, refChannels, delayOf(delay), at));
      this.#stream = m.view.getUint32(at, true);
    });
    const count = micChannels + refChannels;
    this.#buffers = m.c.malloc(4 * CHUNK * (count + 1));
    this.#outAt = this.#buffers + 4 * CHUNK * count;
    this.#pointers = m.c.malloc(4 * count);
    for (let i = 0; i < count; ++i) m.view.setUint32(this.#pointers + 4 * i, this.#buffers + 4 * CHUNK * i, true);
    this.set({ preset, ...rest });
  }

  get version() { return this.#m.text(this.#m.c.se_stream_version()); }
  get latency() { return this.#m.c.se_stream_latency(this.#stream); }

  get status() {
    const m = this.#m;
    return m.with(STATUS_BYTES, (at) => {
      m.c.se_stream_get_status(this.#stream, at);
      const f = m.floats(at, 6);
      return { micDb: f[0], refDb: f[1], outDb: f[2], echoReductionDb: f[3], delayMs: f[4], delayConfidence: f[5],
        delayFound: m.view.getInt32(at + 24, true) !== 0 };
    });
  }

  set({ preset, delay, ...changes }) {
    const m = this.#m;
    m.with(SETTINGS_BYTES, (at) => {
      m.c.se_stream_get_settings(this.#stream, at);
      if (preset !== undefined) {
        const amount = m.view.getFloat32(at + AMOUNT, true);
        m.withText(String(preset), (name) => m.check(m.c.se_stream_get_preset(name, at)));
        m.view.setFloat32(at + AMOUNT, amount, true);
      }
      for (const [name, value] of Object.entries(changes)) if (value !== undefined) this.#change(at, name, value);
      m.check(m.c.se_stream_set_settings(this.#stream, at));
    });
    if (delay !== undefined) m.check(m.c.se_stream_set_delay(this.#stream, delayOf(delay)));
  }

  #change(at, name, value) {
    const view = this.#m.view;
    if (name === 'mode') {
      if (!MODES.includes(value)) throw new RangeError(`speechenhance: mode is one of ${MODES.join(', ')}`);
      view.setInt32(at + MODE, MODES.indexOf(value), true);
    } else if (name === 'limiter') {
      view.setInt32(at + LIMITER, value ? 1 : 0, true);
      if (value) {
        view.setFloat32(at + CEILING, value.ceiling ?? 0.9, true);
        view.setFloat32(at + LIMITER_GAIN, value.gainDb ?? 0, true);
      }
    } else if (typeof value !== 'number' || Number.isNaN(value)) {
      throw new TypeError(`speechenhance: ${name} must be a number`);
    } else if (name === 'amount') {
      view.setFloat32(at + AMOUNT, value, true);
    } else if (name === 'residualDb' || name === 'nsResidualDb') {
      view.setInt32(at + (name === 'residualDb' ? RESIDUAL : NS_RESIDUAL), Math.round(value), true);
    } else {
      throw new TypeError(`speechenhance: there is no setting "${name}"`);
    }
  }

  process(mic, reference = null, out = undefined) {
    const [mics, refs] = this.#channels;
    const inputs = [...channelsOf(mic, mics, 'the microphone'),
      ...(reference && refs > 0 ? channelsOf(reference, refs, 'the reference') : [])];
    const length = inputs[0].length;
    if (inputs.some((channel) => channel.length !== length)) {
      throw new RangeError('speechenhance: microphones and reference must have the same length');
    }
    const result = out ?? new Float32Array(length);
    if (result.length !== length) throw new RangeError('speechenhance: the output must be as long as the input');
    const refPointers = inputs.length > mics ? this.#pointers + 4 * mics : 0;
    for (let start = 0; start < length; start += CHUNK) {
      const count = Math.min(CHUNK, length - start);
      for (let i = 0; i < inputs.length; ++i) {
        this.#m.floats(this.#buffers + 4 * CHUNK * i, count).set(inputs[i].subarray(start, start + count));
      }
      this.#m.c.se_stream_process(this.#stream, this.#pointers, refPointers, this.#outAt, count);
      result.set(this.#m.floats(this.#outAt, count), start);
    }
    return result;
  }

  // Runs on silence until the engine's code is compiled, then forgets it.
  warmUp(seconds = 0.5) {
    const block = new Float32Array(Math.round(seconds * 16000));
    this.process(Array(this.#channels[0]).fill(block));
    this.reset();
  }

  flush() {
    const rest = this.process(Array(this.#channels[0]).fill(new Float32Array(this.latency)));
    this.reset();
    return rest;
  }

  reset() { this.#m.c.se_stream_reset(this.#stream); }
}
