// Counts the instructions of a contender's frames by letting the CPU trap after each of them: slow,
// but it knows every instruction that the CPU knows, as Callgrind does not.
//
//   step_frames FRAMES CONTENDER
//
// The kernel variant comes from SPEECHENHANCE_KERNELS.
// Prints the variant that ran and the instructions per frame. x86-64 only. A string instruction
// with a repeat prefix counts once per repetition.
#include <signal.h>

#include "counted_run.h"
#include "kernels/kernels.h"

namespace {

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
  se_bench::CountedRun run(argc, argv);
  struct sigaction action = {};
  action.sa_handler = on_trap;
  sigaction(SIGTRAP, &action, nullptr);
  for (int i = 0; i < run.frames(); ++i) {
    const se_bench::Frame frame = run.frame(i);
    trap_every_instruction();
    run.contender().process(frame);
    run_freely();
  }
  std::printf("%s %.0f\n", se::kernels().name, static_cast<double>(steps) / run.frames());
  return 0;
}
