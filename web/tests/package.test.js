// The package as it is published: installed from its tarball into a folder of its own.
// usage: node --test (with TARBALL, TOOL and SCENE, a folder with mic.wav and ref.wav, in the environment)
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { readWavFile } from './wav.js';

const { TARBALL, TOOL, SCENE } = process.env;
let folder, api, mic, ref;

before(async () => {
  folder = mkdtempSync(join(tmpdir(), 'speechenhance-'));
  writeFileSync(join(folder, 'package.json'), '{"type":"module"}');
  execFileSync('npm', ['install', '--silent', '--offline', '--no-audit', '--no-fund', TARBALL], { cwd: folder });
  writeFileSync(join(folder, 'api.js'), "export * from 'speechenhance';");
  api = await import(join(folder, 'api.js'));
  mic = readWavFile(join(SCENE, 'mic.wav')).channels;
  ref = readWavFile(join(SCENE, 'ref.wav')).channels;
});
after(() => rmSync(folder, { recursive: true }));

const wasm = (name) => readFileSync(join(folder, 'node_modules/speechenhance', name));

function byTool(...options) {
  const out = join(folder, 'clean.wav');
  execFileSync(TOOL, [join(SCENE, 'mic.wav'), '--float', '-q', '-o', out, ...options]);
  return readWavFile(out).channels[0];
}

const same = (a, b) => Buffer.compare(Buffer.from(a.buffer, a.byteOffset, a.byteLength),
  Buffer.from(b.buffer, b.byteOffset, b.byteLength)) === 0;

test('gives the bits of the tool, with and without vectors', async () => {
  const expected = byTool('--preset', 'recording', '--ref', join(SCENE, 'ref.wav'));
  for (const name of ['speechenhance.wasm', 'speechenhance-scalar.wasm']) {
    const progress = [];
    const made = await api.enhance(mic, { reference: ref, preset: 'recording', module: wasm(name),
      onProgress: (part) => progress.push(part) });
    assert.ok(same(made, expected), name);
    assert.equal(progress.at(-1), 1);
    assert.deepEqual(progress, [...progress].sort((a, b) => a - b));
  }
});

test('its types hold a strict program to what the package takes', () => {
  writeFileSync(join(folder, 'program.ts'), `
    import { createEnhancerNode, enhance, Enhancer, load, presets, type Status } from 'speechenhance';
    const clean: Float32Array = await enhance([new Float32Array(16), new Float32Array(16)],
      { preset: 'call', limiter: { gainDb: 6 }, delay: 'auto', onProgress: (part: number, s: Status) => s.micDb + part });
    const enhancer: Enhancer = await Enhancer.create({ rate: 48000, refChannels: 1, module: await load() });
    enhancer.set({ mode: 'mix', limiter: false });
    clean.set(enhancer.process(clean, null));
    const names: string[] = (await presets()).map((preset) => preset.name);
    const node: AudioNode = await createEnhancerNode(new AudioContext(), { preset: names[0]!, reference: true });
    node.connect(node.context.destination);
    // @ts-expect-error
    enhancer.set({ mode: 'loud' });
    // @ts-expect-error
    enhancer.latency = 1;
    // @ts-expect-error
    await createEnhancerNode(new AudioContext(), { module: await load() });
  `);
  const compiler = new URL('../node_modules/typescript/bin/tsc', import.meta.url).pathname;
  execFileSync('node', [compiler, '--strict', '--noEmit', '--target', 'es2022', '--module', 'nodenext', '--lib', 'es2022,dom',
    'program.ts'], { cwd: folder, stdio: 'inherit' });
});

test('settings are those of the tool', async () => {
  const module = await api.load();
  const cases = [
    [{ preset: 'steady' }, ['--preset', 'steady']],
    [{ mode: 'mix', residualDb: 20 }, ['--mode', 'mix', '--residual', '20']],
    [{ preset: 'call', limiter: false }, ['--preset', 'call', '--no-limiter']],
    [{ limiter: { ceiling: 0.5, gainDb: 6 } }, ['--limiter', '--limiter-ceiling', '0.5', '--limiter-gain', '6']],
  ];
  for (const [settings, options] of cases) {
    assert.ok(same(await api.enhance(mic, { ...settings, module }), byTool(...options)), options.join(' '));
  }
  const names = (await api.presets({ module })).map(({ name }) => name);
  const listed = execFileSync(TOOL, ['--list-presets']).toString().trim().split('\n').map((line) => line.split(' ')[0]);
  assert.deepEqual(names, listed);
});

test('a stream in blocks of any length is the same as one call, at any rate', async () => {
  for (const rate of [16000, 44100, 48000]) {
    const options = { rate, micChannels: 2, refChannels: 1, preset: 'recording' };
    const sound = mic.map((channel) => channel.subarray(0, 3 * 16000));
    const far = ref[0].subarray(0, 3 * 16000);
    const whole = await api.Enhancer.create(options);
    const expected = whole.process(sound, far);
    const pieces = await api.Enhancer.create(options);
    const made = new Float32Array(expected.length);
    for (let at = 0, i = 0; at < made.length; ++i) {
      const end = Math.min(made.length, at + [128, 1, 997, 160, 5000][i % 5]);
      pieces.process(sound.map((c) => c.subarray(at, end)), far.subarray(at, end), made.subarray(at, end));
      at = end;
    }
    assert.ok(same(made, expected), `${rate} Hz`);
    assert.equal(pieces.flush().length, pieces.latency);
    pieces.process(sound, far);
    pieces.reset();
    assert.ok(same(pieces.process(sound, far), expected), 'after a reset');
  }
});

test('amount 0 gives the microphone back, as late as everything', async () => {
  const enhancer = await api.Enhancer.create({ amount: 0 });
  const made = enhancer.process(mic[0]);
  const { latency } = enhancer;
  assert.equal(latency, 1327);
  assert.ok(same(made.slice(2 * latency), mic[0].slice(latency, mic[0].length - latency)));
});

test('mistakes are told', async () => {
  const module = await api.load(wasm('speechenhance.wasm'));
  const create = (options) => api.Enhancer.create({ module, ...options });
  await assert.rejects(create({ rate: 4000 }), /sample rate must be 8000 to 192000/);
  await assert.rejects(create({ preset: 'loud' }), /no preset has this name/);
  await assert.rejects(create({ mode: 'magic' }), /mode is one of/);
  await assert.rejects(create({ amunt: 1 }), /no setting "amunt"/);
  await assert.rejects(create({ amount: 2 }), /amount must be 0 to 1/);
  const enhancer = await create({ micChannels: 2 });
  assert.throws(() => enhancer.process(mic[0]), /2 Float32Arrays/);
  assert.throws(() => enhancer.process([mic[0], mic[1].subarray(1)]), /same length/);
  const controller = new AbortController();
  controller.abort();
  await assert.rejects(api.enhance(mic, { module, signal: controller.signal }), /abort/i);
});

test('nothing is printed, and memory does not grow with the sound', async () => {
  const script = `import { Enhancer } from 'speechenhance'; const e = await Enhancer.create({ preset: 'recording' });
    e.process(new Float32Array(16000)); const before = process.memoryUsage().arrayBuffers;
    const block = new Float32Array(480); for (let i = 0; i < 2000; ++i) e.process(block, null, block);
    if (process.memoryUsage().arrayBuffers > before + 1e6) process.exit(1);`;
  writeFileSync(join(folder, 'quiet.js'), script);
  assert.equal(execFileSync(process.execPath, ['quiet.js'], { cwd: folder, stdio: 'pipe' }).toString(), '');
});
