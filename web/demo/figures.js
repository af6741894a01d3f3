// The figures that the program speech-enhance prints with --stats, reckoned alike and set alike.
const BLOCK = 160;
const ECHO_TAIL_BLOCKS = 25;     // 250 ms
const LOUDSPEAKER_PLAYS = 1e-6;  // mean square
const LOWEST_DB = -150, STEPS_PER_DB = 10;

const energyOf = (block) => block.reduce((sum, x) => sum + x * x, 0);
const powerDb = (power) => 10 * Math.log10(power);
const blocksOf = (samples) => Array.from({ length: Math.ceil(samples.length / BLOCK) },
  (_, i) => samples.subarray(BLOCK * i, BLOCK * (i + 1)));

function levels(samples) {
  const peak = samples.reduce((most, x) => Math.max(most, Math.abs(x)), 0);
  const blocks = blocksOf(samples);
  const energies = blocks.map(energyOf);
  const steps = energies.map((e, i) =>
    Math.max(0, Math.floor((powerDb(e / blocks[i].length) - LOWEST_DB) * STEPS_PER_DB))).sort((a, b) => a - b);
  // The level that a tenth of the blocks stays below.
  const background = steps[Math.ceil(steps.length / 10) - 1];
  return {
    peak: powerDb(peak * peak),
    level: powerDb(energies.reduce((a, b) => a + b, 0) / samples.length),
    background: background === 0 ? -Infinity : LOWEST_DB + (background + 0.5) / STEPS_PER_DB,
  };
}

function echoReduction(mic, reference, out) {
  if (!reference) return NaN;
  let left = 0, before = 0, after = 0;
  const outs = blocksOf(out);
  blocksOf(mic).forEach((block, i) => {
    const far = reference.subarray(BLOCK * i, BLOCK * i + block.length);
    if (energyOf(far) > LOUDSPEAKER_PLAYS * block.length) left = ECHO_TAIL_BLOCKS;
    if (left === 0) return;
    --left;
    before += energyOf(block);
    after += energyOf(outs[i]);
  });
  return powerDb(before / after);
}

function decibels(value, unit) {
  if (Number.isNaN(value)) return '-';
  if (!Number.isFinite(value)) return value < 0 ? 'silence' : 'to silence';
  return `${value.toFixed(1)} ${unit}`;
}

export function figures({ name, mic, reference, echoDelay, out, rate, seconds }) {
  const duration = mic.length / rate;
  const before = levels(mic), after = levels(out);
  const change = (what) => `${decibels(before[what], 'dBFS')} -> ${decibels(after[what], 'dBFS')}`;
  const clipped = out.reduce((count, x) => count + (x * 32768 < -32768 || x * 32768 >= 32768 ? 1 : 0), 0);
  const lines = [
    ['duration', `${duration.toFixed(2)} s`],
    ['speed', `${(duration / seconds).toFixed(1)} times real time (factor ${(seconds / duration).toFixed(4)})`],
    ...['peak', 'level', 'background'].map((what) => [what, change(what)]),
    ['attenuation', decibels(before.level - after.level, 'dB')],
    ['echo reduction', decibels(echoReduction(mic, reference, out), 'dB')],
    ['echo delay', Number.isNaN(echoDelay) ? '-' : `${echoDelay.toFixed(0)} ms`],
    ['clipped samples', String(clipped)],
  ];
  return `${name}\n${lines.map(([label, value]) => `  ${label.padEnd(17)} ${value}\n`).join('')}`;
}
