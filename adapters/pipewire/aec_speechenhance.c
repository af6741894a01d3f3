// PipeWire's echo-cancel module asks a plugin for the signal processing: this is one, over
// libspeechenhance-stream. The module hands over planar floats of any rate and length, as many
// channels captured as played, one or two; the clean voice goes to every channel of the source.
//
// Arguments (aec.args of the module):
//   speechenhance.preset   name of a preset, default "call"
//   speechenhance.amount   0 to 1: the enhanced sound's share, default 1
//   speechenhance.delay    "auto" or milliseconds, default "auto": how much later the echo is
//   captured
//                          than the reference is played
//
// init() runs in the module's main loop, run() in its data loop: it neither allocates nor locks.
#include <errno.h>
#include <spa/interfaces/audio/aec.h>
#include <spa/support/log.h>
#include <spa/support/plugin.h>
#include <spa/utils/dict.h>
#include <spa/utils/names.h>
#include <spa/utils/result.h>
#include <spa/utils/string.h>
#include <speechenhance/stream.h>
#include <string.h>

#if SPA_VERSION_AUDIO_AEC != 1
#error "aec_speechenhance.c is written for version 1 of spa/interfaces/audio/aec.h"
#endif

enum { kMostChannels = 2 };

struct aec {
  struct spa_handle handle;
  struct spa_audio_aec interface;
  struct spa_log* log;
  struct spa_hook_list hooks;
  SEStream* stream;
  uint32_t channels;
};

static const char* argument(const struct spa_dict* args, const char* key, const char* otherwise) {
  const char* value = args ? spa_dict_lookup(args, key) : NULL;
  return value ? value : otherwise;
}

static int add_listener(void* object, struct spa_hook* listener,
                        const struct spa_audio_aec_events* events, void* data) {
  struct aec* aec = object;
  spa_hook_list_append(&aec->hooks, listener, events, data);
  return 0;
}

static int refuse(struct aec* aec, const char* key, const char* value, const char* wanted) {
  spa_log_error(aec->log, "speechenhance: %s is \"%s\": %s", key, value, wanted);
  return -EINVAL;
}

// Settings from the module's arguments. 0, or -EINVAL after a line in the log.
static int read_arguments(struct aec* aec, const struct spa_dict* args, SEStreamSettings* settings,
                          int32_t* delay_ms) {
  const char* preset = argument(args, "speechenhance.preset", "call");
  const char* amount = argument(args, "speechenhance.amount", "1");
  const char* delay = argument(args, "speechenhance.delay", "auto");
  if (se_stream_get_preset(preset, settings) != SE_STREAM_OK) {
    return refuse(aec, "speechenhance.preset", preset, se_stream_error_text(SE_STREAM_NO_PRESET));
  }
  if (!spa_atof(amount, &settings->amount) || se_stream_check_settings(settings) != SE_STREAM_OK) {
    return refuse(aec, "speechenhance.amount", amount, se_stream_error_text(SE_STREAM_BAD_AMOUNT));
  }
  *delay_ms = SE_STREAM_DELAY_AUTO;
  if (!spa_streq(delay, "auto") && !spa_atoi32(delay, delay_ms, 10)) {
    return refuse(aec, "speechenhance.delay", delay, se_stream_error_text(SE_STREAM_BAD_DELAY));
  }
  return 0;
}

static int init(void* object, const struct spa_dict* args, const struct spa_audio_info_raw* info) {
  struct aec* aec = object;
  SEStreamSettings settings;
  int32_t delay_ms;
  const int refused = read_arguments(aec, args, &settings, &delay_ms);
  if (refused) return refused;

  const int32_t channels = (int32_t)info->channels;
  SEStream* stream = NULL;
  int32_t result = se_stream_create((int32_t)info->rate, channels, channels, delay_ms, &stream);
  if (result == SE_STREAM_OK) result = se_stream_set_settings(stream, &settings);
  if (result != SE_STREAM_OK) {
    spa_log_error(aec->log, "speechenhance: %u Hz, %u channels: %s", info->rate, info->channels,
                  se_stream_error_text(result));
    se_stream_destroy(stream);
    return result == SE_STREAM_NO_MEMORY ? -ENOMEM : -EINVAL;
  }
  se_stream_destroy(aec->stream);
  aec->stream = stream;
  aec->channels = info->channels;
  return 0;
}

static int run(void* object, const float* rec[], const float* play[], float* out[],
               uint32_t n_samples) {
  struct aec* aec = object;
  if (!aec->stream) return -EIO;
  se_stream_process(aec->stream, rec, play, out[0], (int32_t)n_samples);
  for (uint32_t c = 1; c < aec->channels; ++c) memcpy(out[c], out[0], n_samples * sizeof(float));
  return 0;
}

// After a pause the sound before it says nothing about what comes.
static int activate(void* object) {
  struct aec* aec = object;
  if (aec->stream) se_stream_reset(aec->stream);
  return 0;
}

static const struct spa_audio_aec_methods kMethods = {
    SPA_VERSION_AUDIO_AEC_METHODS, .add_listener = add_listener, .init = init, .run = run,
    .activate = activate,
};

static int get_interface(struct spa_handle* handle, const char* type, void** interface) {
  struct aec* aec = (struct aec*)handle;
  if (!spa_streq(type, SPA_TYPE_INTERFACE_AUDIO_AEC)) return -ENOENT;
  *interface = &aec->interface;
  return 0;
}

static int clear(struct spa_handle* handle) {
  struct aec* aec = (struct aec*)handle;
  se_stream_destroy(aec->stream);
  aec->stream = NULL;
  return 0;
}

static size_t get_size(const struct spa_handle_factory* factory, const struct spa_dict* params) {
  (void)factory;
  (void)params;
  return sizeof(struct aec);
}

static int init_handle(const struct spa_handle_factory* factory, struct spa_handle* handle,
                       const struct spa_dict* info, const struct spa_support* support,
                       uint32_t n_support) {
  (void)factory;
  (void)info;
  struct aec* aec = (struct aec*)handle;
  memset(aec, 0, sizeof *aec);
  handle->get_interface = get_interface;
  handle->clear = clear;
  aec->interface.iface =
      SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_AUDIO_AEC, SPA_VERSION_AUDIO_AEC, &kMethods, aec);
  aec->interface.name = "speechenhance";
  aec->log = spa_support_find(support, n_support, SPA_TYPE_INTERFACE_Log);
  spa_hook_list_init(&aec->hooks);
  return 0;
}

static int enum_interface_info(const struct spa_handle_factory* factory,
                               const struct spa_interface_info** info, uint32_t* index) {
  static const struct spa_interface_info kInterface = {SPA_TYPE_INTERFACE_AUDIO_AEC};
  (void)factory;
  if (*index != 0) return 0;
  *info = &kInterface;
  ++*index;
  return 1;
}

static const struct spa_handle_factory kFactory = {
    SPA_VERSION_HANDLE_FACTORY, SPA_NAME_AEC, NULL, get_size, init_handle, enum_interface_info,
};

SPA_EXPORT int spa_handle_factory_enum(const struct spa_handle_factory** factory, uint32_t* index) {
  if (*index != 0) return 0;
  *factory = &kFactory;
  ++*index;
  return 1;
}
