// WAV files byte by byte: what is written, what is read, and what is refused.
#include "speechenhance/wav_io.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

namespace {

using Bytes = std::string;

constexpr WavFormat kMono16 = {0, 16000, 1, 16, 16};
constexpr uint32_t kRead = 0, kWrite = 1;

Bytes little_endian(uint64_t value, int bytes) {
  Bytes result;
  for (int i = 0; i < bytes; ++i) result.push_back(static_cast<char>(value >> (8 * i)));
  return result;
}
Bytes u16(uint64_t value) {
  return little_endian(value, 2);
}
Bytes u32(uint64_t value) {
  return little_endian(value, 4);
}

Bytes chunk(const Bytes& id, const Bytes& content) {
  return id + u32(content.size()) + content;
}

Bytes plain_format(unsigned tag, unsigned channels, unsigned rate, unsigned bits) {
  const unsigned align = channels * bits / 8;
  return u16(tag) + u16(channels) + u32(rate) + u32(uint64_t{rate} * align) + u16(align) +
         u16(bits);
}

Bytes extensible_format(unsigned channels, unsigned rate, unsigned bits, unsigned valid_bits,
                        unsigned sub_format) {
  const Bytes guid_tail("\x00\x00\x10\x00\x80\x00\x00\xaa\x00\x38\x9b\x71", 12);
  return plain_format(0xFFFE, channels, rate, bits) + u16(22) + u16(valid_bits) + u32(0) +
         u32(sub_format) + guid_tail;
}

Bytes riff(const Bytes& chunks) {
  return "RIFF" + u32(chunks.size() + 4) + "WAVE" + chunks;
}

Bytes counting_bytes(size_t count) {
  Bytes bytes(count, 0);
  std::iota(bytes.begin(), bytes.end(), '\1');
  return bytes;
}

const Bytes kFormat16 = chunk("fmt ", plain_format(1, 1, 16000, 16));

// A file of the test's own, removed at its end.
class WavIo : public testing::Test {
 protected:
  WavIo() { close(mkstemp(path_)); }
  ~WavIo() override { std::remove(path_); }

  void store(const Bytes& bytes) const { std::ofstream(path_, std::ios::binary) << bytes; }
  Bytes stored() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  WavFile* create(WavFormat format) const {
    WavFile* wav = wav_io_open(path_, kWrite, &format);
    EXPECT_NE(wav, nullptr);
    return wav;
  }
  static Bytes read(WavFile* wav, uint32_t count) {
    Bytes data(count, 0);
    data.resize(static_cast<size_t>(wav_io_read(wav, count, data.data())));
    return data;
  }
  static void write(WavFile* wav, const Bytes& data) {
    EXPECT_EQ(wav_io_write(wav, static_cast<uint32_t>(data.size()), data.data()),
              static_cast<int64_t>(data.size()));
  }
  // The sample data of a file with the content given, "refused" if it does not open.
  Bytes data_of(const Bytes& content, WavFormat* format = nullptr) const {
    store(content);
    WavFile* wav = wav_io_open(path_, kRead, format);
    if (wav == nullptr) return "refused";
    const uint32_t size = wav_io_get_data_size(wav);
    const Bytes data = read(wav, size + 10);
    EXPECT_EQ(data.size(), size);
    wav_io_close(wav);
    return data;
  }

