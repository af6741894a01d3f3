// Kernels of windows, power spectra and gains with fused products, for WebAssembly's vectors: what
// the compiler cannot turn into vectors by itself. The rest, transforms included, stays scalar.
#include "kernels/variants.h"
#include "kernels/wasm128.h"

namespace se {
namespace {

using namespace wasm128;

// |x|^2 with the squared real part fused onto the squared imaginary part.
inline v128_t fused_power(Complex4 x) {
  return fused(x.re, x.re, wasm_f32x4_mul(x.im, x.im));
}

void overlap_add_envelope(const float* frame, const float* window, float* sum, float* envelope,
                          int n) {
  const int whole = n & ~3;
  for (int i = 0; i < whole; i += 4) {
    const v128_t w = wasm_v128_load(window + i);
    const v128_t added = wasm_f32x4_mul(wasm_v128_load(frame + i), w);
    wasm_v128_store(sum + i, wasm_f32x4_add(wasm_v128_load(sum + i), added));
    wasm_v128_store(envelope + i, fused(w, w, wasm_v128_load(envelope + i)));
  }
  kScalarSpectral.overlap_add_envelope(frame + whole, window + whole, sum + whole, envelope + whole,
                                       n - whole);
}

void power_spectrum(const zel_lcomplex* spectrum, float* power, int n) {
  for (; n >= 4; n -= 4, spectrum += 4, power += 4) {
    wasm_v128_store(power, fused_power(load4(spectrum)));
  }
  kScalarSpectral.power_spectrum(spectrum, power, n);
}

void magnitude(const zel_lcomplex* spectrum, float bias, float* magnitude, int n) {
  for (; n >= 4; n -= 4, spectrum += 4, magnitude += 4) {
    const v128_t power = wasm_f32x4_add(fused_power(load4(spectrum)), wasm_f32x4_splat(bias));
    wasm_v128_store(magnitude, wasm_f32x4_sqrt(power));
  }
  kScalarSpectral.magnitude(spectrum, bias, magnitude, n);
}

void mix(const zel_lcomplex* wet, const zel_lcomplex* dry, float open, float level,
         zel_lcomplex* out, int n) {
  for (; n >= 2; n -= 2, wet += 2, dry += 2, out += 2) {
    const v128_t opened = wasm_f32x4_mul(wasm_v128_load(dry), wasm_f32x4_splat(open));
    wasm_v128_store(out, fused(wasm_f32x4_splat(level), opened, wasm_v128_load(wet)));
  }
  kScalarSpectral.mix(wet, dry, open, level, out, n);
}

float sum_of_squares(const float* a, int n) {
  v128_t partial = wasm_f32x4_splat(0.0f);
  for (; n >= 4; n -= 4, a += 4) {
    const v128_t v = wasm_v128_load(a);
    partial = fused(v, v, partial);
  }
  const v128_t rest =
      wasm_f32x4_make(n > 0 ? a[0] : 0.0f, n > 1 ? a[1] : 0.0f, n > 2 ? a[2] : 0.0f, 0.0f);
  return combine(fused(rest, rest, partial));
}

}  // namespace

void use_wasm128(SpectralKernels& k) {
  k.overlap_add_envelope = overlap_add_envelope;
  k.power_spectrum = power_spectrum;
  k.magnitude = magnitude;
  k.mix = mix;
  k.sum_of_squares = sum_of_squares;
}

}  // namespace se
