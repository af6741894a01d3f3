import { readFileSync } from 'node:fs';
import { readWav } from '../demo/wav.js';

export function parseWav({ buffer, byteOffset, byteLength }) {
  return readWav(buffer.slice(byteOffset, byteOffset + byteLength));
}

export const readWavFile = (path) => parseWav(readFileSync(path));