  char path_[20] = "wav_io_test_XXXXXX";
};

bool same(const WavFormat& a, const WavFormat& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST_F(WavIo, WritesTheLayoutOfEachFormAndReadsItBack) {
  const Bytes data = counting_bytes(1024);
  const std::pair<WavFormat, Bytes> forms[] = {
      {kMono16, plain_format(1, 1, 16000, 16)},
      {{0, 4000, 1, 16, 16}, plain_format(1, 1, 4000, 16)},
      {{0, 44100, 16, 32, 32}, plain_format(1, 16, 44100, 32)},
      {{1, 192000, 16, 32, 32}, plain_format(3, 16, 192000, 32)},
      {{0, 16000, 2, 16, 8}, extensible_format(2, 16000, 16, 8, 1)},
      {{0, 48000, 2, 32, 24}, extensible_format(2, 48000, 32, 24, 1)}};
  for (const auto& [format, header] : forms) {
    WavFile* wav = create(format);
    write(wav, data);
    wav_io_close(wav);
    EXPECT_EQ(stored(), riff(chunk("fmt ", header) + chunk("data", data)));
    WavFormat found = {};
    EXPECT_EQ(data_of(stored(), &found), data);
    EXPECT_TRUE(same(found, format));
  }
  WavFile* wav = create(kMono16);
  write(wav, "odd");
  wav_io_close(wav);
  EXPECT_EQ(stored().size(), 44u + 3u) << "no pad byte";
  wav_io_close(nullptr);
}

TEST_F(WavIo, RefusesToWriteWhatItCannotDescribeAndLeavesTheFileAlone) {
  store("something precious");
  const WavFormat refused[] = {{0, 16000, 1, 24, 24}, {0, 16000, 1, 8, 8},    {0, 16000, 1, 12, 12},
                               {0, 16000, 1, 64, 64}, {0, 16000, 1, 16, 7},   {0, 16000, 1, 16, 17},
                               {1, 16000, 1, 16, 16}, {1, 16000, 1, 32, 24},  {2, 16000, 1, 32, 32},
                               {0, 3999, 1, 16, 16},  {0, 192001, 1, 16, 16}, {0, 16000, 0, 16, 16},
                               {0, 16000, 17, 16, 16}};
  for (WavFormat format : refused) EXPECT_EQ(wav_io_open(path_, kWrite, &format), nullptr);
  WavFormat format = kMono16;
  EXPECT_EQ(wav_io_open(path_, kWrite, nullptr), nullptr);
  EXPECT_EQ(wav_io_open(path_, 2, &format), nullptr);
  EXPECT_EQ(wav_io_open("no/such/folder/file.wav", kWrite, &format), nullptr);
  EXPECT_EQ(stored(), "something precious");
}

TEST_F(WavIo, ReadsUpToTheEndOfTheDataAndAgainAfterARewind) {
  const Bytes data = counting_bytes(50000);
  store(riff(kFormat16 + chunk("data", data) + chunk("LIST", counting_bytes(50))));
  WavFile* wav = wav_io_open(path_, kRead, nullptr);
  ASSERT_NE(wav, nullptr);
  EXPECT_EQ(wav_io_get_data_size(wav), 50000u);
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(read(wav, 30000), data.substr(0, 30000));
    EXPECT_EQ(read(wav, 30000), data.substr(30000));
    EXPECT_EQ(read(wav, 30000), "");
    EXPECT_EQ(wav_io_rewind(wav), 0);
  }
  EXPECT_EQ(wav_io_write(wav, 10, data.data()), -1);
  ASSERT_EQ(truncate(path_, 20000), 0);  // the file shrinks under the reader
  EXPECT_EQ(read(wav, 50000), data.substr(0, 20000 - 44));
  EXPECT_EQ(read(wav, 50000), "");
  wav_io_close(wav);
}

TEST_F(WavIo, FollowsTheSizeFieldsOnlyAsFarAsTheFileGoes) {
  const Bytes data = counting_bytes(64);
  const Bytes head = "RIFF" + u32(0) + "WAVE" + kFormat16 + "data";
  EXPECT_EQ(data_of(head + u32(0) + data), data) << "never finished";
  EXPECT_EQ(data_of(head + u32(65) + data), data) << "cut off";
  EXPECT_EQ(data_of(head + u32(0xFFFFFFFF) + data), data) << "of unknown length";
  EXPECT_EQ(data_of(head + u32(10) + data), counting_bytes(10));
  EXPECT_EQ(data_of(head + u32(0)), "");
}

TEST_F(WavIo, SkipsOtherChunksAndTakesTheLastFormat) {
  const Bytes data = counting_bytes(8), samples = chunk("data", data);
  const std::pair<Bytes, WavFormat> files[] = {
      {chunk("JUNK", counting_bytes(28)) + kFormat16 + chunk("fact", counting_bytes(4)) +
           chunk("LIST", counting_bytes(7)) +
           chunk("fmt ", plain_format(3, 2, 48000, 32) + u16(0)) + samples,
       {1, 48000, 2, 32, 32}},
      {chunk("fmt ", extensible_format(1, 16000, 32, 32, 3)) + samples, {1, 16000, 1, 32, 32}},
      {samples, {0, 0, 0, 0, 0}}};
  for (const auto& [chunks, expected] : files) {
    WavFormat format = {};
    EXPECT_EQ(data_of(riff(chunks), &format), data);
    EXPECT_TRUE(same(format, expected));
  }
}

TEST_F(WavIo, RefusesBrokenFiles) {
  const Bytes samples = counting_bytes(8), data = chunk("data", samples);
  const Bytes whole = riff(kFormat16 + data);
  EXPECT_EQ(data_of(whole), samples);
  std::vector<Bytes> broken = {
      "RIFX" + u32(0) + "WAVE" + kFormat16 + data, "RIFF" + u32(0) + "wave" + kFormat16 + data,
      riff(kFormat16), riff(kFormat16 + chunk("Data", samples)),
      riff("JUNK" + u32(0xFFFFFFF0) + kFormat16 + data),
      // A pad byte behind a chunk of odd size.
      riff(kFormat16 + chunk("LIST", counting_bytes(7)) + Bytes(1, 0) + data)};
  for (size_t length = 0; length < 44; ++length) broken.push_back(whole.substr(0, length));
  for (const Bytes& format :
       {plain_format(1, 1, 16000, 16) + u32(0), plain_format(1, 1, 16000, 8),
        plain_format(1, 1, 16000, 24), plain_format(2, 1, 16000, 4), plain_format(3, 1, 16000, 64),
        plain_format(1, 0, 16000, 16), plain_format(1, 17, 16000, 16), plain_format(1, 1, 3999, 16),
        plain_format(1, 1, 0xFFFFFFFF, 16), plain_format(0xFFFE, 1, 16000, 16),
        plain_format(0xFFFE, 1, 16000, 16) + u16(22), extensible_format(1, 16000, 32, 33, 1),
        extensible_format(1, 16000, 32, 24, 3)}) {
    broken.push_back(riff(chunk("fmt ", format) + data));
  }
  for (size_t i = 0; i < broken.size(); ++i) EXPECT_EQ(data_of(broken[i]), "refused") << i;
  EXPECT_EQ(wav_io_open("no_such_file.wav", kRead, nullptr), nullptr);
  EXPECT_EQ(wav_io_open(".", kRead, nullptr), nullptr);
}

TEST_F(WavIo, AppendsAfterARewindAndAlwaysLeavesAReadableFile) {
  WavFile* wav = create(kMono16);
  const Bytes data = counting_bytes(1 << 16);
  Bytes unused(4, 0);
  EXPECT_EQ(wav_io_read(wav, 4, unused.data()), -1);
  write(wav, data);
  const Bytes so_far = stored();  // not finished
  ASSERT_GT(so_far.size(), 44u);
  EXPECT_EQ(so_far.substr(0, 8), "RIFF" + u32(0));
  EXPECT_EQ(wav_io_rewind(wav), 0);
  write(wav, data);
  EXPECT_EQ(wav_io_rewind(wav), 0);
  EXPECT_EQ(wav_io_get_data_size(wav), 2u << 16);
  wav_io_close(wav);
  EXPECT_EQ(stored(), riff(kFormat16 + chunk("data", data + data)));
  EXPECT_EQ(data_of(so_far), so_far.substr(44));
}

TEST_F(WavIo, LeavesAPipeWithoutSizes) {
  std::remove(path_);
  ASSERT_EQ(mkfifo(path_, 0600), 0);
  FILE* reader = fopen(path_, "r+");  // both ends, so that opening the writer does not wait
  ASSERT_NE(reader, nullptr);
  WavFile* wav = create(kMono16);
  write(wav, "ten bytes.");
  EXPECT_NE(wav_io_rewind(wav), 0);
  wav_io_close(wav);
  EXPECT_EQ(fputc('E', reader), 'E');  // marks the end of what the writer left
  fflush(reader);
  Bytes read(55, 0);
  EXPECT_EQ(fread(read.data(), 1, 55, reader), 55u);
  fclose(reader);
  EXPECT_EQ(read, "RIFF" + u32(0) + "WAVE" + kFormat16 + "data" + u32(0) + "ten bytes.E");
}

TEST_F(WavIo, StopsAtAWholeFrameWhereTheSizesEnd) {
  WavFormat format = {0, 16000, 3, 32, 32};
  WavFile* wav = wav_io_open("/dev/null", kWrite, &format);
  ASSERT_NE(wav, nullptr);
  const Bytes block(1 << 28, 0);
  for (int i = 0; i < 15; ++i) write(wav, block);
  EXPECT_LT(wav_io_write(wav, 1 << 28, block.data()), 1 << 28);
  EXPECT_EQ(wav_io_get_data_size(wav), (0xFFFFFFFFu - 36) / 12 * 12);
  EXPECT_EQ(wav_io_write(wav, 12, block.data()), 0);
  wav_io_close(wav);
}

}  // namespace
