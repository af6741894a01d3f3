// Model files: the one that is compiled in, and what the reader refuses.
#include "nn/model_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "random_model.h"

namespace {

using namespace se::nn;

TEST(ModelFile, TheCompiledInModelIsValidAndTheRecordsPointIntoIt) {
  EXPECT_EQ(kModelFileBytes, 64u + 1054656u);
  EXPECT_EQ(crc32("123456789", 9), 0xcbf43926u);  // the usual one
  alignas(kModelAlignment) static unsigned char copy[kModelFileBytes];
  std::memcpy(copy, se_model_file, sizeof copy);
  ModelRecords records;
  ASSERT_EQ(open_model(copy, sizeof copy, &records), nullptr);

  // The records that the library links point where those that the reader builds do.
  const auto same = [&](const void* linked, const void* read) {
    return static_cast<const unsigned char*>(linked) - se_model_file ==
           static_cast<const unsigned char*>(read) - copy;
  };
  const DenoiseModel &linked = nn_denoise_model, &read = records.model;
  EXPECT_TRUE(same(linked.conv1->kernel, read.conv1->kernel));
  EXPECT_TRUE(same(linked.conv5->bias, read.conv5->bias));
  EXPECT_TRUE(same(linked.bn3->gmb, read.bn3->gmb));
  EXPECT_TRUE(same(linked.gru2_2->weight_hh, read.gru2_2->weight_hh));
  EXPECT_TRUE(same(linked.fc1->weight, read.fc1->weight));
  EXPECT_TRUE(same(linked.fc2->bias, read.fc2->bias));
  EXPECT_EQ(linked.conv1->kernel, reinterpret_cast<const std::int8_t*>(se_model_file + 64));
}

TEST(ModelFile, RefusesDamagedFiles) {
  RandomModel model(1);
  ASSERT_EQ(model.error(), nullptr);
  ModelRecords records;
  unsigned char* const file = model.file();
  const auto refusal = [&](std::size_t size = kModelFileBytes) {
    const char* error = open_model(file, size, &records);
    return std::string(error ? error : "none");
  };
  EXPECT_EQ(refusal(), "none");
  EXPECT_EQ(refusal(40), "not a denoiser model file");
  EXPECT_EQ(refusal(kModelFileBytes - 1), "a model file of the wrong size");
  const struct {
    std::size_t at;
    const char* error;
  } damages[] = {{0, "not a denoiser model file"},
                 {8, "a model file of another version"},
                 {12, "a model file of the wrong size"},
                 {16, "a damaged model file (wrong checksum)"},
                 {63, "a model file with a broken name"},
                 {64, "a damaged model file (wrong checksum)"},
                 {kModelFileBytes - 1, "a damaged model file (wrong checksum)"}};
  for (const auto& damage : damages) {
    file[damage.at] ^= 0x10;
    EXPECT_EQ(refusal(), damage.error) << "byte " << damage.at;
    file[damage.at] ^= 0x10;
  }
  EXPECT_EQ(refusal(), "none");
  const std::pair<const float*, std::string> tables[] = {
      {model.get()->conv1->kernel_scale, "conv1_kernel_scale"},
      {model.get()->bn3->gmb + 511, "bn3_bn_gmb"},
      {model.get()->gru2_1->bias_hh + 599, "gru2_1_bias_hh"},
      {model.get()->fc2->bias + 127, "fc2_bias"}};
  for (const auto& [value, name] : tables) {
    for (const float bad : {NAN, INFINITY, -INFINITY}) {
      const float good = *value;
      *RandomModel::writable(value) = bad;
      model.seal();
      EXPECT_EQ(refusal(), name + ": holds values that are not finite");
      *RandomModel::writable(value) = good;
    }
  }
  model.seal();
  EXPECT_EQ(refusal(), "none");
  const char* error = open_model(file + 1, kModelFileBytes, &records);
  EXPECT_STREQ(error, "the model must start on a 16-byte boundary");
}

}  // namespace
