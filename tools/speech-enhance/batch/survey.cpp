#include "batch/survey.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <vector>

#include "errors.h"
#include "signals.h"

namespace se_tool {
namespace {

struct Claim {
  std::uint64_t place;  // a hash
  std::uint64_t line;
};

}  // namespace

std::uint64_t shard_hash(const nlohmann::ordered_json& fields) {
  const auto path = fields.find("path");
  return hash_text(path != fields.end() && path->is_string() ? path->get<std::string>() : "");
}

std::uint64_t place_hash(const std::string& path) {
  return hash_text(std::filesystem::path(path).lexically_normal().string());
}

Survey survey_manifest(ManifestReader& manifest, const BatchJobs& jobs, const Shard& shard) {
  Survey survey;
  std::vector<Claim> claims;
  const std::string results = jobs.target_of({});
  const auto note_input = [&](const std::string& path) {
    const std::string place = std::filesystem::path(path).lexically_normal().string();
    if (place.compare(0, results.size(), results) == 0) {
      survey.inputs_among_results.insert(hash_text(place));
    }
  };
  for (ManifestLine line; manifest.next(line);) {
    throw_if_interrupted();
    const auto fields = nlohmann::ordered_json::parse(line.fields);
    const std::uint64_t hash = shard_hash(fields);
    try {
      const Entry entry = jobs.parse(fields);
      claims.push_back({place_hash(jobs.target_of(entry)), line.number});
      note_input(entry.path);
      note_input(entry.reference);
      if (entry.duration_s) {
        survey.shards.add(hash, *entry.duration_s);
      } else {
        survey.shards.add_unknown(hash);
      }
    } catch (const Error&) {
      survey.shards.add(hash, 0);  // refused when its turn comes
    }
  }
  survey.shards.cut(shard);

  std::sort(claims.begin(), claims.end(), [](const Claim& a, const Claim& b) {
    return a.place != b.place ? a.place < b.place : a.line < b.line;
  });
  std::uint64_t first = 0;
  for (std::size_t i = 0; i < claims.size(); ++i) {
    if (i == 0 || claims[i].place != claims[i - 1].place) {
      first = claims[i].line;
    } else {
      survey.repeated[claims[i].line] = first;
    }
  }
  return survey;
}

}  // namespace se_tool
