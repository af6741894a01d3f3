// The manifest of a folder of recordings.
#pragma once

#include <cstddef>
#include <string>

namespace se_tool {

// Writes a line for each recording in `folder` and below it, in the order of their names, to
// `manifest` ("-": standard output), which appears whole or not at all. Hidden files and folders
// are left out, links to folders not followed. A line holds `path`, absolute; `out`, where its
// result goes in an output folder; and `duration`, unless the file cannot be read: then it is
// listed without, and fails when its turn comes. Names that are not UTF-8 cannot stand in a
// manifest: each is told on standard error. Returns how many. Throws an Error.
std::size_t write_manifest(const std::string& folder, const std::string& manifest);

}  // namespace se_tool
