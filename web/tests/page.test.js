// The page in a real browser: Debian's Chromium, headless, driven by Playwright.
// usage: node --test (with PAGE, the built page, TOOL, SCENE, SCREENSHOTS, a folder, and MODULE_TESTS, that of
// module_tests.js, in the environment)
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdtempSync, mkdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { openBrowser } from './browser.js';
import { parseWav, readWavFile } from './wav.js';

const { PAGE, TOOL, SCENE, SCREENSHOTS, MODULE_TESTS } = process.env;
const DONE = { timeout: 120000 };
let folder, browser, origin, close;

before(async () => {
  folder = mkdtempSync(join(tmpdir(), 'speechenhance-'));
  mkdirSync(SCREENSHOTS, { recursive: true });
  ({ browser, origin, close } = await openBrowser((path) =>
    join(path.startsWith('/module_tests.') ? MODULE_TESTS : PAGE, path), '--autoplay-policy=no-user-gesture-required',
  '--use-fake-ui-for-media-stream', '--use-fake-device-for-media-stream',
  `--use-file-for-fake-audio-capture=${join(SCENE, 'mic.wav')}`));
});
after(async () => {
  await close?.();
  rmSync(folder, { recursive: true });
});

// body(page) on a fresh page, which must leave the console empty and ask nobody else for anything.
async function onPage(options, body) {
  const page = await browser.newPage(options);
  const troubles = [];
  page.on('console', (message) => troubles.push(message.text()));
  page.on('pageerror', (error) => troubles.push(error.message));
  page.on('request', (request) => {
    if (!/^(http:\/\/127\.0\.0\.1:|blob:|data:)/.test(request.url())) troubles.push(request.url());
  });
  await page.goto(origin);
  await page.waitForFunction(() => document.querySelectorAll('#preset option').length > 0);
  await body(page);
  assert.deepEqual(troubles, []);
  await page.close();
}

const shoot = (page, name) => page.screenshot({ path: join(SCREENSHOTS, `${name}.png`), fullPage: true });

async function download(page) {
  const url = await page.getAttribute('#download', 'href');
  return Buffer.from(await page.evaluate(async (at) =>
    Array.from(new Uint8Array(await (await fetch(at)).arrayBuffer())), url));
}

function byTool(...options) {
  const out = join(folder, 'clean.wav');
  const figures = execFileSync(TOOL, [join(SCENE, 'mic.wav'), '-q', '--stats', '-o', out, ...options]).toString();
  return { channels: readWavFile(out).channels, figures };
}

// Without the line on speed.
const repeatable = (figures) => figures.split('\n').slice(1).filter((line) => !line.includes('speed')).join('\n').trim();

test('a dropped file: download and figures are those of the tool', async () => {
  const expected = byTool('--preset', 'recording');
  await onPage({ colorScheme: 'light', viewport: { width: 1200, height: 900 } }, async (page) => {
    await shoot(page, 'empty-light');
    const bytes = readFileSync(join(SCENE, 'mic.wav')).toString('base64');
    await page.evaluate(async (data) => {
      const transfer = new DataTransfer();
      const blob = await (await fetch(`data:audio/wav;base64,${data}`)).blob();
      transfer.items.add(new File([blob], 'mic.wav'));
      document.dispatchEvent(new DragEvent('drop', { dataTransfer: transfer, bubbles: true, cancelable: true }));
    }, bytes);
    await page.waitForSelector('#working:not([hidden])');
    await shoot(page, 'working-light');
    await page.waitForSelector('#player:not([hidden])', DONE);
    assert.deepEqual(parseWav(await download(page)).channels, expected.channels);
    assert.equal(repeatable(await page.textContent('#figures')), repeatable(expected.figures));
    await page.waitForTimeout(1500);
    await shoot(page, 'result-light');
  });
});

test('the example, with its reference; listening; a telephone in the dark', async () => {
  const expected = byTool('--preset', 'recording', '--ref', join(SCENE, 'ref.wav'));
  const phone = { colorScheme: 'dark', viewport: { width: 390, height: 844 }, deviceScaleFactor: 2, hasTouch: true };
  await onPage(phone, async (page) => {
    await shoot(page, 'empty-dark-phone');
    await page.click('#example');
    await page.waitForSelector('#player:not([hidden])', DONE);
    assert.deepEqual(parseWav(await download(page)).channels, expected.channels);
    assert.equal(repeatable(await page.textContent('#figures')), repeatable(expected.figures));

    await page.click('#play');
    await page.waitForFunction(() => Number(document.getElementById('position').value) > 0.5);
    await page.keyboard.press('b');
    assert.ok(await page.isChecked('[value=before]'));
    assert.equal(await page.textContent('#play'), 'Pause', 'switching does not stop');
    await page.click('#play');
    assert.equal(await page.textContent('#play'), 'Play');
    const width = await page.evaluate(() => document.documentElement.scrollWidth);
    assert.ok(width <= 390, `${width} pixels wide`);
    await page.waitForTimeout(1500);
    await shoot(page, 'result-dark-phone');
  });
});

