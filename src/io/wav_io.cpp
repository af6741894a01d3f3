// WAV files, after the RIFF layout of IBM and Microsoft (1991) and its later extensible format
// chunk. The header is put together and taken apart byte by byte, so nothing depends on the byte
// order or on the padding of records.

#define _FILE_OFFSET_BITS 64  // also files of 2 GiB and more on 32-bit systems

#include "speechenhance/wav_io.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

struct WavFile {
  WavFormat format;
  int32_t mode;  // kRead or kWrite
  FILE* file;
  uint32_t data_offset;  // position of the first byte of data
  uint32_t data_size;    // bytes of data: usable when reading, written so far when writing
};

namespace {

enum Mode : uint32_t { kRead = 0, kWrite = 1 };

enum FormatTag : uint16_t { kTagPcm = 1, kTagFloat = 3, kTagExtensible = 0xFFFE };

// Sizes of chunks and of their headers, bytes.
constexpr uint32_t kChunkHeader = 8;
constexpr uint32_t kRiffHeader = 12;
constexpr uint32_t kPlainFormat = 16;
constexpr uint32_t kPlainFormatWithExtensionSize = 18;
constexpr uint32_t kExtensibleFormat = 40;
constexpr uint32_t kLargestHeader = kRiffHeader + kChunkHeader + kExtensibleFormat + kChunkHeader;

// Where the fields of a format chunk lie in it.
constexpr uint32_t kTagAt = 0, kChannelsAt = 2, kSampleRateAt = 4, kByteRateAt = 8,
                   kBlockAlignAt = 12, kBitsAt = 14, kExtensionSizeAt = 16, kValidBitsAt = 18,
                   kChannelMaskAt = 20, kSubFormatAt = 24;
constexpr uint32_t kExtensionSize = kExtensibleFormat - kPlainFormatWithExtensionSize;

// What follows the format tag, widened to 32 bits, in the GUID of a sub-format.
constexpr uint8_t kSubFormatTail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                        0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

constexpr uint32_t get_u32(const uint8_t* bytes) {
  return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

constexpr uint16_t get_u16(const uint8_t* bytes) {
  return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

void put_u16(uint8_t* bytes, uint32_t value) {
  bytes[0] = static_cast<uint8_t>(value);
  bytes[1] = static_cast<uint8_t>(value >> 8);
}

void put_u32(uint8_t* bytes, uint32_t value) {
  put_u16(bytes, value);
  put_u16(bytes + 2, value >> 16);
}

constexpr uint32_t identifier(char a, char b, char c, char d) {
  const uint8_t bytes[4] = {static_cast<uint8_t>(a), static_cast<uint8_t>(b),
                            static_cast<uint8_t>(c), static_cast<uint8_t>(d)};
  return get_u32(bytes);
}

constexpr uint32_t ID_RIFF = identifier('R', 'I', 'F', 'F');
constexpr uint32_t ID_WAVE = identifier('W', 'A', 'V', 'E');
constexpr uint32_t ID_FMT = identifier('f', 'm', 't', ' ');
constexpr uint32_t ID_DATA = identifier('d', 'a', 't', 'a');

bool within(int32_t value, int32_t low, int32_t high) {
  return value >= low && value <= high;
}

bool is_supported(const WavFormat& format) {
  if (!within(format.is_float, 0, 1) || !within(format.sample_rate, 4000, 192000) ||
      !within(format.channels, 1, 16)) {
    return false;
  }
  if (format.is_float != 0) return format.bits_per_sample == 32 && format.valid_bits == 32;
  return (format.bits_per_sample == 16 || format.bits_per_sample == 32) &&
         within(format.valid_bits, 8, format.bits_per_sample);
}

uint32_t block_align(const WavFormat& format) {
  return static_cast<uint32_t>(format.channels * (format.bits_per_sample / 8));
}

// --- Reading ---------------------------------------------------------------------------------

bool read_u32(FILE* file, uint32_t* value) {
  uint8_t bytes[4];
  if (fread(bytes, sizeof bytes, 1, file) != 1) return false;
  *value = get_u32(bytes);
  return true;
}

bool read_identifier(FILE* file, uint32_t expected) {
  uint32_t found = 0;
  return read_u32(file, &found) && found == expected;
}

bool read_format(WavFile* wav, uint32_t size) {
  if (size != kPlainFormat && size != kPlainFormatWithExtensionSize && size != kExtensibleFormat) {
    return false;
  }
  uint8_t chunk[kExtensibleFormat] = {};
  if (fread(chunk, size, 1, wav->file) != 1) return false;

  const uint16_t tag = get_u16(chunk + kTagAt);
  WavFormat format;
  format.channels = get_u16(chunk + kChannelsAt);
  format.sample_rate = static_cast<int32_t>(get_u32(chunk + kSampleRateAt));
  format.bits_per_sample = get_u16(chunk + kBitsAt);
  if (tag == kTagExtensible) {
    if (size != kExtensibleFormat) return false;
    format.valid_bits = get_u16(chunk + kValidBitsAt);
    format.is_float = get_u32(chunk + kSubFormatAt) == kTagPcm ? 0 : 1;
  } else {
    format.valid_bits = format.bits_per_sample;
    format.is_float = tag == kTagPcm ? 0 : 1;
  }
  if (!is_supported(format)) return false;
  wav->format = format;
  return true;
}

// Stands at the first byte of data; `size` is what the chunk's header says.
bool find_extent_of_data(WavFile* wav, uint32_t size) {
  const off_t start = ftello(wav->file);
  if (start < 0 || start > UINT32_MAX || fseeko(wav->file, 0, SEEK_END) != 0) return false;
  const off_t length = ftello(wav->file);
  if (length < start || fseeko(wav->file, start, SEEK_SET) != 0) return false;

  const off_t most = size != 0 ? static_cast<off_t>(size) : static_cast<off_t>(UINT32_MAX);
  const off_t remainder = length - start;
  wav->data_offset = static_cast<uint32_t>(start);
  wav->data_size = static_cast<uint32_t>(remainder < most ? remainder : most);
  return true;
}

bool read_header(WavFile* wav) {
  uint32_t riff_size = 0;
  if (!read_identifier(wav->file, ID_RIFF) || !read_u32(wav->file, &riff_size) ||
      !read_identifier(wav->file, ID_WAVE)) {
    return false;
  }
  for (;;) {
    uint32_t id = 0;
    uint32_t size = 0;
    if (!read_u32(wav->file, &id) || !read_u32(wav->file, &size)) return false;
    if (id == ID_DATA) return find_extent_of_data(wav, size);
    const bool passed = id == ID_FMT ? read_format(wav, size)
                                     : fseeko(wav->file, static_cast<off_t>(size), SEEK_CUR) == 0;
    if (!passed) return false;
  }
}

// --- Writing ---------------------------------------------------------------------------------

// Puts the header, with both sizes 0, into `header`; returns its length.
uint32_t make_header(const WavFormat& format, uint8_t header[kLargestHeader]) {
  memset(header, 0, kLargestHeader);
  put_u32(header, ID_RIFF);
  put_u32(header + 8, ID_WAVE);
  put_u32(header + kRiffHeader, ID_FMT);

  const bool extensible = format.valid_bits != format.bits_per_sample;
  const uint32_t format_size = extensible ? kExtensibleFormat : kPlainFormat;
  put_u32(header + kRiffHeader + 4, format_size);

  uint8_t* chunk = header + kRiffHeader + kChunkHeader;
  const uint32_t plain_tag = format.is_float != 0 ? kTagFloat : kTagPcm;
  const auto sample_rate = static_cast<uint32_t>(format.sample_rate);
  put_u16(chunk + kTagAt, extensible ? uint32_t{kTagExtensible} : plain_tag);
  put_u16(chunk + kChannelsAt, static_cast<uint32_t>(format.channels));
  put_u32(chunk + kSampleRateAt, sample_rate);
  put_u32(chunk + kByteRateAt, sample_rate * block_align(format));
  put_u16(chunk + kBlockAlignAt, block_align(format));
  put_u16(chunk + kBitsAt, static_cast<uint32_t>(format.bits_per_sample));
  if (extensible) {
    put_u16(chunk + kExtensionSizeAt, kExtensionSize);
    put_u16(chunk + kValidBitsAt, static_cast<uint32_t>(format.valid_bits));
    put_u32(chunk + kChannelMaskAt, 0);
    put_u32(chunk + kSubFormatAt, plain_tag);
    memcpy(chunk + kSubFormatAt + 4, kSubFormatTail, sizeof kSubFormatTail);
  }
  put_u32(chunk + format_size, ID_DATA);
  return kRiffHeader + kChunkHeader + format_size + kChunkHeader;
}

void write_header(WavFile* wav) {
  uint8_t header[kLargestHeader];
  wav->data_offset = make_header(wav->format, header);
  fwrite(header, wav->data_offset, 1, wav->file);
}

// Goes behind the last byte written, where a rewind may have led away from. A pipe, which has no
// position, is always there.
bool seek_to_end_of_data(WavFile* wav) {
  const off_t end = static_cast<off_t>(wav->data_offset) + static_cast<off_t>(wav->data_size);
  const off_t now = ftello(wav->file);
  return now < 0 || now == end || fseeko(wav->file, end, SEEK_SET) == 0;
}

// A size is only written where it belongs: not into a pipe, which cannot seek.
void write_size(FILE* file, uint32_t position, uint32_t size) {
  uint8_t bytes[4];
  put_u32(bytes, size);
  if (fseeko(file, static_cast<off_t>(position), SEEK_SET) == 0) {
    fwrite(bytes, sizeof bytes, 1, file);
  }
}

}  // namespace

WavFile* wav_io_open(const char* path, uint32_t mode, WavFormat* format) {
  if (mode > kWrite || (mode == kWrite && (format == nullptr || !is_supported(*format)))) {
    return nullptr;
  }
  auto* wav = static_cast<WavFile*>(calloc(1, sizeof(WavFile)));
  if (wav == nullptr) return nullptr;

  wav->mode = static_cast<int32_t>(mode);
  wav->file = fopen(path, mode == kRead ? "rb" : "wb");
  if (wav->file == nullptr) {
    free(wav);
    return nullptr;
  }
  if (mode == kWrite) {
    wav->format = *format;
    write_header(wav);
    return wav;
  }
  if (!read_header(wav)) {
    fclose(wav->file);
    free(wav);
    return nullptr;
  }
  if (format != nullptr) *format = wav->format;
  return wav;
}

int64_t wav_io_read(WavFile* wav, uint32_t num_bytes, void* buffer) {
  if (wav->mode != kRead) return -1;
  const off_t end = static_cast<off_t>(wav->data_offset) + static_cast<off_t>(wav->data_size);
  const off_t left = end - ftello(wav->file);
  if (left <= 0) return 0;
  const size_t count = left < static_cast<off_t>(num_bytes) ? static_cast<size_t>(left) : num_bytes;
  return static_cast<int64_t>(fread(buffer, 1, count, wav->file));
}

int64_t wav_io_write(WavFile* wav, uint32_t num_bytes, const void* buffer) {
  if (wav->mode != kWrite) return -1;
  // The RIFF size counts everything behind its own field and has to fit 32 bits.
  const uint32_t room = UINT32_MAX - (wav->data_offset - kChunkHeader) - wav->data_size;
  if (room < num_bytes) {
    const uint32_t part_of_frame = (wav->data_size + room) % block_align(wav->format);
    num_bytes = room > part_of_frame ? room - part_of_frame : 0;
  }
  if (num_bytes == 0 || !seek_to_end_of_data(wav)) return 0;
  const auto written = static_cast<uint32_t>(fwrite(buffer, 1, num_bytes, wav->file));
  wav->data_size += written;
  return written;
}

int wav_io_rewind(WavFile* wav) {
  return fseeko(wav->file, static_cast<off_t>(wav->data_offset), SEEK_SET);
}

uint32_t wav_io_get_data_size(WavFile* wav) {
  return wav->data_size;
}

void wav_io_close(WavFile* wav) {
  if (wav == nullptr) return;
  if (wav->mode == kWrite) {
    write_size(wav->file, 4, wav->data_offset + wav->data_size - kChunkHeader);
    write_size(wav->file, wav->data_offset - 4, wav->data_size);
  }
  fclose(wav->file);
  free(wav);
}
