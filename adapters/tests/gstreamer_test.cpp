// The elements in pipelines, against what the tool makes of the same sound.
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "random_signal.h"
#include "stream/tests/by_tool.h"

namespace se_tool {
namespace {

using Signals = std::vector<std::vector<float>>;
constexpr int kRate = 16000;

GstClockTime time_of(std::int64_t frame, int rate) {
  return gst_util_uint64_scale(static_cast<guint64>(frame), GST_SECOND, static_cast<guint64>(rate));
}

std::string caps(int rate, std::size_t channels) {
  return "audio/x-raw,format=F32LE,layout=interleaved,rate=" + std::to_string(rate) +
         ",channels=" + std::to_string(channels);
}

GstBuffer* make_buffer(const Signals& signals, std::size_t from, std::size_t count, int rate,
                       std::int64_t shift) {
  Signals part;
  for (const auto& signal : signals) {
    const auto first = signal.begin() + static_cast<std::ptrdiff_t>(from);
    part.emplace_back(first, first + static_cast<std::ptrdiff_t>(count));
  }
  const std::vector<float> samples = interleaved(part);
  GstBuffer* buffer = gst_buffer_new_memdup(samples.data(), samples.size() * sizeof(float));
  const std::int64_t start = static_cast<std::int64_t>(from) + shift;
  GST_BUFFER_PTS(buffer) = time_of(start, rate);
  GST_BUFFER_DURATION(buffer) =
      time_of(start + static_cast<std::int64_t>(count), rate) - GST_BUFFER_PTS(buffer);
  return buffer;
}

// Lengths of blocks: the longest, a thousand of the shortest, then any.
struct RandomBlocks {
  RandomSignal random;
  int count = 0;
  std::size_t operator()() {
    ++count;
    return count == 1 ? 9999 : count <= 1001 ? 1 : 1 + random.bits() % 2000;
  }
};

std::size_t ten_ms() {
  return kRate / 100;
}

// The frames [from, to) of the signals in blocks.
template <class Next>
void push(GstHarness* harness, const Signals& signals, std::size_t from, std::size_t to, Next next,
          int rate = kRate, std::int64_t shift = 0) {
  while (from < to) {
    const std::size_t count = std::min<std::size_t>(next(), to - from);
    if (gst_harness_push(harness, make_buffer(signals, from, count, rate, shift)) != GST_FLOW_OK) {
      return;
    }
    from += count;
  }
}

class GStreamer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

  GStreamer() : scene(kRate, 2.0), length(scene.mics[0].size()) {
    mic = gst_harness_new_with_padnames("speechenhance", "sink", "src");
    bus = gst_bus_new();
    gst_element_set_bus(mic->element, bus);
    gst_harness_set_live(mic, FALSE);
    g_object_set(mic->element, "delay", 0, nullptr);
  }
  ~GStreamer() override {
    if (reference != nullptr) gst_harness_teardown(reference);
    gst_element_set_bus(mic->element, nullptr);
    gst_object_unref(bus);
    gst_harness_teardown(mic);
  }

  void start(int rate = kRate) { gst_harness_set_src_caps_str(mic, caps(rate, 2).c_str()); }

  void add_reference(int rate = kRate) {
    reference = gst_harness_new_with_element(mic->element, "reference", nullptr);
    gst_harness_set_live(reference, FALSE);
    gst_harness_set_src_caps_str(reference, caps(rate, 1).c_str());
  }

  // What came out up to the end of the stream, without a hole from `first` on.
  std::vector<float> pull_all(std::int64_t first = 0) {
    while (GstEvent* event = gst_harness_pull_event(mic)) {
      const bool end = GST_EVENT_TYPE(event) == GST_EVENT_EOS;
      gst_event_unref(event);
      if (end) break;
    }
    std::vector<float> out;
    while (GstBuffer* buffer = gst_harness_try_pull(mic)) {
      EXPECT_EQ(GST_BUFFER_PTS(buffer), time_of(first + std::int64_t(out.size()), kRate));
      const std::size_t old = out.size(), bytes = gst_buffer_get_size(buffer);
      out.resize(old + bytes / sizeof(float));
      gst_buffer_extract(buffer, 0, out.data() + old, bytes);
      gst_buffer_unref(buffer);
    }
    return out;
  }

