// Runs one contender over the scene, for tools that count instructions.
//
//   frame_driver FRAMES CONTENDER
//
// The frames follow on kWarmUpFrames others. Everything else costs the same whatever FRAMES is, so
// that two runs differ by the frames alone; a counter that can be told to look only inside
// `counted_frame` needs one run. The kernel variant comes from SPEECHENHANCE_KERNELS. Prints
// the variant that ran and a hash (FNV-1a, 64 bits) of the counted frames' output, by which
// architectures and variants can be compared.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "contenders.h"
#include "kernels/kernels.h"

namespace {

constexpr int kWarmUpFrames = 20;
constexpr int kSceneFrames = 1000;

std::uint64_t hash(const std::vector<char>& data) {
  std::uint64_t state = 14695981039346656037u;
  for (const char byte : data) {
    state = (state ^ static_cast<unsigned char>(byte)) * 1099511628211u;
  }
  return state;
}

}  // namespace

extern "C" __attribute__((noinline, visibility("default"))) const void* counted_frame(
    se_bench::Contender& contender, const se_bench::Frame& frame) {
  return contender.process(frame);
}

int main(int argc, char** argv) {
  const int frames = argc == 3 ? std::atoi(argv[1]) : -1;
  const se_bench::ContenderKind* kind = argc == 3 ? se_bench::find_contender(argv[2]) : nullptr;
  if (!kind || frames < 0 || frames > kSceneFrames - kWarmUpFrames) {
    std::fprintf(stderr, "usage: frame_driver FRAMES CONTENDER, at most %d frames\n",
                 kSceneFrames - kWarmUpFrames);
    return 2;
  }
  const se_bench::Scene scene(kSceneFrames);
  const auto contender = kind->make();
  std::size_t i = 0;
  while (i < kWarmUpFrames) contender->process(scene.frame(i++));
  const std::size_t bytes = contender->output_bytes();
  std::vector<char> output(kSceneFrames * bytes);
  for (; i < kWarmUpFrames + static_cast<std::size_t>(frames); ++i) {
    std::memcpy(output.data() + i * bytes, counted_frame(*contender, scene.frame(i)), bytes);
  }
  std::printf("%s %016" PRIx64 "\n", se::kernels().name, hash(output));
  return 0;
}