test('a broken file gets a message, and the next one works', async () => {
  const broken = join(folder, 'broken.wav');
  writeFileSync(broken, 'RIFF of nothing');
  await onPage({}, async (page) => {
    await page.setInputFiles('#files', broken);
    await page.waitForSelector('#message:not([hidden])');
    assert.match(await page.textContent('#message'), /broken\.wav cannot be read as sound\. Try WAV/);
    await shoot(page, 'broken');
    await page.setInputFiles('#files', [join(SCENE, 'mic.wav'), join(SCENE, 'voice.wav')]);
    await page.waitForFunction(() => document.querySelectorAll('#list li').length === 2);
    await page.waitForSelector('#player:not([hidden])', DONE);
    assert.ok(await page.isHidden('#message'));
    assert.equal(await page.textContent('#result-name'), 'voice.wav');
    await page.waitForFunction(() => !document.getElementById('list').textContent.includes('waiting'), null, DONE);
    await page.click('#list li:first-child button');
    await page.waitForFunction(() => document.getElementById('figures').textContent.startsWith('mic.wav'), null, DONE);
  });
});

test('the microphone, live', async () => {
  await onPage({ permissions: ['microphone'] }, async (page) => {
    await page.click('#record');
    await page.waitForFunction(() => /^[3-9]/.test(document.getElementById('live-time').textContent), null, DONE);
    await shoot(page, 'recording');
    const level = Number(await page.textContent('#live-in'));
    assert.ok(level > -80 && level < 0, `${level} dB`);
    await page.click('#record');
    await page.waitForSelector('#player:not([hidden])', DONE);
    const [made] = parseWav(await download(page)).channels;
    assert.ok(made.length > 2 * 16000);
    assert.ok(made.some((x) => Math.abs(x) > 0.01), 'the voice comes through');
    await shoot(page, 'microphone');
  });
});

test('everything is labelled and can be reached by keyboard', async () => {
  await onPage({}, async (page) => {
    await page.click('#example');
    await page.waitForSelector('#player:not([hidden])', DONE);
    const nameless = await page.evaluate(() => [...document.querySelectorAll('button, input, select, a, progress')]
      .filter((e) => !(e.labels?.length || e.ariaLabel || e.getAttribute('aria-label') || e.textContent.trim()))
      .map((e) => e.outerHTML));
    assert.deepEqual(nameless, []);
    const wanted = new Set(['files', 'record', 'example', 'preset', 'amount', 'reference', 'play', 'position', 'download']);
    await page.locator('body').focus();
    for (let i = 0; i < 40; ++i) {
      await page.keyboard.press('Tab');
      wanted.delete(await page.evaluate(() => document.activeElement.id));
    }
    assert.deepEqual([...wanted], []);
  });
});

test('a worklet gives what a stream gives', async () => {
  await onPage({}, async (page) => {
    const different = await page.evaluate(async () => {
      const { createEnhancerNode, Enhancer } = await import('/speechenhance/index.js');
      const rate = 48000, length = 3 * rate;
      const context = new OfflineAudioContext(1, length, rate);
      const node = await createEnhancerNode(context, { preset: 'recording', reference: true, delay: 0 });
      const noise = (level) => Float32Array.from({ length }, (_, i) => level * Math.sin(i * i * 1e-4) * Math.random());
      const sounds = [noise(0.3), noise(0.1)];
      sounds.forEach((samples, input) => {
        const buffer = new AudioBuffer({ length, sampleRate: rate });
        buffer.copyToChannel(samples, 0);
        const source = new AudioBufferSourceNode(context, { buffer });
        source.connect(node, 0, input);
        source.start();
      });
      node.connect(context.destination);
      const made = (await context.startRendering()).getChannelData(0);
      const stream = await Enhancer.create({ rate, preset: 'recording', refChannels: 1, delay: 0 });
      const expected = stream.process(sounds[0], sounds[1]);
      if (!expected.some((x) => x !== 0)) return 'silence';
      return expected.filter((x, i) => x !== made[i]).length;
    });
    assert.equal(different, 0);
  });
});

test('the kernels and the golden hash', async () => {
  const page = await browser.newPage();
  await page.goto(`${origin}/wavesurfer/LICENSE`); // any document, for the origin
  const { code, lines } = await page.evaluate(() => new Promise((resolve) => {
    const lines = [];
    const print = (line) => lines.push(line);
    window.Module = { arguments: ['--gtest_brief=1'], print, printErr: print, onExit: (code) => resolve({ code, lines }) };
    const script = document.createElement('script');
    script.src = '/module_tests.js';
    document.head.append(script);
  }));
  assert.equal(code, 0, lines.join('\n'));
  assert.match(lines.join('\n'), /PASSED {2}\] 1\d tests/);
  await page.close();
});
