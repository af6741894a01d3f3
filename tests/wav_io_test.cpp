#include "speechenhance/wav_io.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <numeric>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr WavFormat kMono16 = {0, 16000, 1, 16, 16};
constexpr uint32_t kRead = 0;
constexpr uint32_t kWrite = 1;

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes text(const std::string& characters) {
  return {characters.begin(), characters.end()};
}

Bytes little_endian(uint64_t value, int bytes) {
  Bytes result;
  for (int i = 0; i < bytes; ++i) result.push_back(static_cast<uint8_t>(value >> (8 * i)));
  return result;
}
Bytes u16(uint64_t value) {
  return little_endian(value, 2);
}
Bytes u32(uint64_t value) {
  return little_endian(value, 4);
}

Bytes chunk(const std::string& id, const Bytes& content) {
  return text(id) + u32(content.size()) + content;
}

Bytes plain_format(unsigned tag, unsigned channels, unsigned rate, unsigned bits) {
  const unsigned align = channels * bits / 8;
  return u16(tag) + u16(channels) + u32(rate) + u32(uint64_t{rate} * align) + u16(align) +
         u16(bits);
}

Bytes extensible_format(unsigned channels, unsigned rate, unsigned bits, unsigned valid_bits,
                        unsigned sub_format) {
  return plain_format(0xFFFE, channels, rate, bits) + u16(22) + u16(valid_bits) + u32(0) +
         u32(sub_format) +
         Bytes{0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71};
}

Bytes riff(const Bytes& chunks) {
  return text("RIFF") + u32(chunks.size() + 4) + text("WAVE") + chunks;
}

Bytes counting_bytes(size_t count) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  return bytes;
}

// A file of the test's own, removed at its end.
class WavIo : public testing::Test {
 protected:
  WavIo() {
    char name[] = "wav_io_test_XXXXXX";
    const int descriptor = mkstemp(name);
    close(descriptor);
    path_ = name;
  }
  ~WavIo() override { std::remove(path_.c_str()); }

