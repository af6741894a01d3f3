// Runs one contender over the scene, or several of a kind in turns, for tools that count
// instructions or simulate caches.
//
//   frame_driver FRAMES CONTENDER [HOW_MANY]
//   frame_driver variants            prints the names of the kernel variants that run here
//
// Everything but the frames costs the same whatever FRAMES is, so that two runs differ by the
// frames alone; a counter that can be told to look only inside `counted_frame` needs one run. The
// kernel variant comes from SPEECHENHANCE_KERNELS. Prints the variant that ran and a hash (FNV-1a,
// 64 bits) of the counted frames' output, by which architectures and variants can be compared.
#include <cinttypes>
#include <cstring>

#include "counted_run.h"
#include "kernels/kernels.h"

namespace {

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

using se_bench::CountedRun;

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "variants") == 0) {
    for (int i = 0; const se::Kernels* variant = se::available_kernels(i); ++i) {
      std::printf("%s\n", variant->name);
    }
    return 0;
  }
  CountedRun run(argc, argv);
  const std::size_t bytes = run.contender().output_bytes();
  std::vector<char> output(CountedRun::kMostFrames * bytes);  // the same for any FRAMES
  for (int i = 0; i < run.frames(); ++i) {
    std::memcpy(output.data() + static_cast<std::size_t>(i) * bytes,
                counted_frame(run.contender(i), run.frame(i)), bytes);
  }
  std::printf("%s %016" PRIx64 "\n", se::kernels().name, hash(output));
  return 0;
}
