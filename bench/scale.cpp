// Many engines in one process, served round-robin one frame each, on one thread and on two: time
// per frame and bytes per engine as their number grows beyond the caches.
//
//   scale ROUNDS OUTPUT.json
#include <malloc.h>

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
constexpr int kMostFrames = 4096;  // per measurement, so that many engines do not take for ever

std::size_t allocated_bytes() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

double quantile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(q * static_cast<double>(values.size() - 1) + 0.5)];
}

// One round: every engine of the thread's share processes its next frame. Engines hear different
// parts of the scene.
void round_of(const std::vector<std::unique_ptr<Contender>>& engines, std::size_t first,
              std::size_t step, std::size_t frame, const Scene& scene) {
  for (std::size_t i = first; i < engines.size(); i += step) {
    engines[i]->process(scene.frame(frame + 37 * i));
  }
}

// Seconds of each of `rounds` rounds on `threads` threads that start each round together.
std::vector<double> time_rounds(const std::vector<std::unique_ptr<Contender>>& engines,
                                std::size_t threads, int rounds, const Scene& scene) {
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t running = 0;
  int started = 0;
  const auto worker = [&](std::size_t first) {
    for (int round = 1; round <= rounds; ++round) {
      {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return started >= round; });
      }
      round_of(engines, first, threads, static_cast<std::size_t>(round), scene);
      const std::lock_guard<std::mutex> lock(mutex);
      if (--running == 0) changed.notify_all();
    }
  };
  std::vector<std::thread> pool;
  for (std::size_t t = 0; t < threads; ++t) pool.emplace_back(worker, t);
  std::vector<double> seconds;
  for (int round = 1; round <= rounds; ++round) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto start = Clock::now();
    running = threads;
    started = round;
    changed.notify_all();
    changed.wait(lock, [&] { return running == 0; });
    seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
  }
  for (std::thread& thread : pool) thread.join();
  return seconds;
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
  std::vector<std::unique_ptr<Contender>> engines;
  const std::size_t bytes_before = allocated_bytes();
  for (int count = 1; count <= kMostEngines; count *= 2) {
    while (engines.size() < static_cast<std::size_t>(count)) engines.push_back(kind->make());
    const std::size_t bytes = (allocated_bytes() - bytes_before) / engines.size();
    for (std::size_t f = 0; f < 8; ++f) round_of(engines, 0, 1, f, scene);
    const int rounds = std::max(5, std::min(most_rounds, kMostFrames / count));
    for (const std::size_t threads : {1, 2}) {
      const auto seconds = time_rounds(engines, threads, rounds, scene);
      std::fprintf(
          output,
          "%s{\"engines\": %d, \"threads\": %zu, \"rounds\": %d, \"bytes_per_engine\": %zu, "
          "\"round_s\": {\"q1\": %.9f, \"median\": %.9f, \"q3\": %.9f}}",
          separator, count, threads, rounds, bytes, quantile(seconds, 0.25), quantile(seconds, 0.5),
          quantile(seconds, 0.75));
      separator = ",\n";
    }
  }
  std::fprintf(output, "\n]\n");
  return std::fclose(output) == 0 ? 0 : 1;
}