  // The whole scene with its reference up to `reference_ends`, each in blocks of its own.
  std::vector<float> run_scene(std::size_t reference_ends, unsigned seed) {
    std::thread other([&] {
      push(reference, {scene.refs[0]}, 0, reference_ends, RandomBlocks{RandomSignal(seed)});
      gst_harness_push_event(reference, gst_event_new_eos());
    });
    push(mic, scene.mics, 0, length, RandomBlocks{RandomSignal(seed + 1)});
    gst_harness_push_event(mic, gst_event_new_eos());
    std::vector<float> out = pull_all();
    other.join();
    return out;
  }

  Scene scene;
  std::size_t length;
  GstHarness *mic, *reference = nullptr;
  GstBus* bus;
};

TEST_F(GStreamer, GivesTheBitsOfTheTool) {
  gst_util_set_object_arg(G_OBJECT(mic->element), "preset", "steady");
  start();
  add_reference();
  EXPECT_EQ(run_scene(length, 1), by_tool(scene, kRate, "steady", 0));
}

TEST_F(GStreamer, GoesOnWhenTheReferenceEnds) {
  start();
  add_reference();
  const std::vector<float> out = run_scene(length / 2, 3);
  std::fill(scene.refs[0].begin() + std::ptrdiff_t(length / 2), scene.refs[0].end(), 0.0f);
  EXPECT_EQ(out, by_tool(scene, kRate, "recording", 0));
}

// Sound that is missing, with a gap event or without, is silence, and what follows stays in its
// place.
TEST_F(GStreamer, FillsGaps) {
  start();
  add_reference();
  constexpr std::size_t kMicGap[] = {8000, 10400}, kReferenceGap[] = {12000, 13600},
                        kReferenceHole[] = {20000, 22000};
  std::thread other([&] {
    push(reference, {scene.refs[0]}, 0, kReferenceGap[0], ten_ms);
    gst_harness_push_event(reference,
                           gst_event_new_gap(time_of(kReferenceGap[0], kRate),
                                             time_of(kReferenceGap[1] - kReferenceGap[0], kRate)));
    push(reference, {scene.refs[0]}, kReferenceGap[1], kReferenceHole[0], ten_ms);
    push(reference, {scene.refs[0]}, kReferenceHole[1], length, ten_ms);
    gst_harness_push_event(reference, gst_event_new_eos());
  });
  push(mic, scene.mics, 0, kMicGap[0], ten_ms);
  push(mic, scene.mics, kMicGap[1], length, ten_ms);
  gst_harness_push_event(mic, gst_event_new_eos());
  const std::vector<float> out = pull_all();
  other.join();
  const auto silence = [](std::vector<float>& signal, const std::size_t(&gap)[2]) {
    std::fill(signal.begin() + std::ptrdiff_t(gap[0]), signal.begin() + std::ptrdiff_t(gap[1]),
              0.0f);
  };
  for (auto& signal : scene.mics) silence(signal, kMicGap);
  silence(scene.refs[0], kReferenceGap);
  silence(scene.refs[0], kReferenceHole);
  EXPECT_EQ(out, by_tool(scene, kRate, "recording", 0));
}

TEST_F(GStreamer, StartsAnewAfterAFlush) {
  start();
  push(mic, scene.mics, 4000, 20000, ten_ms);
  gst_harness_push_event(mic, gst_event_new_flush_start());
  gst_harness_push_event(mic, gst_event_new_flush_stop(TRUE));
  while (GstBuffer* buffer = gst_harness_try_pull(mic)) gst_buffer_unref(buffer);
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  gst_harness_push_event(mic, gst_event_new_segment(&segment));
  push(mic, scene.mics, 0, length, ten_ms);
  gst_harness_push_event(mic, gst_event_new_eos());
  const std::vector<float> out = pull_all();
  std::fill(scene.refs[0].begin(), scene.refs[0].end(), 0.0f);
  EXPECT_EQ(out, by_tool(scene, kRate, "recording", 0));
}

// All of the first sound comes out ahead of the second's.
TEST_F(GStreamer, TakesOtherCapsInTheMiddle) {
  start(48000);
  const Scene wide(48000, 0.5);
  const std::size_t frames = wide.mics[0].size();
  push(mic, wide.mics, 0, frames, ten_ms, 48000);
  start(kRate);
  push(mic, scene.mics, 0, length, ten_ms, kRate, kRate / 2);
  gst_harness_push_event(mic, gst_event_new_eos());
  std::size_t first_half = 0;
  while (first_half < frames) {
    GstBuffer* buffer = gst_harness_pull(mic);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(GST_BUFFER_PTS(buffer), time_of(std::int64_t(first_half), 48000));
    first_half += gst_buffer_get_size(buffer) / sizeof(float);
    gst_buffer_unref(buffer);
  }
  EXPECT_EQ(first_half, frames);
  const std::vector<float> out = pull_all(kRate / 2);
  std::fill(scene.refs[0].begin(), scene.refs[0].end(), 0.0f);
  EXPECT_EQ(out, by_tool(scene, kRate, "recording", 0));
}

// What was played into a pipeline that plays it 100 ms after its time stamps.
TEST_F(GStreamer, TakesTheReferenceOfAProbe) {
  constexpr int kLatencyFrames = kRate / 10;
  GstHarness* probe = gst_harness_new_with_padnames("speechenhanceprobe", "sink", "src");
  gst_object_set_name(GST_OBJECT(probe->element), "loudspeaker");
  gst_harness_set_src_caps_str(probe, caps(kRate, 1).c_str());
  gst_harness_push_upstream_event(probe, gst_event_new_latency(time_of(kLatencyFrames, kRate)));
  gst_element_set_state(mic->element, GST_STATE_READY);
  g_object_set(mic->element, "probe", "loudspeaker", nullptr);
  gst_harness_play(mic);
  start();
  push(probe, {scene.refs[0]}, 0, length, RandomBlocks{RandomSignal(5)});
  push(mic, scene.mics, 0, length, RandomBlocks{RandomSignal(6)}, kRate, kLatencyFrames);
  gst_harness_push_event(mic, gst_event_new_eos());
  EXPECT_EQ(pull_all(kLatencyFrames), by_tool(scene, kRate, "recording", 0));
  gst_harness_teardown(probe);
}

TEST_F(GStreamer, TellsLatencyAndStatistics) {
  start();
  push(mic, scene.mics, 0, length, ten_ms);
  gst_harness_push_event(mic, gst_event_new_eos());
  pull_all();
  EXPECT_EQ(gst_harness_query_latency(mic), (1327 * GST_SECOND + kRate - 1) / kRate);
  GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT);
  int messages = 0;
  double loudest = -150, level = 0;
  for (; message != nullptr; message = gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT)) {
    const GstStructure* structure = gst_message_get_structure(message);
    EXPECT_TRUE(gst_structure_has_name(structure, "speechenhance"));
    EXPECT_TRUE(gst_structure_get_double(structure, "mic-db", &level));
    loudest = std::max(loudest, level);
    ++messages;
    gst_message_unref(message);
  }
  EXPECT_EQ(messages, 2);
  EXPECT_GT(loudest, -60);
}

