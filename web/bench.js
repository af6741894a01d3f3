// Times a block of 10 ms in node and in Chromium, with and without vectors, against the native program in the
// same run, and says how much of the limit that takes.
// usage: node web/bench.js TOOL (after scripts/web --build-only; Chromium is left out where it is not installed)
import { execFileSync } from 'node:child_process';
import { existsSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import { Enhancer } from '../build-web/package/index.js';
import { openBrowser } from './tests/browser.js';
import { readWavFile } from './tests/wav.js';

const LIMIT = 0.25; // ms a block
const ROUNDS = 7;
const here = new URL('..', import.meta.url).pathname;
const scene = `${here}build-web/example`;
const { channels: mic } = readWavFile(`${scene}/mic.wav`);
const { channels: [ref] } = readWavFile(`${scene}/ref.wav`);
const blocks = mic[0].length / 160;
const settings = { micChannels: 2, refChannels: 1, delay: 0, preset: 'recording' };
const modules = { 'with vectors': 'speechenhance.wasm', 'without vectors': 'speechenhance-scalar.wasm' };
const tool = process.argv[2];
if (!tool) {
  console.error('usage: node web/bench.js TOOL');
  process.exit(2);
}

const contenders = { native: () => JSON.parse(execFileSync(tool, [`${scene}/mic.wav`, '--ref', `${scene}/ref.wav`,
  '--delay', '0', '--preset', 'recording', '-q', '--stats=json', '-o', '/dev/null'])).engine_s * 1000 / blocks };

for (const [name, file] of Object.entries(modules)) {
  const enhancer = await Enhancer.create({ ...settings, module: readFileSync(`${here}build-web/package/${file}`) });
  enhancer.warmUp();
  contenders[`node, ${name}`] = () => {
    const began = performance.now();
    enhancer.process(mic, ref);
    return (performance.now() - began) / blocks;
  };
}

let close = () => {};
if (existsSync('/usr/bin/chromium')) {
  const opened = await openBrowser((path) => path === '/index.html' ? `${here}web/demo/index.html`
    : join(path.endsWith('.wav') ? scene : `${here}build-web/package`, path));
  close = opened.close;
  const page = await opened.browser.newPage();
  await page.goto(`${opened.origin}/LICENSE`); // any document, for the origin
  for (const [name, file] of Object.entries(modules)) {
    contenders[`Chromium, ${name}`] = () => page.evaluate(async ({ file, settings, mic, ref }) => {
      const { Enhancer } = await import('/index.js');
      const [left, right, reference] = [...mic, ref].map((samples) => Float32Array.from(samples));
      const enhancer = await Enhancer.create({ ...settings, module: `/${file}` });
      enhancer.warmUp();
      const began = performance.now();
      enhancer.process([left, right], reference);
      return (performance.now() - began) / (reference.length / 160);
    }, { file, settings, mic: mic.map((samples) => [...samples]), ref: [...ref] });
  }
}

const best = {};
for (let round = 0; round < ROUNDS; ++round) {
  for (const [name, run] of Object.entries(contenders)) best[name] = Math.min(best[name] ?? Infinity, await run());
}
await close();
for (const [name, ms] of Object.entries(best)) {
  console.log(`${name.padEnd(26)} ${ms.toFixed(3)} ms a block, ${(ms / best.native).toFixed(1)} times native, ` +
    `${Math.round(100 * ms / LIMIT)} % of ${LIMIT} ms`);
}
