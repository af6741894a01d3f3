// The command line of speech-enhance batch.
#pragma once

#include <string>

#include "audio_output.h"
#include "batch/shard.h"
#include "processes.h"
#include "settings.h"

namespace se_tool {

struct BatchOptions {
  std::string manifest;
  std::string from_folder;  // not empty: write the manifest of this folder, nothing else
  std::string out_folder;
  std::string results;  // the results manifest
  SoundFormat format = SoundFormat::kWav16;
  Shard shard;
  bool skip_existing = false;
  bool retry_failed = false;
  bool overwrite = false;
  std::size_t jobs = usable_processors();
  double report_s = 60;  // between lines of progress where there is no terminal
  bool quiet = false;
  Settings settings;

  // If not empty, all there is to do is to print this (help).
  std::string text_to_print;
};

// Throws an Error (usage) of one line.
BatchOptions parse_batch_options(int argc, const char* const* argv);

}  // namespace se_tool