  void store(const Bytes& bytes) const {
    std::ofstream(path_, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }
  Bytes stored() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  // The sample data of a file with the content given; the test fails if it does not open.
  Bytes data_of(const Bytes& content, WavFormat* format = nullptr) const {
    store(content);
    WavFile* wav = wav_io_open(path(), kRead, format);
    EXPECT_NE(wav, nullptr);
    if (wav == nullptr) return {};
    Bytes data(wav_io_get_data_size(wav) + 10);
    const int64_t count = wav_io_read(wav, static_cast<uint32_t>(data.size()), data.data());
    EXPECT_EQ(count, wav_io_get_data_size(wav));
    wav_io_close(wav);
    data.resize(static_cast<size_t>(count));
    return data;
  }
  bool opens(const Bytes& content) const {
    store(content);
    WavFile* wav = wav_io_open(path(), kRead, nullptr);
    wav_io_close(wav);
    return wav != nullptr;
  }
  void write(WavFormat format, const Bytes& data) const {
    WavFile* wav = wav_io_open(path(), kWrite, &format);
    ASSERT_NE(wav, nullptr);
    ASSERT_EQ(wav_io_write(wav, static_cast<uint32_t>(data.size()), data.data()),
              static_cast<int64_t>(data.size()));
    wav_io_close(wav);
  }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

void expect_equal(const WavFormat& actual, const WavFormat& expected) {
  EXPECT_EQ(actual.is_float, expected.is_float);
  EXPECT_EQ(actual.sample_rate, expected.sample_rate);
  EXPECT_EQ(actual.channels, expected.channels);
  EXPECT_EQ(actual.bits_per_sample, expected.bits_per_sample);
  EXPECT_EQ(actual.valid_bits, expected.valid_bits);
}

TEST_F(WavIo, WritesTheLayoutOfEachForm) {
  const Bytes data = counting_bytes(320);
  write(kMono16, data);
  EXPECT_EQ(stored(), riff(chunk("fmt ", plain_format(1, 1, 16000, 16)) + chunk("data", data)));

  write({1, 192000, 16, 32, 32}, data);
  EXPECT_EQ(stored(), riff(chunk("fmt ", plain_format(3, 16, 192000, 32)) + chunk("data", data)));

  write({0, 48000, 2, 32, 24}, data);
  EXPECT_EQ(stored(),
            riff(chunk("fmt ", extensible_format(2, 48000, 32, 24, 1)) + chunk("data", data)));

  write(kMono16, counting_bytes(3));
  EXPECT_EQ(stored().size(), 44u + 3u) << "no pad byte";
}

TEST_F(WavIo, RefusesToWriteWhatItCannotDescribeAndLeavesTheFileAlone) {
  const Bytes before = text("something precious");
  store(before);
  for (WavFormat format : std::initializer_list<WavFormat>{{0, 16000, 1, 24, 24},
                                                           {0, 16000, 1, 8, 8},
                                                           {0, 16000, 1, 12, 12},
                                                           {0, 16000, 1, 64, 64},
                                                           {0, 16000, 1, 16, 7},
                                                           {0, 16000, 1, 16, 17},
                                                           {1, 16000, 1, 16, 16},
                                                           {1, 16000, 1, 32, 24},
                                                           {2, 16000, 1, 32, 32},
                                                           {0, 3999, 1, 16, 16},
                                                           {0, 192001, 1, 16, 16},
                                                           {0, 16000, 0, 16, 16},
                                                           {0, 16000, 17, 16, 16}}) {
    EXPECT_EQ(wav_io_open(path(), kWrite, &format), nullptr);
  }
  WavFormat format = kMono16;
  EXPECT_EQ(wav_io_open(path(), kWrite, nullptr), nullptr);
  EXPECT_EQ(wav_io_open(path(), 2, &format), nullptr);
  EXPECT_EQ(wav_io_open("no/such/folder/file.wav", kWrite, &format), nullptr);
  EXPECT_EQ(stored(), before);
}

TEST_F(WavIo, ReadsBackEveryFormatItWrites) {
  const Bytes data = counting_bytes(1024);
  for (const WavFormat& format : std::initializer_list<WavFormat>{{0, 4000, 1, 16, 16},
                                                                  {0, 16000, 2, 16, 8},
                                                                  {0, 44100, 16, 32, 32},
                                                                  {0, 48000, 1, 32, 20},
                                                                  {1, 192000, 4, 32, 32}}) {
    write(format, data);
    WavFormat found = {};
    EXPECT_EQ(data_of(stored(), &found), data);
    expect_equal(found, format);
  }
}

TEST_F(WavIo, ReadsUpToTheEndOfTheDataAndAgainAfterARewind) {
  const Bytes data = counting_bytes(100);
  store(riff(chunk("fmt ", plain_format(1, 1, 16000, 16)) + chunk("data", data) +
             chunk("LIST", counting_bytes(50))));
  WavFile* wav = wav_io_open(path(), kRead, nullptr);
  ASSERT_NE(wav, nullptr);
  EXPECT_EQ(wav_io_get_data_size(wav), 100u);
  for (int pass = 0; pass < 2; ++pass) {
    Bytes read(200);
    EXPECT_EQ(wav_io_read(wav, 60, read.data()), 60);
    EXPECT_EQ(wav_io_read(wav, 60, read.data() + 60), 40);
    EXPECT_EQ(wav_io_read(wav, 60, read.data() + 100), 0);
    read.resize(100);
    EXPECT_EQ(read, data);
    EXPECT_EQ(wav_io_rewind(wav), 0);
  }
  EXPECT_EQ(wav_io_write(wav, 10, data.data()), -1);
  wav_io_close(wav);
}

TEST_F(WavIo, ReadsOnlyWhatTheFileStillHoldsWhenItShrinks) {
  store(riff(chunk("fmt ", plain_format(1, 1, 16000, 16)) + chunk("data", counting_bytes(100000))));
  WavFile* wav = wav_io_open(path(), kRead, nullptr);
  ASSERT_NE(wav, nullptr);
  ASSERT_EQ(truncate(path(), 50000), 0);
  Bytes read(100000);
  EXPECT_EQ(wav_io_read(wav, 100000, read.data()), 50000 - 44);
  EXPECT_EQ(wav_io_read(wav, 100000, read.data()), 0);
  wav_io_close(wav);
}

TEST_F(WavIo, FollowsTheSizeFieldsOnlyAsFarAsTheFileGoes) {
  const Bytes data = counting_bytes(64);
  const Bytes head = text("RIFF") + u32(0) + text("WAVE") +
                     chunk("fmt ", plain_format(1, 2, 8000, 16)) + text("data");
  EXPECT_EQ(data_of(head + u32(0) + data), data) << "never finished";
  EXPECT_EQ(data_of(head + u32(65) + data), data) << "cut off";
  EXPECT_EQ(data_of(head + u32(0xFFFFFFFF) + data), data) << "of unknown length";
  EXPECT_EQ(data_of(head + u32(10) + data), counting_bytes(10));
  EXPECT_EQ(data_of(head + u32(0)), Bytes{});
}

TEST_F(WavIo, SkipsOtherChunksAndTakesTheLastFormat) {
  WavFormat format = {};
  const Bytes data = counting_bytes(8);
  EXPECT_EQ(
      data_of(
          riff(chunk("JUNK", counting_bytes(28)) + chunk("fmt ", plain_format(1, 1, 16000, 16)) +
               chunk("fact", counting_bytes(4)) + chunk("LIST", counting_bytes(7)) +
               chunk("fmt ", plain_format(3, 2, 48000, 32) + u16(0)) + chunk("data", data)),
          &format),
      data);
  expect_equal(format, {1, 48000, 2, 32, 32});

  EXPECT_EQ(
      data_of(riff(chunk("fmt ", extensible_format(1, 16000, 32, 32, 3)) + chunk("data", data)),
              &format),
      data);
  expect_equal(format, {1, 16000, 1, 32, 32});

  EXPECT_EQ(data_of(riff(chunk("data", data)), &format), data);
  expect_equal(format, {0, 0, 0, 0, 0});
}

TEST_F(WavIo, RefusesBrokenFiles) {
  const Bytes format = chunk("fmt ", plain_format(1, 1, 16000, 16));
  const Bytes data = chunk("data", counting_bytes(8));
  ASSERT_TRUE(opens(riff(format + data)));
  const Bytes whole = riff(format + data);
  for (size_t length = 0; length < 44; ++length) {
    EXPECT_FALSE(opens(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length))))
        << length << " bytes";
  }
  EXPECT_FALSE(opens(text("RIFX") + u32(0) + text("WAVE") + format + data));
  EXPECT_FALSE(opens(text("RIFF") + u32(0) + text("wave") + format + data));
  EXPECT_FALSE(opens(riff(format)));
  EXPECT_FALSE(opens(riff(format + chunk("Data", counting_bytes(8)))));
  EXPECT_FALSE(opens(riff(text("JUNK") + u32(0xFFFFFFF0) + format + data)));
  EXPECT_FALSE(opens(riff(format + chunk("LIST", counting_bytes(7)) + Bytes{0} + data)))
      << "a pad byte behind a chunk of odd size";

