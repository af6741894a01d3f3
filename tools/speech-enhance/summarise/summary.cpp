#include "summarise/summary.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "batch/results.h"
#include "batch/shard.h"
#include "errors.h"
#include "signals.h"
#include "speechenhance/speechenhance.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr std::size_t kExamples = 5;
constexpr const char* kClippedShare = "clipped";

constexpr Distribution::Scale kScales[] = {
    {"level_in_dbfs", "Level before", "dBFS", -80, 0, 2, 1},
    {"level_out_dbfs", "Level after", "dBFS", -80, 0, 2, 1},
    {"background_in_dbfs", "Noise floor before", "dBFS", -120, 0, 3, 1},
    {"background_out_dbfs", "Noise floor after", "dBFS", -120, 0, 3, 1},
    {"attenuation_db", "Attenuation", "dB", -10, 50, 1.5, 1},
    {"echo_reduction_db", "Echo reduction", "dB", -10, 70, 2, 1},
    {kClippedShare, "Clipped samples, of results that clip", "‰", 0, 20, 0.5, 2},
    {"duration_s", "Duration", "s", 0, 30, 0.75, 2},
};

// NaN if the line has none: silence has no level.
double number_in(const Json& line, const std::string& field) {
  if (field == kClippedShare) {
    const double clipped = number_in(line, "clipped_samples");
    const double samples = number_in(line, "duration_s") * SE_SAMPLE_RATE;
    return clipped > 0 ? 1000 * clipped / samples : NAN;
  }
  const auto found = line.find(field);
  return found != line.end() && found->is_number() ? found->get<double>() : NAN;
}

ResultRecord record_of(const Json& line, const fs::path& folder) {
  ResultRecord record;
  record.name = text_in(line, "out");
  if (record.name.empty()) record.name = text_in(line, "path");
  if (record.name.empty()) record.name = "line " + line.value("line", Json(0)).dump();
  record.source = text_in(line, "source");
  record.reference = text_in(line, "reference");
  record.result = (folder / text_in(line, "out")).string();
  const Json offset = line.value("offset", Json(0));
  record.offset_s = offset.is_string()   ? std::atof(offset.get<std::string>().c_str())
                    : offset.is_number() ? offset.get<double>()
                                         : 0;
  record.duration_s = number_in(line, "duration_s");
  return record;
}

// Every line of the files, in order, with its number over all files.
void for_each_line(const std::vector<std::string>& files,
                   const std::function<void(std::uint64_t, const std::string& line,
                                            const std::string& file)>& use) {
  std::uint64_t number = 0;
  for (const std::string& name : files) {
    std::ifstream file(name, std::ios::binary);
    if (!file || fs::is_directory(name)) {
      throw Error(ExitCode::kInput, name + ": cannot be read");
    }
    for (std::string line; std::getline(file, line); ++number) {
      throw_if_interrupted();
      if (!line.empty()) use(number, line, name);
    }
  }
}

// Which line counts for each result.
class Choice {
 public:
  explicit Choice(const std::vector<std::string>& files) {
    for_each_line(files,
                  [this](std::uint64_t number, const std::string& line, const std::string& file) {
                    const std::string key = results_key(line);
                    if (key.empty()) return;
                    const Line candidate = {line.find("\"sha256\":") != std::string::npos, number};
                    Line& chosen = chosen_.emplace(hash_of(key, file), candidate).first->second;
                    if (candidate.is_result >= chosen.is_result) chosen = candidate;
                  });
  }

  bool contains(std::uint64_t number, const std::string& key, const std::string& file) const {
    const auto found = chosen_.find(hash_of(key, file));
    return found != chosen_.end() && found->second.number == number;
  }

 private:
  struct Line {
    bool is_result;
    std::uint64_t number;
  };

  static std::uint64_t hash_of(const std::string& key, const std::string& file) {
    return hash_text(fs::path(file).parent_path().string() + "\n" + key);
  }

  std::unordered_map<std::uint64_t, Line> chosen_;
};

