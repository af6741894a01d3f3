// A model file with any words of it changed, cut anywhere, its checksum right or wrong. A model
// that the reader accepts runs for a few frames.
//
// Input: flags (1 = bring the checksum up to date, 2 = cut), how much to cut (two bytes), then
// changes: a place (four bytes, in the header if the highest bit is set) and the word that goes
// there.
#include <memory>
#include <vector>

#include "fuzz_target.h"
#include "nn/denoiser.h"
#include "nn/model_file.h"
#include "speechenhance/denoiser.h"

namespace {

using namespace se::nn;

constexpr int kBins = 257;
constexpr int kFrames = 7;  // the first five give nothing

alignas(kModelAlignment) unsigned char g_file[kModelFileBytes];

void change(se_fuzz::Input& input) {
  constexpr std::uint32_t kInHeader = 1u << 31;
  const auto place = input.take<std::uint32_t>();
  const std::size_t range = (place & kInHeader) != 0 ? kModelHeaderBytes : kModelFileBytes;
  const auto word = input.take<std::uint32_t>();
  std::memcpy(g_file + (place & ~kInHeader) % (range - 3), &word, sizeof word);
}

void seal() {
  const std::uint32_t checksum =
      crc32(g_file + kModelHeaderBytes, kModelFileBytes - kModelHeaderBytes);
  std::memcpy(g_file + 16, &checksum, sizeof checksum);
}

void run(const DenoiseModel* model) {
  const auto zeroed = [](std::uint32_t bytes) { return std::make_unique<char[]>(bytes); };
  const auto mem = zeroed(static_cast<std::uint32_t>(nn_query_mem_api()));
  const auto scratch = zeroed(static_cast<std::uint32_t>(nn_query_scratch_api()));
  void* state = init_denoiser(mem.get(), scratch.get(), model);
  std::vector<zel_lcomplex> mics(2 * kBins, {1.0f, -0.5f}), ref(kBins, {0.1f, 0.0f});
  std::vector<float> gain(kBins);
  for (int frame = 0; frame < kFrames; ++frame) {
    nn_process_api(state, mics.data(), ref.data(), gain.data(), true, false);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  se_fuzz::Input input(data, size);
  std::memcpy(g_file, se_model_file, sizeof g_file);
  const auto flags = input.take<std::uint8_t>();
  const auto cut = input.take<std::uint16_t>();
  while (!input.empty()) change(input);
  if ((flags & 1) != 0) seal();

  ModelRecords records;
  const std::size_t file_size = kModelFileBytes - ((flags & 2) != 0 ? cut : 0);
  // A copy of the exact size, so that the sanitizers see a read behind the end.
  const std::vector<unsigned char> file(g_file, g_file + file_size);
  if (open_model(file.data(), file.size(), &records) == nullptr) run(&records.model);
  return 0;
}
