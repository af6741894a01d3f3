// The results of a batch in figures.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace se_tool {

// One recording as its line of results tells of it.
struct ResultRecord {
  std::string name;       // its place in the output folder
  std::string source;     // the recording; absolute
  std::string reference;  // as in the manifest; empty: none
  std::string result;     // the file
  double offset_s = 0;
  double duration_s = 0;
};

// A recording that stands out, and by how much: its distance from the median in units of half the
// range that holds the middle half of all.
struct Standout {
  double value = 0;
  double distance = 0;
  ResultRecord record;
};

// How one figure is distributed. Bins are `step` wide from `low`; the first and the last also hold
// what lies beyond.
class Distribution {
 public:
  struct Scale {
    const char* field;  // of a line of results
    const char* title;
    const char* unit;
    double low, high, step;
    int digits;
  };

  explicit Distribution(const Scale& scale);

  void add(double value, const ResultRecord& record);

  const Scale& scale() const { return scale_; }
  const std::vector<std::uint64_t>& bins() const { return bins_; }
  std::uint64_t count() const { return count_; }
  double mean() const { return count_ > 0 ? sum_ / static_cast<double>(count_) : 0; }
  double quantile(double part) const;       // within half a step
  std::vector<Standout> strangest() const;  // the farthest from the median first

 private:
  static constexpr std::size_t kKept = 6;  // at either end

  Scale scale_;
  std::vector<std::uint64_t> bins_;
  std::uint64_t count_ = 0;
  double sum_ = 0;
  std::vector<Standout> lowest_, highest_;  // sorted, the extreme first
};

struct Summary {
  std::uint64_t cleaned = 0;
  std::uint64_t failed = 0;
  std::uint64_t clipped = 0;        // results with clipped samples
  std::uint64_t silent_inputs = 0;  // digitally silent recordings
  std::uint64_t silenced = 0;       // recordings with sound whose results have none
  std::uint64_t cut_short = 0;      // recordings that lack samples that they announce
  std::uint64_t broken_lines = 0;   // of the results
  double audio_s = 0;
  double engine_s = 0;
  struct Reason {
    std::uint64_t count = 0;
    std::vector<std::string> examples;
  };
  std::map<std::string, Reason> reasons;          // of failures, without numbers and names
  std::map<std::string, std::uint64_t> settings;  // version and settings, with how many results
  std::vector<Distribution> distributions;
  std::vector<ResultRecord> silenced_examples;
  std::vector<ResultRecord> sample;  // by their hash: chosen by nobody, the same every time
};

// Reads results manifests. Where several lines speak of one result, one that has a result counts,
// or else the last. Takes some tens of bytes of memory for each line. Throws an Error (input) for
// files that cannot be read or hold no results.
Summary summarise_results(const std::vector<std::string>& files, std::size_t sample);

nlohmann::ordered_json summary_json(const Summary& summary);

// An error's kind: what its names and numbers are replaced by makes equal what differs in them
// only.
std::string reason_of(const std::string& error);

}  // namespace se_tool
