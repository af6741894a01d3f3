// Times a block of 10 ms in node, with and without vectors, against the native program in the same run.
// usage: node web/bench.js TOOL (after scripts/web --build-only)
import { execFileSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { Enhancer } from '../build-web/package/index.js';
import { readWavFile } from './tests/wav.js';

const here = new URL('..', import.meta.url).pathname;
const scene = `${here}build-web/example`;
const { channels: mic } = readWavFile(`${scene}/mic.wav`);
const { channels: [ref] } = readWavFile(`${scene}/ref.wav`);
const blocks = mic[0].length / 160;
const ROUNDS = 5;

async function module(name) {
  const bytes = readFileSync(`${here}build-web/package/${name}`);
  const enhancer = await Enhancer.create({ module: bytes, micChannels: 2, refChannels: 1, delay: 0, preset: 'voice' });
  enhancer.warmUp();
  return () => {
    const began = performance.now();
    enhancer.process(mic, ref);
    return (performance.now() - began) / blocks;
  };
}

const native = () => JSON.parse(execFileSync(process.argv[2], [`${scene}/mic.wav`, '--ref', `${scene}/ref.wav`, '--delay', '0',
  '--preset', 'voice', '-q', '--stats=json', '-o', '/dev/null'])).engine_s * 1000 / blocks;

const contenders = { native, 'with vectors': await module('speechenhance.wasm'),
  'without vectors': await module('speechenhance-scalar.wasm') };
const best = {};
for (let round = 0; round < ROUNDS; ++round) {
  for (const [name, run] of Object.entries(contenders)) best[name] = Math.min(best[name] ?? Infinity, run());
}
for (const [name, ms] of Object.entries(best)) {
  console.log(`${name.padEnd(16)} ${ms.toFixed(3)} ms a block, ${(ms / best.native).toFixed(1)} times native`);
}
