// Prints the memory that an engine takes: the two lines of se_create(), and as a line of JSON the
// stack of se_process() with the denoised path only and with everything on, in bytes. The stack is
// measured by painting: a thread runs on memory filled with a pattern, and the deepest byte that
// changed tells.
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "contenders.h"
#include "speechenhance/speechenhance.h"

namespace {

using namespace se_bench;

constexpr std::size_t kStackBytes = 1 << 20;
constexpr unsigned char kPaint = 0xA5;
constexpr int kFrames = 30;

struct Run {
  Contender* contender;
  const Scene* scene;
  std::uintptr_t top;  // about where the stack of the calls begins
};

void* run_frames(void* argument) {
  Run& run = *static_cast<Run*>(argument);
  char here;
  run.top = reinterpret_cast<std::uintptr_t>(&here);
  for (std::size_t i = 0; i < kFrames; ++i) run.contender->process(run.scene->frame(i));
  return nullptr;
}

std::size_t stack_of(const char* name, const Scene& scene) {
  const auto contender = find_contender(name)->make();
  Run run = {contender.get(), &scene, 0};
  run_frames(&run);  // resolves lazily bound calls, which needs stack of its own, once

  auto* const stack = static_cast<unsigned char*>(aligned_alloc(4096, kStackBytes));
  std::fill(stack, stack + kStackBytes, kPaint);
  pthread_attr_t attributes;
  pthread_t thread;
  if (pthread_attr_init(&attributes) != 0 ||
      pthread_attr_setstack(&attributes, stack, kStackBytes) != 0 ||
      pthread_create(&thread, &attributes, run_frames, &run) != 0) {
    std::fprintf(stderr, "memory_use: no thread\n");
    std::exit(1);
  }
  pthread_join(thread, nullptr);
  const unsigned char* const deepest =
      std::find_if(stack, stack + kStackBytes, [](unsigned char byte) { return byte != kPaint; });
  const std::size_t depth = run.top - reinterpret_cast<std::uintptr_t>(deepest);
  std::free(stack);
  return depth;
}

}  // namespace

int main() {
  se_destroy(se_create());
  const Scene scene(2 * kFrames);
  const std::size_t denoise = stack_of("denoise", scene), full = stack_of("full", scene);
  std::printf("{\"denoise\": %zu, \"full\": %zu}\n", denoise, full);
  return 0;
}