void keep(std::vector<ResultRecord>& records, const ResultRecord& record) {
  if (records.size() < kExamples) records.push_back(record);
}

// The `size` records with the smallest hashes.
class Sample {
 public:
  explicit Sample(std::size_t size) : size_(size) {}

  void offer(const ResultRecord& record) {
    if (size_ == 0) return;
    records_.emplace(hash_text("sample " + record.result), record);
    if (records_.size() > size_) records_.erase(std::prev(records_.end()));
  }

  std::vector<ResultRecord> take() const {
    std::vector<ResultRecord> records;
    for (const auto& [hash, record] : records_) records.push_back(record);
    return records;
  }

 private:
  std::size_t size_;
  std::map<std::uint64_t, ResultRecord> records_;
};

void add_failure(Summary& summary, const Json& line, const ResultRecord& record) {
  ++summary.failed;
  Summary::Reason& reason = summary.reasons[reason_of(text_in(line, "error"))];
  ++reason.count;
  if (reason.examples.size() < kExamples) {
    reason.examples.push_back(record.name + ": " + text_in(line, "error"));
  }
}

void add_result(Summary& summary, const Json& line, const ResultRecord& record) {
  ++summary.cleaned;
  summary.audio_s += std::max(0.0, record.duration_s);
  const double engine_s = number_in(line, "engine_s");
  if (std::isfinite(engine_s)) summary.engine_s += engine_s;
  if (number_in(line, "clipped_samples") > 0) ++summary.clipped;
  if (line.contains("missing_bytes")) ++summary.cut_short;
  if (std::isnan(number_in(line, "level_in_dbfs"))) {
    ++summary.silent_inputs;
  } else if (std::isnan(number_in(line, "level_out_dbfs"))) {
    ++summary.silenced;
    keep(summary.silenced_examples, record);
  }
  ++summary.settings[text_in(line, "version") + ", " + line.value("settings", Json()).dump()];
  for (Distribution& distribution : summary.distributions) {
    const double value = number_in(line, distribution.scale().field);
    if (std::isfinite(value)) distribution.add(value, record);
  }
}

}  // namespace

Distribution::Distribution(const Scale& scale)
    : scale_(scale),
      bins_(static_cast<std::size_t>(std::lround((scale.high - scale.low) / scale.step))) {}

void Distribution::add(double value, const ResultRecord& record) {
  const auto last = static_cast<double>(bins_.size() - 1);
  const double place = std::clamp((value - scale_.low) / scale_.step, 0.0, last);
  ++bins_[static_cast<std::size_t>(place)];
  ++count_;
  sum_ += value;
  const auto insert = [&](std::vector<Standout>& kept, auto before) {
    if (kept.size() == kKept && !before(value, kept.back().value)) return;
    const auto place_in = std::find_if(kept.begin(), kept.end(), [&](const Standout& other) {
      return before(value, other.value);
    });
    kept.insert(place_in, {value, 0, record});
    if (kept.size() > kKept) kept.pop_back();
  };
  insert(lowest_, std::less<>());
  insert(highest_, std::greater<>());
}

double Distribution::quantile(double part) const {
  double below = 0;
  for (std::size_t i = 0; i < bins_.size(); ++i) {
    below += static_cast<double>(bins_[i]);
    if (below >= part * static_cast<double>(count_) && below > 0) {
      return scale_.low + (static_cast<double>(i) + 0.5) * scale_.step;
    }
  }
  return scale_.low;
}

std::vector<Standout> Distribution::strangest() const {
  const double median = quantile(0.5);
  const double spread = std::max(scale_.step, (quantile(0.75) - quantile(0.25)) / 2);
  std::vector<Standout> all = highest_;
  for (const Standout& low : lowest_) {
    const bool is_high = std::any_of(highest_.begin(), highest_.end(), [&](const Standout& high) {
      return high.record.result == low.record.result;
    });
    if (!is_high) all.push_back(low);
  }
  for (Standout& standout : all) standout.distance = std::abs(standout.value - median) / spread;
  std::stable_sort(all.begin(), all.end(),
                   [](const Standout& a, const Standout& b) { return a.distance > b.distance; });
  all.resize(std::min(all.size(), kExamples));
  return all;
}

