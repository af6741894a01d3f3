// What the benchmark measures, one frame of the scene at a time: the engine in its two
// configurations, the two suites that a user would otherwise pick, and the transforms.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "scene.h"

namespace se_bench {

class Contender {
 public:
  virtual ~Contender() = default;

  // Processes the next 10 ms, or one transform pair. Returns the result, kBlock or kTransformLen
  // samples as `output_bytes` says, valid until the next call.
  virtual const void* process(const Frame& frame) = 0;
  virtual std::size_t output_bytes() const = 0;
};

struct ContenderKind {
  const char* name;
  bool ours;  // depends on the library's kernel variant
  std::unique_ptr<Contender> (*make)();
};

// Ours: "denoise" (the denoised path alone), "full" (mix with classical suppression, all twelve
// equaliser bands and the limiter on) and "rfft512" (a 512-point real transform forward and back).
extern const std::vector<ContenderKind> kOurContenders;

// Others': "speexdsp", "webrtc" and "fftw3f". Empty in a build without these libraries.
extern const std::vector<ContenderKind> kPeers;

// Null if no contender of this build has that name.
const ContenderKind* find_contender(const std::string& name);

}  // namespace se_bench
