// What no run of the program shows: shards of large manifests, lines at random, workers that die.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "batch/manifest.h"
#include "batch/shard.h"
#include "batch/worker_pool.h"
#include "errors.h"
#include "test_files.h"

namespace se_tool {
namespace {

TEST(ShardMap, BalancesDurationsAndTakesEveryLineOnce) {
  constexpr std::size_t kShards = 37;
  std::mt19937 random(7);
  std::lognormal_distribution<double> length(1, 1);
  std::vector<std::pair<std::uint64_t, double>> lines;
  double longest = 0;
  double total = 0;
  for (int i = 0; i < 20000; ++i) {
    lines.emplace_back(hash_text("corpus/" + std::to_string(i) + ".wav"), length(random));
    longest = std::max(longest, lines.back().second);
    total += lines.back().second;
  }
  std::vector<int> owners(lines.size());
  for (std::size_t index = 0; index < kShards; ++index) {
    ShardMap map;
    for (const auto& [hash, duration] : lines) map.add(hash, duration);
    map.cut({index, kShards});
    double mine = 0;
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (!map.contains(lines[i].first)) continue;
      ++owners[i];
      ++count;
      mine += lines[i].second;
    }
    EXPECT_EQ(map.lines(), count);
    EXPECT_NEAR(map.duration_s(), mine, 1e-6);
    EXPECT_NEAR(mine, total / kShards, longest + 1);
  }
  EXPECT_EQ(std::set<int>(owners.begin(), owners.end()), std::set<int>{1});
}

// Whatever the bytes, a line becomes fields that are JSON, or an error of one line; an entry's
// result stays in its folder.
TEST(Manifest, TakesAnyBytes) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string pieces[] = {R"({"path": "a/b.wav", "offset": 1, "duration": 2.5, "out": "c"})",
                                "path\tout\toffset",
                                "../",
                                "\"",
                                "{",
                                "}",
                                "[",
                                "\\u0000",
                                "\n",
                                "\t",
                                "\r\n",
                                "\"out\":",
                                "1e309",
                                "\xff",
                                "\xc3",
                                std::string(1, '\0'),
                                "null",
                                ",",
                                "-",
                                "/",
                                ".",
                                "path"};
  const TestFolder folder;
  for (int round = 0; round < 400; ++round) {
    std::string text = pieces[random() % 2];
    for (auto i = random() % 40; i > 0; --i) {
      const std::string& piece = pieces[random() % std::size(pieces)];
      text.insert(random() % (text.size() + 1), piece);
      if (random() % 3 == 0) text.erase(random() % text.size(), random() % 4);
    }
    write_file(folder / "m", text);
    try {
      ManifestReader reader(folder / "m");
      for (ManifestLine line; reader.next(line);) {
        const auto fields = nlohmann::ordered_json::parse(line.fields);
        ASSERT_TRUE(fields.is_object());
        ASSERT_EQ(line.error.find('\n'), std::string::npos);
        if (!line.error.empty()) continue;
        const Entry entry = parse_entry(fields, "/corpus", ".wav");
        ASSERT_FALSE(entry.out.empty());
        ASSERT_NE(entry.out.front(), '/');
        ASSERT_NE(entry.out.substr(0, 3), "../");
        ASSERT_EQ(entry.out.find("/../"), std::string::npos);
        ASSERT_EQ(entry.out.find('\0'), std::string::npos);
        ASSERT_TRUE(std::isfinite(entry.offset_s) && entry.offset_s >= 0);
      }
    } catch (const Error& error) {
      ASSERT_EQ(error.code(), 3) << error.what();
    }
  }
}

TEST(WorkerPool, LosesNoMoreThanTheJobOfAWorkerThatDies) {
  signal(SIGPIPE, SIG_IGN);  // as the program does
  WorkerPool pool(
      3,
      [](const std::string& job) {
        if (job == "7" || job == "8") raise(SIGKILL);
        if (job == "9") _exit(1);
        return job + std::string(30000, '.');
      },
      [](const std::string&) {});
  int next = 0;
  std::multiset<std::string> done;
  std::multiset<std::string> lost;
  WorkerPool::Parent parent;
  parent.next = [&]() -> std::optional<std::string> {
    if (next == 40) return std::nullopt;
    return std::to_string(next++);
  };
  parent.done = [&](const std::string& reply) { done.insert(reply.substr(0, reply.find('.'))); };
  parent.died = [&](const std::string& job, int signal) {
    lost.insert(job + ":" + std::to_string(signal));
  };
  parent.idle = [] {};
  pool.run(parent);
  EXPECT_EQ(done.size(), 37u);
  EXPECT_EQ(std::set<std::string>(done.begin(), done.end()).size(), 37u);
  EXPECT_EQ(lost, (std::multiset<std::string>{"7:9", "8:9", "9:0"}));
}

}  // namespace
}  // namespace se_tool
