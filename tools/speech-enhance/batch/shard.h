// Which part of a manifest a process works on.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace se_tool {

// The same on every machine: FNV-1a, its bits mixed so that all of them depend on all of the text.
std::uint64_t hash_text(std::string_view text);

// Part `index` (from 0) of `count`.
struct Shard {
  std::size_t index = 0;
  std::size_t count = 1;
};

// From "i/n", 1/n to n/n. Throws an Error (usage).
Shard parse_shard(const std::string& text);

// The part that belongs to this task of a Slurm array, by its environment variables; all of the
// manifest outside arrays. Throws an Error (usage) for an array with gaps: there the variables do
// not tell how many parts there are.
Shard shard_from_environment();

// Cuts a manifest into parts of about the same duration. Paths are put in the order of their hash
// and cut where the sum of their durations reaches the next n-th of all: a path's part depends only
// on the manifest and n, and parts differ by no more than their longest recording. In memory lies
// the sum of each of 2^18 ranges of the hash, however long the manifest.
class ShardMap {
 public:
  ShardMap();

  // Every line, first. Lines without a duration count as long as the average of the others.
  void add(std::uint64_t hash, double duration_s);
  void add_unknown(std::uint64_t hash);

  // After the last line.
  void cut(const Shard& shard);

  bool contains(std::uint64_t hash) const { return mine_[range_of(hash)]; }
  std::uint64_t lines() const { return lines_; }     // in this shard
  double duration_s() const { return duration_s_; }  // of this shard
  double typical_s() const { return typical_s_; }    // of a line without a duration

 private:
  struct Range {
    double duration_s = 0;
    std::uint32_t lines = 0;
    std::uint32_t unknown = 0;
  };

  static constexpr int kBits = 18;
  static std::size_t range_of(std::uint64_t hash) { return hash >> (64 - kBits); }

  std::vector<Range> ranges_;
  std::vector<bool> mine_;
  std::uint64_t lines_ = 0;
  double duration_s_ = 0;
  double typical_s_ = 0;
};

}  // namespace se_tool
