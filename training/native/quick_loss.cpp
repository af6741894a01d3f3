// The parts of the loss that go over every bin, each in one pass instead of PyTorch's one per
// operation: the gain rule, and the sums that the loss is made of, along with their slopes. The
// formulas are those of gain_rule.py and loss.py, which remain the reference.
#include "lanes.h"
#include "quick_step.h"

#ifdef __AVX512BF16__
#define SE_NAME(function) se_training_##function##_avx512
#else
#define SE_NAME(function) se_training_##function##_avx2
#endif

namespace {

Floats where_less(Floats x, Floats than, Floats yes) {  // else 0
  return yes - where_within(x - than, splat(3e38f), yes);
}

void sum_octaves(const se_training_loss& l, const float* power, float* octaves) {
  for (Index o = 0; o < l.octaves; ++o) {
    octaves[o] = 0.0f;
    for (Index k = l.edges[o]; k < l.edges[o + 1]; ++k) octaves[o] += power[k];
  }
}

}  // namespace

SE_TRAINING_GAIN_FORWARD(SE_NAME(gain_forward)) {
  const se_training_gain_rule& r = *rule;
  for (Index row = 0; row < r.rows; ++row)
    for (Index k = 0; k < r.bins; k += kLanes) {
      const Index left = r.bins - k, at = row * r.bins + k;
      const float* bands = values + row * r.bands;
      const Ints band = load_words(r.band + k);
      Floats raw =
          fma(gather(bands, band), load(r.own + k), gather(bands + 1, band) * load(r.next + k));
      if (far_end[row]) {
        const Floats squared = raw * raw;
        const Floats speech = where_less(load_some(mixture + at, left) * splat(r.holds_speech),
                                         load_some(target + at, left), splat(r.leak));
        const Floats closed = where_less(squared, splat(r.gate), squared);
        raw = squared - closed * (splat(1.0f) - speech);
      }
      store_some(gain + at, raw * load(r.make_up + k), left);
    }
}

SE_TRAINING_GAIN_BACKWARD(SE_NAME(gain_backward)) {
  const se_training_gain_rule& r = *rule;
  Buffer<float> grad_raw(r.bins + kLanes);
  for (Index row = 0; row < r.rows; ++row) {
    const float* bands = values + row * r.bands;
    for (Index k = 0; k < r.bins; k += kLanes) {
      Floats grad = load_some(grad_gain + row * r.bins + k, r.bins - k) * load(r.make_up + k);
      if (far_end[row]) {
        const Ints band = load_words(r.band + k);
        const Floats raw =
            fma(gather(bands, band), load(r.own + k), gather(bands + 1, band) * load(r.next + k));
        grad = grad * (raw + raw);
      }
      store(grad_raw + k, grad);
    }
    float* out = grad_values + row * r.bands;
    std::memset(out, 0, static_cast<std::size_t>(r.bands) * sizeof *out);
    for (Index k = 0; k < r.bins; ++k) {
      out[r.band[k]] += r.own[k] * grad_raw[k];
      out[r.band[k] + 1] += r.next[k] * grad_raw[k];
    }
  }
}

SE_TRAINING_LOSS_AIMS(SE_NAME(loss_aims)) {
  const se_training_loss& l = *loss;
  const Index table = round_up(l.bins, 16);
  Buffer<float> full_power(table);
  for (Index row = 0; row < l.rows; ++row) {
    const float* ceilings = l.ceilings + far_end[row] * table;
    Floats aimed_sum = splat(0.0f), noise_sum = splat(0.0f);
    for (Index k = 0; k < l.bins; k += kLanes) {
      const Index left = l.bins - k, at = row * l.bins + k;
      const Floats x = power(load_some(mixture + at, left), 1 / l.exponent);
      const Floats s = power(load_some(target + at, left), 1 / l.exponent);
      const Floats aim = s * load(ceilings + k);
      const Floats along = aim * load_some(cosine + at, left) * splat(2.0f);
      store_some(loud + at, x, left);
      store_some(full + at, s, left);
      store_some(towards + at, along, left);
      store(full_power + k, s * s);
      aimed_sum = fma(aim, aim, aimed_sum);
      noise_sum = fma(x, x - along, noise_sum);
    }
    aimed[row] = sum_of(aimed_sum);
    noise[row] = sum_of(noise_sum);
    sum_octaves(l, full_power, octaves + row * l.octaves);
  }
}