std::string reason_of(const std::string& error) {
  std::string reason;
  std::size_t i = 0;
  while (i < error.size()) {
    std::size_t end = std::min(error.find(' ', i), error.size());
    const std::string word = error.substr(i, end - i);
    if (word.find('/') != std::string::npos) {
      reason += "…";
    } else if (word.find_first_of("0123456789") != std::string::npos) {
      for (std::size_t k = 0; k < word.size(); ++k) {
        const auto in_number = [&](std::size_t at) {
          return std::isdigit(static_cast<unsigned char>(word[at])) != 0 || word[at] == '.';
        };
        if (!in_number(k)) {
          reason += word[k];
        } else if (k == 0 || !in_number(k - 1)) {
          reason += "N";
        }
      }
    } else {
      reason += word;
    }
    if (end < error.size()) reason += ' ';
    i = end + 1;
  }
  return reason;
}

Summary summarise_results(const std::vector<std::string>& files, std::size_t sample) {
  const Choice choice(files);
  Summary summary;
  for (const Distribution::Scale& scale : kScales) summary.distributions.emplace_back(scale);
  Sample chosen(sample);
  for_each_line(files, [&](std::uint64_t number, const std::string& text, const std::string& file) {
    const std::string key = results_key(text);
    if (key.empty()) {
      ++summary.broken_lines;
      return;
    }
    if (!choice.contains(number, key, file)) return;
    const Json line = Json::parse(text);
    const ResultRecord record = record_of(line, fs::path(file).parent_path());
    if (line.contains("error")) {
      add_failure(summary, line, record);
    } else {
      add_result(summary, line, record);
      chosen.offer(record);
    }
  });
  if (summary.cleaned + summary.failed == 0) {
    throw Error(ExitCode::kInput, "no results of speech-enhance batch in " + files.front() +
                                      (files.size() > 1 ? " and the others" : ""));
  }
  summary.sample = chosen.take();
  return summary;
}

Json summary_json(const Summary& summary) {
  Json root = {{"files", summary.cleaned + summary.failed},
               {"cleaned", summary.cleaned},
               {"failed", summary.failed},
               {"hours", summary.audio_s / 3600},
               {"engine_core_hours", summary.engine_s / 3600},
               {"results_that_clip", summary.clipped},
               {"silent_inputs", summary.silent_inputs},
               {"silenced", summary.silenced},
               {"cut_short", summary.cut_short},
               {"broken_lines", summary.broken_lines}};
  root["failures"] = Json::array();
  for (const auto& [reason, failures] : summary.reasons) {
    root["failures"].push_back(
        {{"reason", reason}, {"count", failures.count}, {"examples", failures.examples}});
  }
  root["settings"] = summary.settings;
  root["distributions"] = Json::array();
  for (const Distribution& distribution : summary.distributions) {
    const Distribution::Scale& scale = distribution.scale();
    Json entry = {{"figure", scale.field},
                  {"title", scale.title},
                  {"unit", scale.unit},
                  {"count", distribution.count()}};
    if (distribution.count() > 0) {
      entry["mean"] = distribution.mean();
      for (const auto& [name, part] :
           {std::pair{"p5", 0.05}, {"p25", 0.25}, {"median", 0.5}, {"p75", 0.75}, {"p95", 0.95}}) {
        entry[name] = distribution.quantile(part);
      }
    }
    entry["low"] = scale.low;
    entry["step"] = scale.step;
    entry["bins"] = distribution.bins();
    entry["strangest"] = Json::array();
    for (const Standout& standout : distribution.strangest()) {
      entry["strangest"].push_back({{"out", standout.record.name},
                                    {"source", standout.record.source},
                                    {"value", standout.value},
                                    {"distance", standout.distance}});
    }
    root["distributions"].push_back(entry);
  }
  return root;
}

}  // namespace se_tool
