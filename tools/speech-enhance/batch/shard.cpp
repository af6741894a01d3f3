#include "batch/shard.h"

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "command_line.h"

namespace se_tool {
namespace {

std::optional<int> environment_number(const char* name) {
  const char* text = std::getenv(name);
  if (text == nullptr) return std::nullopt;
  return parse_whole_number(text, name);
}

}  // namespace

std::uint64_t hash_text(std::string_view text) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001B3;
  }
  hash = (hash ^ (hash >> 33)) * 0xFF51AFD7ED558CCD;  // MurmurHash3's last step
  hash = (hash ^ (hash >> 33)) * 0xC4CEB9FE1A85EC53;
  return hash ^ (hash >> 33);
}

Shard parse_shard(const std::string& text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string::npos) usage_error("--shard: \"" + text + "\" is not of the form I/N");
  const int index = parse_whole_number(text.substr(0, slash), "--shard");
  const int count = parse_whole_number(text.substr(slash + 1), "--shard");
  if (index < 1 || index > count) {
    usage_error("--shard: \"" + text + "\" is not one of 1/N to N/N");
  }
  return {static_cast<std::size_t>(index - 1), static_cast<std::size_t>(count)};
}

Shard shard_from_environment() {
  const std::optional<int> task = environment_number("SLURM_ARRAY_TASK_ID");
  if (!task) return {};
  const int first = environment_number("SLURM_ARRAY_TASK_MIN").value_or(*task);
  const int last = environment_number("SLURM_ARRAY_TASK_MAX").value_or(*task);
  const int count = environment_number("SLURM_ARRAY_TASK_COUNT").value_or(1);
  const int step = environment_number("SLURM_ARRAY_TASK_STEP").value_or(1);
  if (step < 1 || *task < first || *task > last || (last - first) / step + 1 != count ||
      (*task - first) % step != 0) {
    usage_error(
        "this Slurm array has gaps, so that its size is not the number of shards: say "
        "--shard I/N");
  }
  return {static_cast<std::size_t>((*task - first) / step), static_cast<std::size_t>(count)};
}

ShardMap::ShardMap() : ranges_(std::size_t{1} << kBits) {}

void ShardMap::add(std::uint64_t hash, double duration_s) {
  Range& range = ranges_[range_of(hash)];
  range.duration_s += duration_s;
  ++range.lines;
}

void ShardMap::add_unknown(std::uint64_t hash) {
  Range& range = ranges_[range_of(hash)];
  ++range.lines;
  ++range.unknown;
}

void ShardMap::cut(const Shard& shard) {
  double known_s = 0;
  std::uint64_t known = 0;
  std::uint64_t unknown = 0;
  for (const Range& range : ranges_) {
    known_s += range.duration_s;
    known += range.lines - range.unknown;
    unknown += range.unknown;
  }
  typical_s_ = known > 0 && known_s > 0 ? known_s / static_cast<double>(known) : 1;
  const double total_s = known_s + typical_s_ * static_cast<double>(unknown);
  mine_.assign(ranges_.size(), false);
  double before_s = 0;
  for (std::size_t i = 0; i < ranges_.size(); ++i) {
    const Range& range = ranges_[i];
    const double length_s = range.duration_s + typical_s_ * range.unknown;
    const double part =
        (before_s + length_s / 2) / std::max(total_s, 1e-9) * static_cast<double>(shard.count);
    before_s += length_s;
    const auto index = std::min(shard.count - 1, static_cast<std::size_t>(part));
    if (index != shard.index) continue;
    mine_[i] = true;
    lines_ += range.lines;
    duration_s_ += length_s;
  }
  ranges_ = {};
}

}  // namespace se_tool
