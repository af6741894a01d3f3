// The stream as an LV2 plugin: speechenhance.ttl.in describes its ports in this order.
//
// Hosts give a port that nothing is connected to either no buffer or one of silence. Until
// something is heard from a second microphone, the main one, which is the one that is enhanced,
// stands for it.
//
// All that a session has to keep is in control ports, which hosts keep by themselves.
#include <lv2/core/lv2.h>
#include <math.h>
#include <speechenhance/stream.h>
#include <stdbool.h>
#include <stdlib.h>

enum Port {
  kMic,
  kMic2,
  kReference,
  kOut,
  kLatency,        // samples
  kPreset,         // its number
  kAmount,         // %
  kFollowDelay,    // 0 or 1
  kDelay,          // ms, if it is not followed
  kFoundDelay,     // ms
  kEchoReduction,  // dB
  kPorts
};

// What the settings of the stream were made from.
struct Controls {
  float preset, amount, follow_delay, delay;
};

struct Plugin {
  SEStream* stream;
  float* ports[kPorts];
  struct Controls applied;
  bool heard_mic_2;  // since it was activated
};

static LV2_Handle instantiate(const LV2_Descriptor* descriptor, double rate, const char* bundle,
                              const LV2_Feature* const* features) {
  (void)descriptor;
  (void)bundle;
  (void)features;
  struct Plugin* plugin = calloc(1, sizeof *plugin);
  if (!plugin) return NULL;
  if (se_stream_create((int32_t)lrint(rate), 2, 1, SE_STREAM_DELAY_AUTO, &plugin->stream) !=
      SE_STREAM_OK) {
    free(plugin);
    return NULL;
  }
  plugin->applied = (struct Controls){NAN, NAN, NAN, NAN};  // unlike any: the first run sets all
  return plugin;
}

static void connect_port(LV2_Handle instance, uint32_t port, void* data) {
  struct Plugin* plugin = instance;
  if (port < kPorts) plugin->ports[port] = data;
}

static void activate(LV2_Handle instance) {
  struct Plugin* plugin = instance;
  se_stream_reset(plugin->stream);
  plugin->heard_mic_2 = false;
}

static float control(const struct Plugin* plugin, enum Port port, float otherwise) {
  return plugin->ports[port] ? *plugin->ports[port] : otherwise;
}

static void report(const struct Plugin* plugin, enum Port port, float value) {
  if (plugin->ports[port]) *plugin->ports[port] = value;
}

// A setting outside its range changes nothing.
static void apply_controls(struct Plugin* plugin) {
  const struct Controls now = {control(plugin, kPreset, 0), control(plugin, kAmount, 100),
                               control(plugin, kFollowDelay, 1), control(plugin, kDelay, 0)};
  struct Controls* applied = &plugin->applied;
  if (now.preset != applied->preset || now.amount != applied->amount) {
    SEStreamSettings settings;
    const char* name = se_stream_preset_name((int32_t)lrintf(now.preset));
    if (name && se_stream_get_preset(name, &settings) == SE_STREAM_OK) {
      settings.amount = now.amount / 100;
      se_stream_set_settings(plugin->stream, &settings);
    }
  }
  if (now.follow_delay != applied->follow_delay || now.delay != applied->delay) {
    se_stream_set_delay(plugin->stream,
                        now.follow_delay > 0 ? SE_STREAM_DELAY_AUTO : (int32_t)lrintf(now.delay));
  }
  *applied = now;
}

static const float* second_mic(struct Plugin* plugin, uint32_t count) {
  const float* mic_2 = plugin->ports[kMic2];
  if (!mic_2) return plugin->ports[kMic];
  for (uint32_t i = 0; i < count && !plugin->heard_mic_2; ++i) plugin->heard_mic_2 = mic_2[i] != 0;
  return plugin->heard_mic_2 ? mic_2 : plugin->ports[kMic];
}

static void run(LV2_Handle instance, uint32_t count) {
  struct Plugin* plugin = instance;
  apply_controls(plugin);
  const float* mics[2] = {second_mic(plugin, count), plugin->ports[kMic]};
  const float* refs[1] = {plugin->ports[kReference]};
  if (plugin->ports[kOut]) {
    se_stream_process(plugin->stream, mics, refs, plugin->ports[kOut], (int32_t)count);
  }

  SEStreamStatus status;
  se_stream_get_status(plugin->stream, &status);
  report(plugin, kLatency, (float)se_stream_latency(plugin->stream));
  report(plugin, kFoundDelay, status.delay_ms);
  report(plugin, kEchoReduction, status.echo_reduction_db);
}

static void cleanup(LV2_Handle instance) {
  struct Plugin* plugin = instance;
  se_stream_destroy(plugin->stream);
  free(plugin);
}

static const LV2_Descriptor kDescriptor = {
    "urn:speechenhance:voice", instantiate, connect_port, activate, run, NULL, cleanup, NULL,
};

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(uint32_t index) {
  return index == 0 ? &kDescriptor : NULL;
}
