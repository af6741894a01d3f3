// The stream as a LADSPA plugin: one microphone, for hosts that have nothing else.
//
// Ports: the sound in and out, the number of a preset, the amount of 0 to 1, and the latency in
// samples in a control port called "latency", where hosts look for it.
#include <ladspa.h>
#include <math.h>
#include <speechenhance/stream.h>
#include <stdlib.h>

enum Port { kIn, kOut, kPreset, kAmount, kLatency, kPorts };

enum { kUniqueId = 0x5345, kLastPreset = SE_LAST_PRESET };

struct Plugin {
  SEStream* stream;
  LADSPA_Data* ports[kPorts];
  float preset, amount;  // what the settings of the stream were made from
};

static LADSPA_Handle instantiate(const LADSPA_Descriptor* descriptor, unsigned long rate) {
  (void)descriptor;
  struct Plugin* plugin = calloc(1, sizeof *plugin);
  if (!plugin) return NULL;
  if (rate > SE_STREAM_MAX_RATE ||
      se_stream_create((int32_t)rate, 1, 0, 0, &plugin->stream) != SE_STREAM_OK) {
    free(plugin);
    return NULL;
  }
  plugin->preset = plugin->amount = NAN;  // unlike any: the first run sets them
  return plugin;
}

static void connect_port(LADSPA_Handle instance, unsigned long port, LADSPA_Data* data) {
  struct Plugin* plugin = instance;
  if (port < kPorts) plugin->ports[port] = data;
}

static void activate(LADSPA_Handle instance) {
  struct Plugin* plugin = instance;
  se_stream_reset(plugin->stream);
}

// A setting outside its range changes nothing.
static void apply_controls(struct Plugin* plugin) {
  const float preset = *plugin->ports[kPreset];
  const float amount = *plugin->ports[kAmount];
  if (preset == plugin->preset && amount == plugin->amount) return;
  plugin->preset = preset;
  plugin->amount = amount;
  SEStreamSettings settings;
  const char* name = se_stream_preset_name((int32_t)lrintf(preset));
  if (!name || se_stream_get_preset(name, &settings) != SE_STREAM_OK) return;
  settings.amount = amount;
  se_stream_set_settings(plugin->stream, &settings);
}

static void run(LADSPA_Handle instance, unsigned long count) {
  struct Plugin* plugin = instance;
  apply_controls(plugin);
  const float* mics[1] = {plugin->ports[kIn]};
  se_stream_process(plugin->stream, mics, NULL, plugin->ports[kOut], (int32_t)count);
  if (plugin->ports[kLatency]) *plugin->ports[kLatency] = (float)se_stream_latency(plugin->stream);
}

static void cleanup(LADSPA_Handle instance) {
  struct Plugin* plugin = instance;
  se_stream_destroy(plugin->stream);
  free(plugin);
}

static const LADSPA_PortDescriptor kPortKinds[kPorts] = {
    [kIn] = LADSPA_PORT_INPUT | LADSPA_PORT_AUDIO,
    [kOut] = LADSPA_PORT_OUTPUT | LADSPA_PORT_AUDIO,
    [kPreset] = LADSPA_PORT_INPUT | LADSPA_PORT_CONTROL,
    [kAmount] = LADSPA_PORT_INPUT | LADSPA_PORT_CONTROL,
    [kLatency] = LADSPA_PORT_OUTPUT | LADSPA_PORT_CONTROL,
};

static const char* const kPortNames[kPorts] = {
    [kIn] = "Input",
    [kOut] = "Output",
    [kPreset] = "Preset (" SE_PRESET_NUMBERS ")",
    [kAmount] = "Amount (0: as it came in, 1: enhanced)",
    [kLatency] = "latency",
};

enum { kBounded = LADSPA_HINT_BOUNDED_BELOW | LADSPA_HINT_BOUNDED_ABOVE };

static const LADSPA_PortRangeHint kHints[kPorts] = {
    [kPreset] = {kBounded | LADSPA_HINT_INTEGER | LADSPA_HINT_DEFAULT_1, 0, kLastPreset},
    [kAmount] = {kBounded | LADSPA_HINT_DEFAULT_1, 0, 1},
};

static const LADSPA_Descriptor kDescriptor = {
    .UniqueID = kUniqueId,
    .Label = "speechenhance",
    .Properties = LADSPA_PROPERTY_HARD_RT_CAPABLE,
    .Name = "Speech Enhance (mono)",
    .Maker = "The speechenhance developers",
    .Copyright = "Apache-2.0",
    .PortCount = kPorts,
    .PortDescriptors = kPortKinds,
    .PortNames = kPortNames,
    .PortRangeHints = kHints,
    .instantiate = instantiate,
    .connect_port = connect_port,
    .activate = activate,
    .run = run,
    .cleanup = cleanup,
};

__attribute__((visibility("default"))) const LADSPA_Descriptor* ladspa_descriptor(
    unsigned long index) {
  return index == 0 ? &kDescriptor : NULL;
}
