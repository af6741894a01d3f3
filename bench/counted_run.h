// What the programs that count instructions share: their command line, and a contender that is past
// its first frames.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "contenders.h"

namespace se_bench {

// One contender over the scene. The frames to count follow on kWarmUpFrames others.
class CountedRun {
  static constexpr int kWarmUpFrames = 20;
  static constexpr int kSceneFrames = 1000;

 public:
  static constexpr int kMostFrames = kSceneFrames - kWarmUpFrames;

  // From the arguments FRAMES CONTENDER. With others the program ends, saying what it takes.
  CountedRun(int argc, char** argv) : scene_(kSceneFrames) {
    const ContenderKind* kind = argc == 3 ? find_contender(argv[2]) : nullptr;
    frames_ = argc == 3 ? std::atoi(argv[1]) : -1;
    if (!kind || frames_ < 1 || frames_ > kMostFrames) {
      std::fprintf(stderr, "usage: %s FRAMES CONTENDER, 1 to %d frames\n", argv[0], kMostFrames);
      std::exit(2);
    }
    contender_ = kind->make();
    for (std::size_t i = 0; i < kWarmUpFrames; ++i) contender_->process(scene_.frame(i));
  }

  int frames() const { return frames_; }
  Frame frame(int i) const { return scene_.frame(static_cast<std::size_t>(kWarmUpFrames + i)); }
  Contender& contender() { return *contender_; }

 private:
  Scene scene_;
  std::unique_ptr<Contender> contender_;
  int frames_;
};

}  // namespace se_bench