TEST_F(GStreamer, TellsOfAReferenceOfAnotherRate) {
  add_reference(48000);
  start();
  std::thread other([&] { push(reference, {scene.refs[0]}, 0, 960, ten_ms, 48000); });
  push(mic, scene.mics, 0, length, ten_ms);
  other.join();
  GstMessage* message = gst_bus_timed_pop_filtered(bus, 10 * GST_SECOND, GST_MESSAGE_ERROR);
  ASSERT_NE(message, nullptr);
  GError* error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  EXPECT_NE(std::string(error->message).find("16000 Hz"), std::string::npos) << error->message;
  g_error_free(error);
  gst_message_unref(message);
}

// Settings one by one give what the preset gives; wrong ones change nothing.
TEST_F(GStreamer, HasSettingsAsProperties) {
  const char* kPeaks = "3000:3.5:2,5000:-2:1";
  g_object_set(mic->element, "peaks", kPeaks, "low-shelf-attenuation", 12.0, "limiter", TRUE,
               nullptr);
  g_object_set(mic->element, "amount", 0.5, nullptr);
  gchar* peaks = nullptr;
  gfloat attenuation = 0, amount = 0;
  g_object_get(mic->element, "peaks", &peaks, "low-shelf-attenuation", &attenuation, "amount",
               &amount, nullptr);
  EXPECT_STREQ(peaks, kPeaks);
  EXPECT_EQ(attenuation, 12.0f);
  EXPECT_EQ(amount, 0.5f);
  g_free(peaks);
  for (const char* wrong : {"3000", "3000:x:1", "10:3:1", "3000:3:2,"}) {
    g_test_expect_message(nullptr, G_LOG_LEVEL_WARNING, "*peaks is left as it was*");
    g_object_set(mic->element, "peaks", wrong, nullptr);
    g_test_assert_expected_messages();
    g_object_get(mic->element, "peaks", &peaks, nullptr);
    EXPECT_STREQ(peaks, kPeaks) << wrong;
    g_free(peaks);
  }
}

