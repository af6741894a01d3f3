// The page: recordings come in, a worker enhances them, the result is drawn, played and handed out.
import WaveSurfer from './wavesurfer/wavesurfer.esm.js';
import Spectrogram from './wavesurfer/spectrogram.esm.js';
import { createEnhancerNode, presets } from './speechenhance/index.js';
import { figures } from './figures.js';
import { Player } from './player.js';
import { readWav, wavFile } from './wav.js';

const RATE = 16000;
const $ = (id) => document.getElementById(id);

const recordings = []; // { name, channels, out, seconds, far, echoDelay, key }, the microphone's also live
let selected = null;
let reference = null;  // { name, samples }
let waiting = null;    // the recording that the worker is busy with
const player = new Player();
const views = {};      // before, after: WaveSurfer

// ---- Messages -----------------------------------------------------------------------------------

function say(text) {
  $('message').textContent = text;
  $('message').hidden = text === '';
}

const inMinutes = (seconds) => `${Math.floor(seconds / 60)}:${String(Math.floor(seconds % 60)).padStart(2, '0')}`;

// ---- Settings -----------------------------------------------------------------------------------

function settings() {
  const delay = $('delay').value;
  return { preset: $('preset').value, amount: $('amount').value / 100, delay: delay === 'auto' ? delay : Number(delay) };
}

async function fillPresets() {
  for (const { name, description } of await presets()) {
    const option = new Option(name, name, name === 'recording', name === 'recording');
    option.dataset.description = description;
    $('preset').append(option);
  }
  showSettings();
}

function showSettings() {
  $('preset-about').textContent = $('preset').selectedOptions[0]?.dataset.description ?? '';
  $('amount-shown').textContent = `${$('amount').value} %`;
  $('reference-name').textContent = reference?.name ?? 'none';
  $('reference-none').hidden = $('delay-field').hidden = reference === null;
}

function settingsChanged() {
  showSettings();
  liveNode?.set({ preset: $('preset').value, amount: $('amount').value / 100 });
  enhanceSelected();
}

// ---- Recordings ---------------------------------------------------------------------------------

// One or two channels at the engine's rate. Files of that rate keep their samples.
async function decode(blob, name) {
  const bytes = await blob.arrayBuffer();
  const wav = readWav(bytes);
  if (wav?.rate === RATE && wav.channels[0].length > 0) return wav.channels.slice(0, 2);
  try {
    const sound = await new OfflineAudioContext(1, 1, RATE).decodeAudioData(bytes);
    if (sound.length === 0) throw new Error('empty');
    return Array.from({ length: Math.min(2, sound.numberOfChannels) }, (_, c) => sound.getChannelData(c));
  } catch {
    throw new Error(`${name} cannot be read as sound. Try WAV, FLAC, MP3, Ogg or M4A.`);
  }
}

async function addFiles(files) {
  say('');
  const problems = [];
  for (const file of files) {
    try {
      add({ name: file.name, channels: await decode(file, file.name) });
    } catch (error) {
      problems.push(error.message);
    }
  }
  say(problems.join(' '));
}

function add(recording) {
  recordings.push(recording);
  select(recording);
}

async function setReference(file) {
  say('');
  try {
    reference = file ? { name: file.name, samples: (await decode(file, file.name))[0] } : null;
  } catch (error) {
    say(error.message);
  }
  settingsChanged();
}

async function addExample() {
  say('');
  try {
    const [mic, ref] = await Promise.all(['mic.wav', 'ref.wav'].map(async (name) =>
      new File([await (await fetch(`example/${name}`)).blob()], name)));
    reference = { name: 'ref.wav', samples: (await decode(ref, ref.name))[0] };
    showSettings();
    await addFiles([mic]);
  } catch (error) {
    say(`The example cannot be loaded: ${error.message}`);
  }
}

// ---- Enhancing ----------------------------------------------------------------------------------

const worker = new Worker('worker.js', { type: 'module' });
let jobs = 0;
worker.onerror = (event) => say(`The engine cannot be loaded: ${event.message ?? 'see the console'}`);

worker.onmessage = ({ data: { id, part, out, seconds, status, error } }) => {
  if (part !== undefined) {
    if (id === waiting?.id && waiting.recording === selected) showProgress(part);
    return;
  }
  const { recording, key, far } = waiting;
  const echoDelay = far && status?.delayFound ? status.delayMs : NaN;
  waiting = null;
  if (error) {
    say(`${recording.name}: ${error}`);
    recording.key = key; // until the settings change
    if (recording === selected) $('working').hidden = true;
  } else {
    Object.assign(recording, { out, seconds, key, far, echoDelay });
  }
  showList();
  if (!error && recording === selected && key === keyOf()) show();
  startNext();
};

