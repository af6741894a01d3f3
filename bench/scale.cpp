// Many engines in one process, served round-robin one frame each, by one thread and by one for
// every core: time of the CPU and of the wall clock per frame and bytes per engine, as their number
// grows beyond the caches. The most engines are also served several frames at a turn.
//
//   scale ROUNDS OUTPUT.json
#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "contenders.h"

namespace {

using namespace se_bench;
using Clock = std::chrono::steady_clock;

constexpr int kSceneFrames = 1500;
constexpr int kMostEngines = 512;
constexpr int kMostPerTurn = 8;
constexpr int kMostFrames = 16384;  // per measurement, so that many engines do not take for ever

std::size_t allocated_bytes() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

double quantile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(q * static_cast<double>(values.size() - 1) + 0.5)];
}

// One round: every engine of the thread's share processes its next frames. Engines hear different
// parts of the scene.
void round_of(const std::vector<std::unique_ptr<Contender>>& engines, std::size_t first,
              std::size_t step, std::size_t frame, std::size_t per_turn, const Scene& scene) {
  for (std::size_t i = first; i < engines.size(); i += step) {
    for (std::size_t f = 0; f < per_turn; ++f) {
      engines[i]->process(scene.frame(frame * per_turn + f + 37 * i));
    }
  }
}

double thread_cpu_seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// Microseconds per frame, one value per round; the CPU's are those of all threads together.
struct Timing {
  std::vector<double> cpu, wall;
};

// Serves all engines `rounds` times on `threads` threads that start each round together.
Timing time_rounds(const std::vector<std::unique_ptr<Contender>>& engines, std::size_t threads,
                   std::size_t per_turn, int rounds, const Scene& scene) {
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t running = 0;
  int started = 0;
  double cpu = 0.0;
  const auto worker = [&](std::size_t first) {
    for (int round = 1; round <= rounds; ++round) {
      {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return started >= round; });
      }
      const double before = thread_cpu_seconds();
      round_of(engines, first, threads, static_cast<std::size_t>(round), per_turn, scene);
      const double used = thread_cpu_seconds() - before;
      const std::lock_guard<std::mutex> lock(mutex);
      cpu += used;
      if (--running == 0) changed.notify_all();
    }
  };
  std::vector<std::thread> pool;
  for (std::size_t t = 0; t < threads; ++t) pool.emplace_back(worker, t);
  Timing timing;
  const double per_frame = 1e6 / static_cast<double>(engines.size() * per_turn);
  for (int round = 1; round <= rounds; ++round) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto start = Clock::now();
    cpu = 0.0;
    running = threads;
    started = round;
    changed.notify_all();
    changed.wait(lock, [&] { return running == 0; });
    timing.wall.push_back(per_frame * std::chrono::duration<double>(Clock::now() - start).count());
    timing.cpu.push_back(per_frame * cpu);
  }
  for (std::thread& thread : pool) thread.join();
  return timing;
}

}  // namespace

int main(int argc, char** argv) {
  const int most_rounds = argc == 3 ? std::atoi(argv[1]) : 0;
  std::FILE* const output = most_rounds > 0 ? std::fopen(argv[2], "w") : nullptr;
  if (!output) {
    std::fprintf(stderr, "usage: scale ROUNDS OUTPUT.json\n");
    return 2;
  }
  const Scene scene(kSceneFrames);
  const ContenderKind* const kind = find_contender("full");
  std::fprintf(output, "[");
  const char* separator = "\n";
  const std::size_t cores = std::max(2u, std::thread::hardware_concurrency());
  std::vector<std::unique_ptr<Contender>> engines;
  const std::size_t bytes_before = allocated_bytes();
  for (int count = 1; count <= kMostEngines; count *= 2) {
    while (engines.size() < static_cast<std::size_t>(count)) engines.push_back(kind->make());
    const std::size_t bytes = (allocated_bytes() - bytes_before) / engines.size();
    for (std::size_t f = 0; f < 8; ++f) round_of(engines, 0, 1, f, 1, scene);
    const auto measure = [&](std::size_t threads, int per_turn) {
      const int rounds = std::max(5, std::min(most_rounds, kMostFrames / (count * per_turn)));
      const Timing timing =
          time_rounds(engines, threads, static_cast<std::size_t>(per_turn), rounds, scene);
      std::fprintf(
          output,
          "%s{\"engines\": %d, \"threads\": %zu, \"frames_per_turn\": %d, \"rounds\": %d, "
          "\"bytes_per_engine\": %zu, "
          "\"cpu_us\": {\"q1\": %.3f, \"median\": %.3f, \"q3\": %.3f}, \"fastest_wall_us\": %.3f}",
          separator, count, threads, per_turn, rounds, bytes, quantile(timing.cpu, 0.25),
          quantile(timing.cpu, 0.5), quantile(timing.cpu, 0.75), quantile(timing.wall, 0.0));
      separator = ",\n";
    };
    for (const std::size_t threads : {std::size_t{1}, cores}) measure(threads, 1);
    if (count < kMostEngines) continue;
    for (int per_turn = 2; per_turn <= kMostPerTurn; per_turn *= 2) measure(1, per_turn);
  }
  std::fprintf(output, "\n]\n");
  return std::fclose(output) == 0 ? 0 : 1;
}
