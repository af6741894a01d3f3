#include "strict_json.h"

#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "errors.h"

namespace se_tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kMostLevels = 16;

[[noreturn]] void fail(const std::string& what) {
  throw Error(ExitCode::kInput, what);
}

}  // namespace

Json parse_strictly(const std::string& text) {
  std::vector<std::set<std::string>> keys;  // of the objects that are open
  const auto check = [&keys](int level, Json::parse_event_t event, const Json& parsed) {
    const bool is_object = event == Json::parse_event_t::object_start;
    if ((is_object || event == Json::parse_event_t::array_start) && level >= kMostLevels) {
      fail("is nested deeper than " + std::to_string(kMostLevels) + " levels");
    }
    if (is_object) {
      keys.emplace_back();
    } else if (event == Json::parse_event_t::object_end) {
      keys.pop_back();
    } else if (event == Json::parse_event_t::key &&
               !keys.back().insert(parsed.get<std::string>()).second) {
      fail("has the key " + parsed.dump() + " twice in one object");
    }
    return true;
  };
  try {
    return Json::parse(text, check);
  } catch (const Json::exception& error) {
    const std::string reason = error.what();  // behind a name in brackets
    fail("is not valid JSON: " + reason.substr(reason.find("] ") + 2));
  }
}

}  // namespace se_tool
