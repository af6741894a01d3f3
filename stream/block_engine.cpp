#include "stream/block_engine.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace se::stream {

bool BlockEngine::create() {
  engine_.reset(create_instance(&nn_denoise_model));
  limiter_memory_.reset(new (std::nothrow) unsigned char[limiter_query_mem()]);
  if (engine_ == nullptr || limiter_memory_ == nullptr) return false;
  reset();
  return true;
}

void BlockEngine::reset() {
  reset_instance(engine_.get(), &nn_denoise_model);
  std::memset(limiter_memory_.get(), 0, limiter_query_mem());
  limiter_ = limiter_init(limiter_memory_.get());
  std::fill_n(kept_, kLimiterDelay, 0.0f);
  configure(settings_);
  limited_ = settings_.engine.limiter_enable != 0;
}

void BlockEngine::configure(const SEStreamSettings& settings) {
  settings_ = settings;
  NnProcessConfig config = settings.engine;
  config.limiter_enable = 0;
  se::configure(engine_.get(), config);
}

void BlockEngine::process(const float* mics, const float* ref, float* out) {
  float fresh[kBlock];
  se_process(engine_.get(), mics, ref, fresh, settings_.mode == SE_STREAM_DENOISE,
             settings_.mode == SE_STREAM_SUPPRESS);

  std::copy_n(kept_, kLimiterDelay, out);
  std::copy_n(fresh, kBlock - kLimiterDelay, out + kLimiterDelay);
  std::copy_n(fresh + kBlock - kLimiterDelay, kLimiterDelay, kept_);

  limit(fresh);
  const bool limits = settings_.engine.limiter_enable != 0;
  if (limits && limited_) {
    std::copy_n(fresh, kBlock, out);
  } else if (limits || limited_) {
    for (int i = 0; i < kBlock; ++i) {
      const float part = static_cast<float>(i + 1) * (1.0f / kBlock);
      out[i] += (limits ? part : 1.0f - part) * (fresh[i] - out[i]);
    }
  }
  limited_ = limits;
}

void BlockEngine::limit(float* samples) {
  const NnProcessConfig& engine = settings_.engine;
  const bool limits = engine.limiter_enable != 0;
  limiter_set_max_gain(limiter_, limits ? engine.limiter_max_gain : 1.0f);
  limiter_process_float(limiter_, samples, kBlock, false, limits ? engine.limiter_level_db : 0.0f);
}

}  // namespace se::stream