  const auto with_format = [&](const Bytes& content) {
    return opens(riff(chunk("fmt ", content) + data));
  };
  EXPECT_FALSE(with_format(plain_format(1, 1, 16000, 16) + u32(0))) << "20 bytes";
  EXPECT_FALSE(with_format(plain_format(1, 1, 16000, 8)));
  EXPECT_FALSE(with_format(plain_format(1, 1, 16000, 24)));
  EXPECT_FALSE(with_format(plain_format(2, 1, 16000, 4)));
  EXPECT_FALSE(with_format(plain_format(3, 1, 16000, 64)));
  EXPECT_FALSE(with_format(plain_format(1, 0, 16000, 16)));
  EXPECT_FALSE(with_format(plain_format(1, 17, 16000, 16)));
  EXPECT_FALSE(with_format(plain_format(1, 1, 3999, 16)));
  EXPECT_FALSE(with_format(plain_format(1, 1, 0xFFFFFFFF, 16)));
  EXPECT_FALSE(with_format(plain_format(0xFFFE, 1, 16000, 16)));
  EXPECT_FALSE(with_format(plain_format(0xFFFE, 1, 16000, 16) + u16(22)));
  EXPECT_FALSE(with_format(extensible_format(1, 16000, 32, 33, 1)));
  EXPECT_FALSE(with_format(extensible_format(1, 16000, 32, 24, 3)));

