/** Clean voices from noisy rooms. Sound is Float32Array with full scale ±1, one array per channel. */

/** Where the WebAssembly comes from: a URL, its bytes, a response, or a module compiled beforehand (not for
 * audio worklets). Left out, the file beside the package, the one without vectors where they are unknown. */
export type ModuleSource = string | URL | ArrayBuffer | ArrayBufferView | Response | WebAssembly.Module;

/** Compiles the module once, for several enhancers. */
export function load(source?: ModuleSource): Promise<WebAssembly.Module>;

export interface Settings {
  /** A built-in preset, "recording" by default; see presets(). */
  preset?: string;
  /** 1: the enhanced sound (default); 0: the microphone as it came; between: both, mixed. */
  amount?: number;
  /** The denoised signal alone, with some of the unprocessed, or that through the classical suppressor. */
  mode?: 'denoise' | 'mix' | 'suppress';
  /** Attenuation of the unprocessed signal in mode "mix": whole dB, 0 to 120. */
  residualDb?: number;
  /** The same in mode "suppress": 10 to 130. */
  nsResidualDb?: number;
  /** Ceiling (linear, 0.01 to 1, default 0.9) and gain ahead of it (0 to 60 dB, default 0). False: off. */
  limiter?: { ceiling?: number; gainDb?: number } | false;
}

export interface StreamOptions extends Settings {
  /** Samples per second, 8000 to 192000; default 16000. */
  rate?: number;
  /** Of two, the second is the one that is enhanced. Default 1. */
  micChannels?: 1 | 2;
  /** 0: no echo is cancelled (default). */
  refChannels?: 0 | 1 | 2;
  /** By how many ms the echo reaches the microphone after the reference reaches the enhancer: -500 to 500, or
   * "auto" (default): it is found from the sound. */
  delay?: number | 'auto';
  module?: ModuleSource;
}

export interface Status {
  /** Levels over the last 100 ms, dB relative to a constant 1; -150 for silence. */
  micDb: number;
  refDb: number;
  outDb: number;
  echoReductionDb: number;
  delayMs: number;
  /** 0 to 1; relied on from 0.5. */
  delayConfidence: number;
  delayFound: boolean;
}

/** A stream of sound, in blocks of any length. Not for several threads at a time. */
export class Enhancer {
  private constructor();
  static create(options?: StreamOptions): Promise<Enhancer>;
  /** By how many samples the output lags the input, always. */
  readonly latency: number;
  readonly version: string;
  readonly status: Status;
  /** Enhances a block: a Float32Array, or one per channel; all of the same length. Without a reference, the
   * loudspeaker is taken to be silent. Returns as many samples, in `out` if it is given. */
  process(mic: Float32Array | Float32Array[], reference?: Float32Array | Float32Array[] | null,
    out?: Float32Array): Float32Array;
  /** The `latency` samples that are still on their way; then the stream is as new. */
  flush(): Float32Array;
  /** Changes some settings, from the next 10 ms on. Throws RangeError, and changes nothing, if one is outside
   * its range. */
  set(changes: Settings & { delay?: number | 'auto' }): void;
  /** Forgets all sound; settings stay. */
  reset(): void;
  /** Runs on silence until the code is compiled, then resets: ahead of live sound. */
  warmUp(seconds?: number): void;
}

export interface EnhanceOptions extends Settings {
  rate?: number;
  /** What the loudspeaker played, from the same start as `mic`; silence follows its end. */
  reference?: Float32Array | Float32Array[] | null;
  /** By how many ms the echo lags the reference; "auto" (default): found from the sound, and followed. */
  delay?: number | 'auto';
  module?: ModuleSource;
  /** Called every second of sound, with 0 to 1. */
  onProgress?: (part: number, status: Status) => void;
  signal?: AbortSignal;
}

/** Enhances a recording of one or two channels. The result is as long and aligned with it to the sample; at
 * 16 kHz it is, bit for bit, what the program speech-enhance makes of it. */
export function enhance(mic: Float32Array | Float32Array[], options?: EnhanceOptions): Promise<Float32Array>;

/** The built-in presets. */
export function presets(options?: { module?: ModuleSource }): Promise<{ name: string; description: string }[]>;

export interface NodeOptions extends Settings {
  micChannels?: 1 | 2;
  /** Whether the node has a second input for what the loudspeaker plays. */
  reference?: boolean;
  delay?: number | 'auto';
  /** URL or bytes; a compiled module cannot be sent to a worklet. */
  module?: Exclude<ModuleSource, WebAssembly.Module>;
  /** Where processor.js lies, if a bundler moved it. */
  processorUrl?: string | URL;
}

/** An AudioWorkletNode: microphone in at input 0, reference at input 1, the voice out. Dispatches "status"
 * (detail: Status) ten times a second and "settingserror" (detail: a message). */
export interface EnhancerNode extends AudioWorkletNode {
  /** Samples at the context's rate. */
  readonly latency: number;
  set(changes: Settings & { delay?: number | 'auto' }): void;
  reset(): void;
  close(): void;
}

/** Resolves when the engine is warm. */
export function createEnhancerNode(context: BaseAudioContext, options?: NodeOptions): Promise<EnhancerNode>;
