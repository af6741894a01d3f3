#include "pending_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "audio_output.h"
#include "errors.h"
#include "test_files.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;

TEST(PendingFile, AppearsWholeOrNotAtAll) {
  const TestFolder folder;
  const std::string target = folder / "out";
  {
    PendingFile file(target);
    file.write("new");
    EXPECT_FALSE(fs::exists(target));
    file.sync();
    file.commit();
  }
  EXPECT_EQ(read_file(target), "new");
  {
    PendingFile file(target);
    file.write("abandoned");
  }
  EXPECT_EQ(read_file(target), "new");
  EXPECT_EQ(folder.names(), std::vector<std::string>{"out"});
}

TEST(PendingFile, KeepsPermissionsAndLinks) {
  const TestFolder folder;
  write_file(folder / "real", "old");
  fs::permissions(folder / "real", fs::perms(0640));
  fs::create_symlink("real", folder / "link");
  PendingFile file(folder / "link");
  file.write("new");
  file.commit();
  EXPECT_TRUE(fs::is_symlink(folder / "link"));
  EXPECT_EQ(read_file(folder / "real"), "new");
  EXPECT_EQ(fs::status(folder / "real").permissions(), fs::perms(0640));

  const mode_t mask = umask(027);
  {
    PendingFile fresh(folder / "fresh");
    fresh.commit();
  }
  umask(mask);
  EXPECT_EQ(fs::status(folder / "fresh").permissions(), fs::perms(0640));
}

TEST(PendingFile, RefusesWhatCannotBeWritten) {
  const TestFolder folder;
  EXPECT_THROW(PendingFile(folder / "no/such/folder"), Error);
  EXPECT_THROW(PendingFile(folder / ""), Error) << "a folder";
  PendingFile full("/dev/full");
  full.write("content");
  EXPECT_THROW(full.commit(), Error);
}

TEST(PendingFile, NothingButAFileHasAnIdentity) {
  const TestFolder folder;
  write_file(folder / "a", "");
  fs::create_symlink("a", folder / "symbolic");
  fs::create_hard_link(folder / "a", folder / "hard");
  fs::create_directory_symlink(".", folder / "again");
  const auto identity = [&](const std::string& name) {
    return file_identity(folder / name, Direction::kOut);
  };
  EXPECT_EQ(identity("a"), identity("symbolic"));
  EXPECT_EQ(identity("a"), identity("hard"));
  EXPECT_EQ(identity("new"), identity("again/./new"));
  EXPECT_NE(identity("new"), identity("newer"));
  EXPECT_EQ(file_identity("/dev/null", Direction::kOut), "");
}

TEST(AudioOutput, TruncatesClipsAndCounts) {
  const TestFolder folder;
  const std::vector<float> samples = {0.0f, 0.99999f, -0.00001f, -1.0f, 1.0f, 1.5f, -1.5f};
  AudioOutput output(folder / "out.wav", false, samples.size());
  output.write(samples.data(), samples.size());
  output.finish();
  output.commit();
  EXPECT_EQ(output.clipped(), 3u);
  const Sound sound = read_sound(folder / "out.wav");
  EXPECT_EQ(sound.rate, 16000);
  EXPECT_EQ(sound.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
  std::vector<int> integers;
  for (const float sample : sound.samples) integers.push_back(static_cast<int>(sample * 32768));
  EXPECT_EQ(integers, (std::vector<int>{0, 32767, 0, -32768, 32767, 32767, -32768}));
}

TEST(AudioOutput, KeepsFloatsAsTheyAre) {
  const TestFolder folder;
  const std::vector<float> samples = {0.1f, 1.5f, -3.0f};
  AudioOutput output(folder / "out.wav", true, samples.size());
  output.write(samples.data(), samples.size());
  output.finish();
  output.commit();
  EXPECT_EQ(read_sound(folder / "out.wav").samples, samples);
  EXPECT_THROW(AudioOutput(folder / "long.wav", true, std::uint64_t{1} << 31), Error);
}

}  // namespace
}  // namespace se_tool
