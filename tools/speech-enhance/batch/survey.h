// The first walk through a manifest, before any work: what only all lines together tell.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "batch/batch_job.h"
#include "batch/manifest.h"
#include "batch/shard.h"

namespace se_tool {

struct Survey {
  ShardMap shards;
  // Lines whose result an earlier line has, with that line's number.
  std::unordered_map<std::uint64_t, std::uint64_t> repeated;
  // Hashes of recordings and references that lie in the output folder.
  std::unordered_set<std::uint64_t> inputs_among_results;
};

// Takes 16 bytes a line while it walks, to find results that two lines claim; what it returns takes
// little. Throws an Error (input) for an empty manifest.
Survey survey_manifest(ManifestReader& manifest, const BatchJobs& jobs, const Shard& shard);

// Which shard a line belongs to is decided by its path; lines without one belong together.
std::uint64_t shard_hash(const nlohmann::ordered_json& fields);

// A result's place among `inputs_among_results`.
std::uint64_t place_hash(const std::string& path);

}  // namespace se_tool
