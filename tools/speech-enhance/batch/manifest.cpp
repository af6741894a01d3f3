#include "batch/manifest.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "command_line.h"
#include "errors.h"
#include "strict_json.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

[[noreturn]] void fail(const std::string& what) {
  throw Error(ExitCode::kInput, what);
}

bool is_blank(const std::string& text) {
  return text.find_first_not_of(" \t\r") == std::string::npos;
}

std::vector<std::string> split_at_tabs(const std::string& text) {
  std::vector<std::string> cells;
  std::size_t start = 0;
  for (std::size_t tab; (tab = text.find('\t', start)) != std::string::npos; start = tab + 1) {
    cells.push_back(text.substr(start, tab - start));
  }
  cells.push_back(text.substr(start));
  return cells;
}

Json parse_object(const std::string& text) {
  Json object = parse_strictly(text);
  if (!object.is_object()) fail("is not a JSON object");
  return object;
}

Json parse_row(const std::string& text, const std::vector<std::string>& columns) {
  const std::vector<std::string> cells = split_at_tabs(text);
  if (cells.size() != columns.size()) {
    fail("has " + std::to_string(cells.size()) + " cells, the first line names " +
         std::to_string(columns.size()) + " columns");
  }
  Json object = Json::object();
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (!cells[i].empty()) object[columns[i]] = cells[i];
  }
  return object;
}

std::string dump(const Json& fields) {
  try {
    return fields.dump();
  } catch (const Json::type_error&) {
    fail("is not UTF-8");
  }
}

std::optional<std::string> text_field(const Json& fields, const char* name) {
  const auto field = fields.find(name);
  if (field == fields.end() || field->is_null()) return std::nullopt;
  if (!field->is_string()) fail(std::string("`") + name + "` is not a text");
  const auto& text = field->get_ref<const std::string&>();
  if (text.empty()) fail(std::string("`") + name + "` is empty");
  if (text.find('\0') != std::string::npos) fail(std::string("`") + name + "` holds a NUL");
  return text;
}

// Seconds. TSV has texts only.
std::optional<double> seconds_field(const Json& fields, const char* name) {
  const auto field = fields.find(name);
  if (field == fields.end() || field->is_null()) return std::nullopt;
  double value = 0;
  if (field->is_number()) {
    value = field->get<double>();
  } else if (field->is_string()) {
    try {
      value = parse_number(field->get<std::string>(), std::string("`") + name + "`");
    } catch (const Error& error) {
      fail(error.what());
    }
  } else {
    fail(std::string("`") + name + "` is not a number");
  }
  constexpr double kMost = 1e9;  // 30 years
  if (!(value >= 0 && value <= kMost)) fail(std::string("`") + name + "` is out of range");
  return value;
}

std::string milliseconds(double seconds) {
  return std::to_string(std::llround(seconds * 1000));
}

// Whether the path stays where it starts.
bool stays_inside(const fs::path& path) {
  if (path.is_absolute()) return false;
  int depth = 0;
  for (const fs::path& part : path) {
    if (part == "..") {
      if (--depth < 0) return false;
    } else if (!part.empty() && part != ".") {
      ++depth;
    }
  }
  return depth > 0;
}

fs::path resolve_out(const Json& fields, const std::string& path, const std::string& suffix) {
  const std::optional<std::string> given = text_field(fields, "out");
  const fs::path wanted = given ? fs::path(*given) : fs::path(path).relative_path();
  if (!stays_inside(wanted) || wanted.filename().empty() || wanted.filename() == "." ||
      wanted.filename() == "..") {
    fail(given ? "`out` leads out of the output folder or names no file"
               : "`path` leads out of the output folder, so that it needs an `out`");
  }
  fs::path out = wanted.lexically_normal();
  if (has_audio_suffix(out.string())) out.replace_extension();
  if (const auto offset = seconds_field(fields, "offset"); !given && offset) {
    out += "-" + milliseconds(*offset);  // parts of one recording are told apart
  }
  if (out.filename().string().front() == '.') fail("`out` would be a hidden file");
  return out += suffix;
}

}  // namespace

