// Model files: the one that is compiled in, and what the reader refuses.
#include "nn/model_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "random_model.h"

namespace {

using namespace se::nn;

TEST(ModelFile, TheCompiledInModelIsValidAndTheRecordsPointIntoIt) {
  EXPECT_EQ(model_table_bytes(), 1054656u);
  alignas(kModelAlignment) static unsigned char copy[kModelFileBytes];
  std::memcpy(copy, se_model_file, sizeof copy);
  ModelRecords records;
  ASSERT_EQ(open_model(copy, sizeof copy, &records), nullptr);

  // The records that the library links equal those that the reader builds, table by table.
  const DenoiseModel& linked = nn_denoise_model;
  const DenoiseModel& read = records.model;
  const auto same = [&](const void* a, const void* b) {
    return static_cast<const unsigned char*>(a) - se_model_file ==
           static_cast<const unsigned char*>(b) - copy;
  };
  const Conv2DLayer* const convs[][2] = {{linked.conv1, read.conv1},
                                         {linked.conv2, read.conv2},
                                         {linked.conv3, read.conv3},
                                         {linked.conv4, read.conv4},
                                         {linked.conv5, read.conv5}};
  for (const auto& [a, b] : convs) {
    EXPECT_TRUE(same(a->kernel, b->kernel) && same(a->kernel_scale, b->kernel_scale) &&
                same(a->bias, b->bias));
    EXPECT_EQ(a->out_channels, b->out_channels);
    EXPECT_EQ(a->activation, 3);
  }
  const BNLayer* const norms[][2] = {{linked.bn1, read.bn1},
                                     {linked.bn2, read.bn2},
                                     {linked.bn3, read.bn3},
                                     {linked.bn4, read.bn4},
                                     {linked.bn5, read.bn5}};
  for (const auto& [a, b] : norms) {
    EXPECT_TRUE(same(a->gamma_var, b->gamma_var) && same(a->gmb, b->gmb));
    EXPECT_EQ(a->width, b->width);
  }
  const GRULayer* const grus[][2] = {{linked.gru1_1, read.gru1_1},
                                     {linked.gru1_2, read.gru1_2},
                                     {linked.gru2_1, read.gru2_1},
                                     {linked.gru2_2, read.gru2_2}};
  for (const auto& [a, b] : grus) {
    EXPECT_TRUE(same(a->weight_ih, b->weight_ih) && same(a->weight_hh, b->weight_hh) &&
                same(a->bias_ih, b->bias_ih) && same(a->bias_hh, b->bias_hh));
    EXPECT_EQ(a->input_size, b->input_size);
    EXPECT_EQ(a->hidden_size, 200);
  }
  const FCLayer* const heads[][2] = {{linked.fc1, read.fc1}, {linked.fc2, read.fc2}};
  for (const auto& [a, b] : heads) {
    EXPECT_TRUE(same(a->weight, b->weight) && same(a->weight_scale, b->weight_scale) &&
                same(a->bias, b->bias));
  }
  EXPECT_EQ(linked.conv1->kernel, reinterpret_cast<const std::int8_t*>(se_model_file + 64));
}

TEST(ModelFile, ChecksumIsTheUsualCrc32) {
  EXPECT_EQ(crc32("123456789", 9), 0xcbf43926u);
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
  const char* error = open_model(file + 1, kModelFileBytes, &records);
  EXPECT_STREQ(error, "the model must start on a 16-byte boundary");
}

}  // namespace