SE_TRAINING_LOSS_FORWARD(SE_NAME(loss_forward)) {
  const se_training_loss& l = *loss;
  const Index table = round_up(l.bins, 16);
  const Floats zero = splat(0.0f), both = splat(l.magnitude + l.complex_);
  const Floats turn = splat(2 * l.complex_);
  Buffer<float> enhanced_power(table);
  for (Index row = 0; row < l.rows; ++row) {
    const float* compressed = l.compressed + far_end[row] * table;
    const Floats lost = splat(attenuated[row]);
    Floats spectral_sum = zero, error_sum = zero, openness_sum = zero;
    for (Index k = 0; k < l.bins; k += kLanes) {
      const Index left = l.bins - k, at = row * l.bins + k;
      const Floats g = load_some(gain + at, left), weight = load(l.weights + k);
      const Floats wanted = load_some(target + at, left) * load(compressed + k);
      const Floats squared = fma(g, g, splat(l.floor * l.floor));
      const Floats y = power(squared, l.exponent / 2) * load_some(mixture + at, left);
      const Floats off = wanted - y, missing = max(off, zero);
      const Floats turned = (splat(1.0f) - load_some(cosine + at, left)) * wanted;
      const Floats cost = fma(off * off, both, fma(y * turned, turn, missing * missing * lost));
      const Floats by_y = turned * turn - splat(2.0f) * fma(off, both, missing * lost);
      // d y / d gain = exponent * gain * y / squared
      store_some(slope + at, by_y * y * g / squared * weight * splat(l.exponent), left);
      const Floats enhanced = load_some(loud + at, left) * g;
      store(enhanced_power + k, enhanced * enhanced);
      spectral_sum = fma(cost, weight, spectral_sum);
      error_sum = fma(enhanced, enhanced - load_some(towards + at, left), error_sum);
      openness_sum = fma(g, weight, openness_sum);
    }
    spectral[row] = sum_of(spectral_sum);
    error[row] = sum_of(error_sum);
    openness[row] = sum_of(openness_sum);
    sum_octaves(l, enhanced_power, octaves + row * l.octaves);
  }
}

SE_TRAINING_LOSS_BACKWARD(SE_NAME(loss_backward)) {
  const se_training_loss& l = *loss;
  Buffer<float> to_power(l.bins + kLanes);  // gradient of a bin's enhanced power
  for (Index row = 0; row < l.rows; ++row) {
    for (Index o = 0; o < l.octaves; ++o)
      for (Index k = l.edges[o]; k < l.edges[o + 1]; ++k)
        to_power[k] = grad_octaves[row * l.octaves + o];
    const Floats to_error = splat(grad_error[row]), to_spectral = splat(grad_spectral[row]);
    const Floats to_openness = splat(grad_openness[row]);
    for (Index k = 0; k < l.bins; k += kLanes) {
      const Index left = l.bins - k, at = row * l.bins + k;
      const Floats x = load_some(loud + at, left);
      const Floats enhanced = x * load_some(gain + at, left);
      Floats grad = load_some(slope + at, left) * to_spectral;
      grad = fma(x * enhanced * splat(2.0f), to_error + load(to_power + k), grad);
      grad = grad - x * load_some(towards + at, left) * to_error;
      store_some(grad_gain + at, fma(load(l.weights + k), to_openness, grad), left);
    }
  }
}
