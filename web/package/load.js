// Where the module of WebAssembly comes from.

// A function that splats into a vector: valid where 128-bit vectors are known.
const VECTORS = Uint8Array.of(0, 97, 115, 109, 1, 0, 0, 0, 1, 5, 1, 96, 0, 1, 123, 3, 2, 1, 0, 10, 10, 1, 8, 0,
  65, 0, 253, 15, 253, 98, 11);

export function defaultUrl() {
  // Both are written out, for bundlers that look for this form.
  return WebAssembly.validate(VECTORS)
    ? new URL('./speechenhance.wasm', import.meta.url)
    : new URL('./speechenhance-scalar.wasm', import.meta.url);
}

async function bytesAt(url) {
  const place = new URL(url, globalThis.location?.href ?? import.meta.url);
  if (place.protocol === 'file:' && globalThis.process?.versions?.node) {
    const { readFile } = await import(/* webpackIgnore: true */ /* @vite-ignore */ 'node:fs/promises');
    return readFile(place);
  }
  const response = await fetch(place);
  if (!response.ok) throw new Error(`speechenhance: ${place} cannot be loaded (${response.status}); pass "module"`);
  return response.arrayBuffer();
}

export async function loadBytes(source = defaultUrl()) {
  if (source instanceof WebAssembly.Module) {
    throw new TypeError('speechenhance: a compiled module cannot be sent to an audio worklet; pass its URL or bytes');
  }
  if (source instanceof ArrayBuffer || ArrayBuffer.isView(source)) return source;
  if (typeof Response !== 'undefined' && source instanceof Response) return source.arrayBuffer();
  return bytesAt(source);
}

export async function load(source) {
  return source instanceof WebAssembly.Module ? source : WebAssembly.compile(await loadBytes(source));
}
