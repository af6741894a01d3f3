// Enhances recordings away from the page, one at a time.
import { enhance, load } from './speechenhance/index.js';

const module = load();

onmessage = async ({ data: { id, channels, reference, settings } }) => {
  try {
    let status = null;
    const began = performance.now();
    const out = await enhance(channels, { ...settings, reference, module: await module,
      onProgress: (part, now) => {
        status = now;
        postMessage({ id, part });
      } });
    postMessage({ id, out, status, seconds: (performance.now() - began) / 1000 }, [out.buffer]);
  } catch (error) {
    postMessage({ id, error: error.message });
  }
};
