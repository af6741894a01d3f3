// Debian's Chromium, headless, beside a server of static files on the loopback interface.
import { createServer } from 'node:http';
import { readFileSync } from 'node:fs';
import { extname, normalize } from 'node:path';
import { chromium } from 'playwright-core';

const TYPES = { '.html': 'text/html', '.js': 'text/javascript', '.css': 'text/css', '.wasm': 'application/wasm' };

// fileOf(path) -> the file that is served for a path, which begins with a slash; "/" is its index.html.
// Returns { browser, origin, close }.
export async function openBrowser(fileOf, ...args) {
  const server = createServer((request, response) => {
    const asked = normalize(new URL(request.url, 'http://page').pathname);
    const path = asked === '/' ? '/index.html' : asked;
    try {
      const body = readFileSync(fileOf(path));
      response.writeHead(200, { 'content-type': TYPES[extname(path)] ?? 'text/html' }).end(body);
    } catch {
      response.writeHead(404).end();
    }
  });
  await new Promise((resolve) => { server.listen(0, '127.0.0.1', resolve); });
  const browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args: ['--no-sandbox', ...args] });
  const close = async () => {
    await browser.close();
    server.close();
  };
  return { browser, origin: `http://127.0.0.1:${server.address().port}`, close };
}
