import { Enhancer as Stream, presetsOf } from './enhancer.js';
import { load, loadBytes } from './load.js';

export { load };

// Only made by create(): compiling takes a promise.
export class Enhancer extends Stream {
  static async create({ module, ...options } = {}) { return Stream.create(await load(module), options); }
}

export async function presets({ module } = {}) { return presetsOf(await load(module)); }

const asChannels = (sound) => (sound instanceof Float32Array ? [sound] : [...sound]);

export async function enhance(mic, options = {}) {
  const { reference = null, delay = 'auto', module, onProgress, signal, ...settings } = options;
  const mics = asChannels(mic);
  const refs = reference ? asChannels(reference) : [];
  if (mics.length < 1 || mics.length > 2) throw new RangeError('speechenhance: mic has one or two channels');
  const length = mics[0].length;
  const rate = settings.rate ?? 16000;
  const enhancer = await Enhancer.create({ module, ...settings, delay, micChannels: mics.length, refChannels: refs.length });
  const latency = enhancer.latency;
  const out = new Float32Array(length);
  // A part of a channel; silence behind its end.
  const part = (channel, start, count) => {
    const piece = new Float32Array(count);
    piece.set(channel.subarray(Math.min(start, channel.length), Math.min(start + count, channel.length)));
    return piece;
  };
  for (let start = 0; start < length + latency; start += rate) {
    signal?.throwIfAborted();
    const count = Math.min(rate, length + latency - start);
    const parts = (channels) => channels.map((channel) => part(channel, start, count));
    const made = enhancer.process(parts(mics), refs.length > 0 ? parts(refs) : null);
    const skipped = Math.min(count, Math.max(0, latency - start));
    if (skipped < count) out.set(made.subarray(skipped), start + skipped - latency);
    onProgress?.((start + count) / (length + latency), enhancer.status);
    await new Promise((resolve) => { setTimeout(resolve); });
  }
  return out;
}

export async function createEnhancerNode(context, options = {}) {
  const { module, processorUrl = new URL('./processor.js', import.meta.url), reference = false, ...settings } = options;
  const [bytes] = await Promise.all([loadBytes(module), context.audioWorklet.addModule(processorUrl)]);
  const { micChannels = 1 } = settings;
  const node = new AudioWorkletNode(context, 'speechenhance', {
    numberOfInputs: reference ? 2 : 1,
    numberOfOutputs: 1,
    outputChannelCount: [1],
    channelCount: micChannels,
    channelCountMode: 'explicit',
    channelInterpretation: 'discrete',
    processorOptions: { bytes, settings: { ...settings, micChannels, refChannels: reference ? 1 : 0 } },
  });
  const latency = await new Promise((resolve, reject) => {
    node.port.onmessage = ({ data }) => (data.error ? reject(new Error(data.error)) : resolve(data.latency));
    node.onprocessorerror = () => reject(new Error('speechenhance: the audio worklet failed'));
  });
  node.port.onmessage = ({ data }) => {
    const type = data.error ? 'settingserror' : 'status';
    node.dispatchEvent(new CustomEvent(type, { detail: data.error ?? data.status }));
  };
  node.onprocessorerror = null;
  return Object.assign(node, {
    latency,
    set(changes) { node.port.postMessage({ set: changes }); },
    reset() { node.port.postMessage({ reset: true }); },
    close() { node.port.postMessage({ close: true }); node.disconnect(); },
  });
}