ManifestReader::ManifestReader(const std::string& path)
    : name_(path == kStream ? "standard input" : path) {
  std::string readable = path;
  std::error_code ignored;
  folder_ = fs::absolute(path == kStream ? "." : fs::path(path).parent_path(), ignored).string();
  if (path == kStream || !is_regular_file(path)) {
    const Descriptor source(path == kStream ? dup(STDIN_FILENO)
                                            : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!source.is_open()) {
      throw Error(ExitCode::kInput, name_ + ": cannot be opened: " + system_message(errno));
    }
    copy_.emplace();
    try {
      copy_->fill_from(source.get(), kMostInputBytes);
    } catch (const Error& error) {
      throw Error(error.code(), name_ + ": " + error.what());
    }
    readable = copy_->path();
  }
  file_.open(readable, std::ios::binary);
  if (!file_) throw Error(ExitCode::kInput, name_ + ": cannot be opened");
  rewind();
}

void ManifestReader::rewind() {
  file_.clear();
  file_.seekg(0);
  number_ = 0;
  read_header();
}

// JSON lines begin with a brace; anything else is the first line of a TSV.
void ManifestReader::read_header() {
  columns_.clear();
  std::string text;
  if (!next_text(text)) throw Error(ExitCode::kInput, name_ + ": the manifest is empty");
  if (text[text.find_first_not_of(" \t")] == '{') {
    file_.clear();
    file_.seekg(0);
    number_ = 0;
    return;
  }
  columns_ = split_at_tabs(text);
  std::set<std::string> seen;
  bool names_path = false;
  for (const std::string& column : columns_) {
    names_path = names_path || column == "path";
    if (!seen.insert(column).second) {
      throw Error(ExitCode::kInput, name_ + ": names the column \"" + column + "\" twice");
    }
  }
  if (!names_path || too_long_) {
    throw Error(ExitCode::kInput, name_ +
                                      ": neither JSON lines nor a TSV whose first line names the "
                                      "columns, `path` among them");
  }
}

bool ManifestReader::next_text(std::string& text) {
  do {
    text.clear();
    too_long_ = false;
    int c;
    while ((c = file_.rdbuf()->sbumpc()) != EOF && c != '\n') {
      too_long_ = too_long_ || text.size() >= kLongestLine;
      if (!too_long_) text.push_back(static_cast<char>(c));
    }
    if (c == EOF && text.empty()) return false;
    ++number_;
    if (!text.empty() && text.back() == '\r') text.pop_back();
  } while (is_blank(text) && !too_long_);
  return true;
}

bool ManifestReader::next(ManifestLine& line) {
  std::string text;
  if (!next_text(text)) return false;
  line = {number_, "", ""};
  try {
    if (too_long_) fail("is longer than " + std::to_string(kLongestLine) + " bytes");
    line.fields = dump(columns_.empty() ? parse_object(text) : parse_row(text, columns_));
  } catch (const Error& error) {
    line.fields = Json{{"line", number_}}.dump();
    line.error =
        "line " + std::to_string(number_) + " of the manifest " + std::string(error.what());
  }
  return true;
}

Entry parse_entry(const Json& fields, const std::string& folder, const std::string& suffix) {
  const std::optional<std::string> path = text_field(fields, "path");
  if (!path) fail("has no `path`");
  Entry entry;
  entry.path = (fs::path(folder) / *path).string();
  if (const auto reference = text_field(fields, "reference")) {
    entry.reference = (fs::path(folder) / *reference).string();
  }
  entry.offset_s = seconds_field(fields, "offset").value_or(0);
  entry.duration_s = seconds_field(fields, "duration");
  if (entry.duration_s == 0.0) fail("`duration` is 0");
  entry.out = resolve_out(fields, *path, suffix).string();
  return entry;
}

}  // namespace se_tool
