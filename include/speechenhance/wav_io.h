/* Reading and writing WAV files (RIFF/WAVE): integer PCM in 16- or 32-bit containers, with fewer
 * valid bits through the extensible form, and 32-bit IEEE float; 4 to 192 kHz, 1 to 16 channels.
 *
 * Sample data are moved as raw little-endian bytes, interleaved by channel: the caller reads and
 * writes the bytes of the data chunk, this module keeps the header consistent.
 *
 *   WavFormat format = {0, 16000, 1, 16, 16};
 *   WavFile* file = wav_io_open("out.wav", 1, &format);
 *   if (file) {
 *     wav_io_write(file, sizeof samples, samples);
 *     wav_io_close(file);
 *   }
 *
 * A handle is used by one thread at a time; separate handles are independent. Handles and buffers
 * must not be null unless a function says otherwise. */
#ifndef SPEECHENHANCE_WAV_IO_H
#define SPEECHENHANCE_WAV_IO_H

#include <stdint.h>

#include "export.h"

SE_BEGIN_C

/* How the samples of a file are stored. */
typedef struct WavFormat {
  int32_t is_float;        /* 0 integer PCM, 1 IEEE float */
  int32_t sample_rate;     /* frames per second, 4000 to 192000 */
  int32_t channels;        /* interleaved channels, 1 to 16 */
  int32_t bits_per_sample; /* container bits per sample: 16 or 32; for float 32 */
  int32_t valid_bits;      /* significant bits, 8 to bits_per_sample, the upper ones of the
                              container; for float 32 */
} WavFormat;

/* An open file. Opaque. */
typedef struct WavFile WavFile;

/* Opens a file. The caller owns the handle and releases it with wav_io_close(). Returns null on any
 * failure, with nothing left open; a mode above 1 is one.
 *
 * mode 0, reading: finds the format and the sample data, copies the format to *format unless
 * `format` is null, and stands at the first byte of data. Refused are files that do not start as
 * RIFF/WAVE, that end before a data chunk (a chunk whose size reaches past the end of the file
 * leads there), that cannot seek (pipes), and formats outside WavFormat: 8- and 24-bit containers,
 * compressed ones, and an extensible format whose chunk of 16 or 18 bytes has no room for the
 * fields that make it one. Chunks other than "fmt " and "data" are skipped by exactly their size;
 * no pad byte is expected after an odd one, so a file that has one there is refused.
 *   The data end with the data chunk or the file, whichever comes first. A data chunk of size 0,
 * left by a writer that never finished, ends with the file; of more than 4 GiB of such data the
 * first 4294967295 bytes are used. If the data chunk comes before any format chunk, the format is
 * all 0.
 *
 * mode 1, writing: creates or empties the file and writes the header with both sizes 0, which
 * wav_io_close() fills in. `format` must lie within the ranges above, else (or if it is null) the
 * file system is not touched. The header takes 44 bytes; 68, in the extensible form, if valid_bits
 * differs from bits_per_sample. A file that cannot seek (a pipe) can be written, but its sizes stay
 * 0. */
SE_API WavFile* wav_io_open(const char* path, uint32_t mode, WavFormat* format);

/* Reads up to `num_bytes` bytes of sample data into `buffer`, never past the end of the data.
 * Returns the number of bytes read: fewer than asked for at the end of the data or on a read error,
 * 0 behind it (also if the position was moved there by other means); -1 on a handle opened for
 * writing. */
SE_API int64_t wav_io_read(WavFile* file, uint32_t num_bytes, void* buffer);

/* Appends `num_bytes` bytes of sample data from `buffer`, also after a rewind. No pad byte is added
 * after an odd number of bytes. Returns the number of bytes written: fewer than asked for if the
 * system refused some or if the 32-bit sizes of the header cannot describe more (the file is then
 * cut at a whole frame of all channels); -1 on a handle opened for reading. Data are buffered, so a
 * full disk may show only when the file is closed: a caller to whom it matters compares the
 * length of the closed file. */
SE_API int64_t wav_io_write(WavFile* file, uint32_t num_bytes, const void* buffer);

/* Goes to the first byte of data. Returns 0, or nonzero if the file cannot seek. */
SE_API int wav_io_rewind(WavFile* file);

/* Bytes of sample data: of a file being read, all there are to read; of a file being written, those
 * written so far. */
SE_API uint32_t wav_io_get_data_size(WavFile* file);

/* Fills in the sizes of a file that was being written, closes it and releases the handle. Null is
 * accepted. */
SE_API void wav_io_close(WavFile* file);

SE_END_C

#endif
