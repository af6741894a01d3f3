// JSON from anybody: presets, manifests.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace se_tool {

// Without surprises: no key twice in one object, where readers differ on which counts, and at most
// 16 levels, so that it takes no stack to walk. Throws an Error (input) that says what the text is
// or holds, behind which it may be named: "is not valid JSON: ...".
nlohmann::ordered_json parse_strictly(const std::string& text);

}  // namespace se_tool
