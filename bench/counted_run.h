// What the programs that count instructions share: their command line, and a contender that is past
// its first frames.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "contenders.h"

namespace se_bench {

// A contender over the scene, or several that take turns frame by frame, as the engines of a
// process with many streams do. The frames to count follow on kWarmUpFrames others of each.
class CountedRun {
  static constexpr int kWarmUpFrames = 20;
  static constexpr int kSceneFrames = 1000;

 public:
  static constexpr int kMostFrames = kSceneFrames - kWarmUpFrames;

  // From the arguments FRAMES CONTENDER [HOW_MANY]. With others the program ends, saying what it
  // takes.
  CountedRun(int argc, char** argv) : scene_(kSceneFrames) {
    const ContenderKind* kind = argc >= 3 && argc <= 4 ? find_contender(argv[2]) : nullptr;
    const int how_many = argc == 4 ? std::atoi(argv[3]) : 1;
    frames_ = kind ? std::atoi(argv[1]) : -1;
    if (frames_ < 1 || frames_ > kMostFrames || how_many < 1) {
      std::fprintf(stderr, "usage: %s FRAMES CONTENDER [HOW_MANY], 1 to %d frames\n", argv[0],
                   kMostFrames);
      std::exit(2);
    }
    while (contenders_.size() < static_cast<std::size_t>(how_many)) {
      contenders_.push_back(kind->make());
      for (std::size_t i = 0; i < kWarmUpFrames; ++i) contenders_.back()->process(scene_.frame(i));
    }
  }

  int frames() const { return frames_; }
  Frame frame(int i) const { return scene_.frame(static_cast<std::size_t>(kWarmUpFrames + i)); }
  Contender& contender(int i = 0) {
    return *contenders_[static_cast<std::size_t>(i) % contenders_.size()];
  }

 private:
  Scene scene_;
  std::vector<std::unique_ptr<Contender>> contenders_;
  int frames_;
};

}  // namespace se_bench
