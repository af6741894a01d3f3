#include "batch/checksum.h"

#include <fcntl.h>
#include <nettle/sha2.h>
#include <unistd.h>

#include <array>

#include "files.h"

namespace se_tool {

std::string sha256_of_file(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.is_open()) return "";
  sha256_ctx context;
  sha256_init(&context);
  std::array<std::uint8_t, 1 << 16> buffer;
  ssize_t count;
  while ((count = read(file.get(), buffer.data(), buffer.size())) > 0) {
    sha256_update(&context, static_cast<std::size_t>(count), buffer.data());
  }
  if (count < 0) return "";
  std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest;
  sha256_digest(&context, digest.size(), digest.data());
  std::string text;
  for (const std::uint8_t byte : digest) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return text;
}

}  // namespace se_tool