// What a result depends on.
const keyOf = () => JSON.stringify([settings(), reference?.name, reference?.samples.length]);

const isDone = (recording) => recording.live || recording.key === keyOf();

function enhanceSelected() {
  if (selected && !isDone(selected)) {
    $('player').hidden = true;
    $('working').hidden = false;
    player.stop();
    showPlaying();
  }
  showList();
  startNext();
}

// What is looked at first, then the rest in their order.
function startNext() {
  if (waiting) return; // comes back here
  const recording = [selected, ...recordings].find((r) => r && !isDone(r));
  if (!recording) return;
  showProgress(0);
  waiting = { id: ++jobs, recording, key: keyOf(), far: reference?.samples };
  worker.postMessage({ id: jobs, channels: recording.channels, settings: settings(), reference: waiting.far });
}

function showProgress(part) {
  $('progress').value = part;
  $('percent').textContent = `${Math.round(100 * part)} %`;
}

// ---- The result ---------------------------------------------------------------------------------

const microphoneOf = ({ channels }) => channels[channels.length - 1];

function select(recording) {
  selected = recording;
  showList();
  $('result').hidden = false;
  $('result-name').textContent = recording.name;
  if (isDone(recording) && recording.out) show();
  else enhanceSelected();
}

function showList() {
  const hadFocus = $('list').contains(document.activeElement);
  $('list').replaceChildren(...recordings.map((recording) => {
    const button = document.createElement('button');
    button.type = 'button';
    button.setAttribute('aria-current', recording === selected);
    const length = document.createElement('small');
    length.textContent = inMinutes(microphoneOf(recording).length / RATE) + (isDone(recording) ? '' : ' · waiting');
    button.append(recording.name, length);
    button.onclick = () => select(recording);
    const item = document.createElement('li');
    item.append(button);
    return item;
  }));
  if (hadFocus) $('list').querySelector('[aria-current=true]')?.focus();
}

function show() {
  const { name, out, seconds, far, echoDelay = NaN } = selected;
  const mic = microphoneOf(selected);
  $('working').hidden = true;
  $('player').hidden = false;
  player.load({ before: mic, after: out }, RATE);
  $('position').max = player.duration;
  $('figures').textContent = figures({ name, mic, out, rate: RATE, seconds, reference: far, echoDelay });
  URL.revokeObjectURL($('download').href);
  $('download').href = URL.createObjectURL(wavFile(out, RATE));
  $('download').download = `${name.replace(/\.[^.]*$/, '')}-clean.wav`;
  draw('before', mic);
  draw('after', out);
  showPlaying();
}

function draw(side, samples) {
  const colours = getComputedStyle(document.documentElement);
  views[side]?.destroy();
  const view = views[side] = WaveSurfer.create({
    container: `#${side}`, height: 80, normalize: false, cursorWidth: 2,
    waveColor: colours.getPropertyValue('--soft'), progressColor: colours.getPropertyValue('--accent'),
    cursorColor: colours.getPropertyValue('--accent'),
    plugins: [Spectrogram.create({ height: 128, labels: false, fftSamples: 512, scale: 'linear', frequencyMax: RATE / 2,
      gainDB: 20, rangeDB: 80, colorMap: 'roseus', useWebWorker: false })],
  });
  view.on('interaction', (seconds) => player.seek(seconds).then(showPlaying));
  view.load('', [samples], samples.length / RATE);
}

// ---- Playing ------------------------------------------------------------------------------------

function showPlaying() {
  $('play').textContent = player.playing ? 'Pause' : 'Play';
  if (selected?.out) showPosition();
}

function showPosition() {
  const position = player.position;
  $('position').value = position;
  $('position').setAttribute('aria-valuetext', inMinutes(position));
  $('time').textContent = inMinutes(position);
  for (const view of Object.values(views)) view.setTime(position);
  if (player.playing) requestAnimationFrame(showPosition);
}

async function playOrPause() {
  if (player.playing) player.stop();
  else await player.play();
  showPlaying();
}

function listenTo(side) {
  player.side = side;
  document.querySelector(`[name=side][value=${side}]`).checked = true;
}

// ---- The microphone -----------------------------------------------------------------------------

