// WAV files: reading those that need no conversion, writing mono.

// { rate, channels } of a file with 16-bit or 32-bit float samples; null for anything else. Browsers' own decoders
// scale positive and negative 16-bit samples differently, which this one does not.
export function readWav(bytes) {
  const view = new DataView(bytes);
  const name = (at) => String.fromCharCode(...new Uint8Array(bytes, at, 4));
  if (bytes.byteLength < 12 || name(0) !== 'RIFF' || name(8) !== 'WAVE') return null;
  let format = null;
  for (let at = 12; at + 8 <= bytes.byteLength;) {
    const size = view.getUint32(at + 4, true);
    const data = at + 8;
    if (name(at) === 'fmt ' && size >= 16 && data + size <= bytes.byteLength) {
      const kind = view.getUint16(data, true);
      format = { kind: kind === 0xfffe && size >= 26 ? view.getUint16(data + 24, true) : kind,
        count: view.getUint16(data + 2, true), rate: view.getUint32(data + 4, true), bits: view.getUint16(data + 14, true) };
    } else if (name(at) === 'data' && format) {
      const { kind, count, rate, bits } = format;
      const sample = { '1/16': (place) => view.getInt16(place, true) / 32768,
        '3/32': (place) => view.getFloat32(place, true) }[`${kind}/${bits}`];
      if (!sample || count === 0) return null;
      const step = bits / 8 * count;
      const length = Math.floor(Math.min(size, bytes.byteLength - data) / step);
      return { rate, channels: Array.from({ length: count }, (_, c) =>
        Float32Array.from({ length }, (__, i) => sample(data + i * step + c * bits / 8))) };
    }
    at = data + size + (size & 1);
  }
  return null;
}

// A mono WAV file of 16 bits, rounded as the program speech-enhance does: toward zero, clipped at full scale.
export function wavFile(samples, rate) {
  const header = 44;
  const view = new DataView(new ArrayBuffer(header + 2 * samples.length));
  const text = (at, s) => [...s].forEach((c, i) => view.setUint8(at + i, c.charCodeAt(0)));
  text(0, 'RIFF');
  view.setUint32(4, header - 8 + 2 * samples.length, true);
  text(8, 'WAVEfmt ');
  view.setUint32(16, 16, true);
  view.setUint16(20, 1, true); // PCM
  view.setUint16(22, 1, true); // channel
  view.setUint32(24, rate, true);
  view.setUint32(28, 2 * rate, true);
  view.setUint16(32, 2, true);
  view.setUint16(34, 16, true);
  text(36, 'data');
  view.setUint32(40, 2 * samples.length, true);
  samples.forEach((x, i) => view.setInt16(header + 2 * i, Math.trunc(Math.max(-32768, Math.min(32767, x * 32768))), true));
  return new Blob([view.buffer], { type: 'audio/wav' });
}
