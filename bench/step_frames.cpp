// Counts the instructions of a contender's frames by letting the CPU trap after each of them: slow,
// but it knows every instruction that the CPU knows, as Callgrind does not.
//
//   step_frames FRAMES CONTENDER
//
// The frames follow on kWarmUpFrames others. The kernel variant comes from SPEECHENHANCE_KERNELS.
// Prints the variant that ran and the instructions per frame. x86-64 only. A string instruction
// with a repeat prefix counts once per repetition.
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "contenders.h"
#include "kernels/kernels.h"

namespace {

constexpr int kWarmUpFrames = 20;
constexpr int kSceneFrames = 1000;

volatile std::uint64_t steps = 0;

void on_trap(int) {
  steps = steps + 1;
}

// Sets or clears the trap flag. The stack below the pointer may be in use (the red zone).
inline __attribute__((always_inline)) void trap_every_instruction() {
  __asm__ volatile("sub $128, %%rsp\n\tpushfq\n\torq $0x100, (%%rsp)\n\tpopfq\n\tadd $128, %%rsp" ::
                       : "memory", "cc");
}
inline __attribute__((always_inline)) void run_freely() {
  __asm__ volatile(
      "sub $128, %%rsp\n\tpushfq\n\tandq $~0x100, (%%rsp)\n\tpopfq\n\tadd $128, %%rsp" ::
          : "memory", "cc");
}

}  // namespace

int main(int argc, char** argv) {
  const int frames = argc == 3 ? std::atoi(argv[1]) : -1;
  const se_bench::ContenderKind* kind = argc == 3 ? se_bench::find_contender(argv[2]) : nullptr;
  if (!kind || frames < 1 || frames > kSceneFrames - kWarmUpFrames) {
    std::fprintf(stderr, "usage: step_frames FRAMES CONTENDER, at most %d frames\n",
                 kSceneFrames - kWarmUpFrames);
    return 2;
  }
  const se_bench::Scene scene(kSceneFrames);
  const auto contender = kind->make();
  std::size_t i = 0;
  while (i < kWarmUpFrames) contender->process(scene.frame(i++));

  struct sigaction action = {};
  action.sa_handler = on_trap;
  sigaction(SIGTRAP, &action, nullptr);
  for (; i < kWarmUpFrames + static_cast<std::size_t>(frames); ++i) {
    const se_bench::Frame frame = scene.frame(i);
    trap_every_instruction();
    contender->process(frame);
    run_freely();
  }
  std::printf("%s %.0f\n", se::kernels().name, static_cast<double>(steps) / frames);
  return 0;
}