  EXPECT_EQ(wav_io_open("no_such_file.wav", kRead, nullptr), nullptr);
  EXPECT_EQ(wav_io_open(".", kRead, nullptr), nullptr);
}

TEST_F(WavIo, AppendsAfterARewindAndLeavesAFinishedFile) {
  WavFormat format = kMono16;
  WavFile* wav = wav_io_open(path(), kWrite, &format);
  ASSERT_NE(wav, nullptr);
  const Bytes data = counting_bytes(20);
  Bytes unused(4);
  EXPECT_EQ(wav_io_read(wav, 4, unused.data()), -1);
  EXPECT_EQ(wav_io_write(wav, 10, data.data()), 10);
  EXPECT_EQ(wav_io_rewind(wav), 0);
  EXPECT_EQ(wav_io_write(wav, 10, data.data() + 10), 10);
  EXPECT_EQ(wav_io_rewind(wav), 0);
  EXPECT_EQ(wav_io_get_data_size(wav), 20u);
  wav_io_close(wav);
  EXPECT_EQ(stored(), riff(chunk("fmt ", plain_format(1, 1, 16000, 16)) + chunk("data", data)));
}

TEST_F(WavIo, AnUnfinishedFileReadsBackWhole) {
  WavFormat format = kMono16;
  WavFile* writer = wav_io_open(path(), kWrite, &format);
  ASSERT_NE(writer, nullptr);
  const Bytes data = counting_bytes(1 << 16);
  EXPECT_EQ(wav_io_write(writer, 1 << 16, data.data()), 1 << 16);
  const Bytes so_far = stored();
  wav_io_close(writer);
  ASSERT_GT(so_far.size(), 44u);
  EXPECT_EQ(Bytes(so_far.begin(), so_far.begin() + 8), text("RIFF") + u32(0));
  EXPECT_EQ(data_of(so_far).size(), so_far.size() - 44);
}

TEST_F(WavIo, LeavesAPipeWithoutSizes) {
  std::remove(path());
  ASSERT_EQ(mkfifo(path(), 0600), 0);
  FILE* reader = fopen(path(), "r+");  // both ends, so that opening the writer does not wait
  ASSERT_NE(reader, nullptr);
  WavFormat format = kMono16;
  WavFile* wav = wav_io_open(path(), kWrite, &format);
  ASSERT_NE(wav, nullptr);
  const Bytes data = counting_bytes(10);
  EXPECT_EQ(wav_io_write(wav, 10, data.data()), 10);
  EXPECT_NE(wav_io_rewind(wav), 0);
  wav_io_close(wav);
  EXPECT_EQ(fputc(0xEE, reader), 0xEE);  // marks the end of what the writer left
  fflush(reader);
  Bytes read(55);
  EXPECT_EQ(fread(read.data(), 1, 55, reader), 55u);
  fclose(reader);
  EXPECT_EQ(read, text("RIFF") + u32(0) + text("WAVE") +
                      chunk("fmt ", plain_format(1, 1, 16000, 16)) + text("data") + u32(0) + data +
                      Bytes{0xEE});
}

TEST_F(WavIo, StopsAtAWholeFrameWhereTheSizesEnd) {
  WavFormat format = {0, 16000, 3, 32, 32};
  WavFile* wav = wav_io_open("/dev/null", kWrite, &format);
  ASSERT_NE(wav, nullptr);
  const Bytes block(1 << 28);
  const auto block_size = static_cast<uint32_t>(block.size());
  for (int i = 0; i < 15; ++i) ASSERT_EQ(wav_io_write(wav, block_size, block.data()), block_size);
  EXPECT_LT(wav_io_write(wav, block_size, block.data()), block_size);
  EXPECT_EQ(wav_io_get_data_size(wav), (0xFFFFFFFFu - 36) / 12 * 12);
  EXPECT_EQ(wav_io_write(wav, 12, block.data()), 0);
  wav_io_close(wav);
}

TEST(WavIoClose, AcceptsNull) {
  wav_io_close(nullptr);
}

}  // namespace
