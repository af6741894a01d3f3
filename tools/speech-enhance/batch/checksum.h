// Checksums of results.
#pragma once

#include <string>

namespace se_tool {

// SHA-256 of a file's content in hexadecimal, as sha256sum prints it; empty if it cannot be read.
std::string sha256_of_file(const std::string& path);

}  // namespace se_tool