let liveNode = null;
let stopRecording = null;

function joined(parts) {
  const whole = new Float32Array(parts.reduce((sum, part) => sum + part.length, 0));
  parts.reduce((at, part) => { whole.set(part, at); return at + part.length; }, 0);
  return whole;
}

async function startRecording() {
  say('');
  player.stop();
  showPlaying();
  let stream;
  try {
    stream = await navigator.mediaDevices.getUserMedia(
      { audio: { echoCancellation: false, noiseSuppression: false, autoGainControl: false } });
  } catch {
    say('The microphone cannot be used: allow it in the browser, and open the page over https or on this machine.');
    return;
  }
  const context = new AudioContext({ sampleRate: RATE });
  const { preset, amount } = settings();
  liveNode = await createEnhancerNode(context, { preset, amount });
  await context.audioWorklet.addModule('recorder.js');
  const recorder = new AudioWorkletNode(context, 'recorder', { numberOfInputs: 2, numberOfOutputs: 0,
    channelCount: 1, channelCountMode: 'explicit' });
  const heard = [], made = [];
  recorder.port.onmessage = ({ data }) => {
    heard.push(data[0]);
    made.push(data[1]);
    $('live-time').textContent = `${Math.floor(heard.length * 128 / RATE)} s`;
  };
  liveNode.addEventListener('status', ({ detail }) => {
    $('live-in').textContent = detail.micDb.toFixed(0);
    $('live-out').textContent = detail.outDb.toFixed(0);
  });
  const source = context.createMediaStreamSource(stream);
  const began = performance.now();
  source.connect(recorder, 0, 0);
  source.connect(liveNode).connect(recorder, 0, 1);
  $('record').setAttribute('aria-pressed', true);
  $('record').textContent = 'Stop';
  $('live').hidden = false;

  stopRecording = async () => {
    const { latency } = liveNode;
    for (const track of stream.getTracks()) track.stop();
    liveNode.close();
    liveNode = null;
    await context.close();
    $('record').setAttribute('aria-pressed', false);
    $('record').textContent = 'Use the microphone';
    $('live').hidden = true;
    const out = joined(made).slice(latency);
    if (out.length === 0) return say('That was too short: nothing was recorded.');
    const mic = joined(heard).slice(0, out.length);
    const count = recordings.filter(({ live }) => live).length + 1;
    add({ name: `Microphone ${count}`, channels: [mic], out, live: true, seconds: (performance.now() - began) / 1000 });
  };
}

async function toggleRecording() {
  const stop = stopRecording;
  stopRecording = null;
  $('record').disabled = true;
  if (stop) await stop();
  else await startRecording();
  $('record').disabled = false;
}

// ---- Controls -----------------------------------------------------------------------------------

$('files').onchange = ({ target }) => { addFiles([...target.files]); target.value = ''; };
$('reference').onchange = ({ target }) => { setReference(target.files[0]); target.value = ''; };
$('reference-none').onclick = () => setReference(null);
$('example').onclick = addExample;
$('record').onclick = toggleRecording;
for (const id of ['preset', 'delay']) $(id).onchange = settingsChanged;
$('amount').oninput = showSettings;
$('amount').onchange = settingsChanged;
$('settings').onsubmit = (event) => event.preventDefault();
$('play').onclick = playOrPause;
$('position').oninput = ({ target }) => player.seek(Number(target.value)).then(showPlaying);
for (const radio of document.querySelectorAll('[name=side]')) radio.onchange = () => listenTo(radio.value);
player.addEventListener('ended', showPlaying);

document.addEventListener('keydown', (event) => {
  if ($('player').hidden || event.ctrlKey || event.metaKey || event.altKey) return;
  if (event.target.matches('input, select, button, a, label') && event.key === ' ') return;
  if (event.target.matches('select')) return;
  const act = { ' ': playOrPause, b: () => listenTo('before'), a: () => listenTo('after') }[event.key];
  if (!act) return;
  event.preventDefault();
  act();
});

document.addEventListener('dragover', (event) => { event.preventDefault(); $('drop').classList.add('over'); });
document.addEventListener('dragleave', () => $('drop').classList.remove('over'));
document.addEventListener('drop', (event) => {
  event.preventDefault();
  $('drop').classList.remove('over');
  addFiles([...event.dataTransfer.files]);
});
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => { if (selected?.out) show(); });

fillPresets().catch((error) => say(`The engine cannot be loaded: ${error.message}`));