TEST_F(GStreamer, WorksFromFileToFile) {
  const TestFolder folder;
  write_sound(folder / "mic.wav", kWav16, kRate, 2, interleaved(scene.mics));
  write_sound(folder / "ref.wav", kWav16, kRate, 1, scene.refs[0]);
  const auto source = [&](const char* name) {
    return " filesrc location=" + folder / (std::string(name) + ".wav") + " ! wavparse ! e.";
  };
  const std::string command =
      "gst-launch-1.0 -q speechenhance name=e preset=voice delay=0 ! wavenc"
      " ! filesink location=" +
      folder / "out.wav" + source("mic") + "sink" + source("ref") + "reference";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  const Sound in = read_sound(folder / "mic.wav"), out = read_sound(folder / "out.wav");
  for (std::size_t i = 0; i < length; ++i) {
    for (std::size_t c = 0; c < 2; ++c) scene.mics[c][i] = in.samples[2 * i + c];
  }
  scene.refs[0] = read_sound(folder / "ref.wav").samples;
  std::vector<float> tools = by_tool(scene, kRate, "voice", 0);
  for (float& sample : tools) {
    sample = std::trunc(std::clamp(sample * 32768.0f, -32768.0f, 32767.0f)) / 32768.0f;
  }
  EXPECT_EQ(out.samples, tools);
}

// A live microphone does not wait for a reference that never comes.
TEST_F(GStreamer, GoesOnWithoutALateReference) {
  const TestFolder folder;
  const std::string source =
      " audiotestsrc is-live=true num-buffers=20 ! audio/x-raw,rate=48000 ! ";
  const std::string command =
      "timeout 20 gst-launch-1.0 -q speechenhance name=e ! wavenc ! filesink location=" +
      folder / "out.wav" + source + "e.sink" + source + "valve drop=true ! e.reference";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  EXPECT_EQ(read_sound(folder / "out.wav").samples.size(), 20u * 1024u);
}

}  // namespace
}  // namespace se_tool
