// Runs one contender over the scene, for tools that count instructions.
//
//   frame_driver CONTENDER WARM_UP_FRAMES FRAMES
//
// Everything but the counted frames costs the same whatever FRAMES is, as long as both numbers
// stay within the scene, so that two runs with different FRAMES differ by the frames alone; a
// counter that can be told to look only inside `counted_frame` needs one run. The kernel variant
// comes from SPEECHENHANCE_KERNELS. Prints a hash (FNV-1a, 64 bits) of the counted frames' output,
// by which architectures and variants can be compared.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "contenders.h"

namespace {

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
  const se_bench::ContenderKind* kind = argc == 4 ? se_bench::find_contender(argv[1]) : nullptr;
  const int warm_up = argc == 4 ? std::atoi(argv[2]) : -1;
  const int frames = argc == 4 ? std::atoi(argv[3]) : -1;
  if (!kind || warm_up < 0 || frames < 0 || warm_up + frames > kSceneFrames) {
    std::fprintf(stderr, "usage: frame_driver CONTENDER WARM_UP_FRAMES FRAMES, at most %d in all\n",
                 kSceneFrames);
    return 2;
  }
  const se_bench::Scene scene(kSceneFrames);
  const auto contender = kind->make();
  for (int i = 0; i < warm_up; ++i) contender->process(scene.frame(static_cast<std::size_t>(i)));
  const std::size_t bytes = contender->output_bytes();
  std::vector<char> output(kSceneFrames * bytes);
  for (int i = warm_up; i < warm_up + frames; ++i) {
    const void* out = counted_frame(*contender, scene.frame(static_cast<std::size_t>(i)));
    std::memcpy(output.data() + static_cast<std::size_t>(i) * bytes, out, bytes);
  }
  std::printf("%016" PRIx64 "\n", hash(output));
  return 0;
}
