#include "settings.h"

#include <stdio.h>
#include <string.h>

enum {
  kMostPresets = 32,
  kOldPresets = 8,
  kPeaks = 10,
  kLowestShelfHz = 279,
  kHighestShelfHz = 7718
};

enum {
  kPreset,
  kMode,
  kAmount,
  kResidual,
  kNsResidual,
  kLimiter,
  kLimiterCeiling,
  kLimiterGain,
  kLowShelfHz,
  kLowShelfDb,
  kHighShelfHz,
  kHighShelfDb,
  kPeakList,
  kCount
};

static guint first_id;

// What presets were called before, and their names.
static const char* const kOldNames[][2] = {
#include "old_presets.def"
};

static GType preset_type(void) {
  static gsize type;
  if (g_once_init_enter(&type)) {
    static GEnumValue values[kMostPresets + kOldPresets + 1];
    gint count = 0;
    for (; count < kMostPresets && se_stream_preset_name(count); ++count) {
      values[count] =
          (GEnumValue){count, se_stream_preset_description(count), se_stream_preset_name(count)};
    }
    // Pipelines that name a preset as it was called before still work.
    GEnumValue* old = values + count;
    for (guint i = 0; i < G_N_ELEMENTS(kOldNames) && i < kOldPresets; ++i) {
      for (gint preset = 0; preset < count; ++preset) {
        if (strcmp(values[preset].value_nick, kOldNames[i][1]) != 0) continue;
        *old++ = (GEnumValue){preset, "Older name", kOldNames[i][0]};
      }
    }
    g_once_init_leave(&type, g_enum_register_static("SpeechEnhancePreset", values));
  }
  return type;
}

static GType mode_type(void) {
  static gsize type;
  static const GEnumValue values[] = {
      {SE_STREAM_DENOISE, "The denoised signal alone", "denoise"},
      {SE_STREAM_MIX, "Some of the unprocessed signal mixed in, see residual", "mix"},
      {SE_STREAM_SUPPRESS, "Mixed at ns-residual, then through the classical noise suppressor",
       "suppress"},
      {0, NULL, NULL}};
  if (g_once_init_enter(&type)) {
    g_once_init_leave(&type, g_enum_register_static("SpeechEnhanceMode", values));
  }
  return type;
}

static void take_preset(SeSettings* settings, gint preset) {
  settings->preset = preset;
  se_stream_get_preset(se_stream_preset_name(preset), &settings->stream);
  NnProcessConfig* engine = &settings->stream.engine;
  // What properties show of what is off.
  if (!engine->low_shelf.enable) engine->low_shelf.freq_hz = kLowestShelfHz;
  if (!engine->high_shelf.enable) engine->high_shelf.freq_hz = kHighestShelfHz;
  if (!engine->limiter_enable) engine->limiter_max_gain = 0.9f;
}

void se_settings_init(SeSettings* settings) {
  take_preset(settings, SE_DEFAULT_PRESET);
}

// As the property "peaks" has it; the caller frees it.
static gchar* peaks_text(const PeakBand peaks[kPeaks]) {
  GString* text = g_string_new(NULL);
  for (guint i = 0; i < kPeaks; ++i) {
    if (peaks[i].q <= 0) continue;
    gchar db[G_ASCII_DTOSTR_BUF_SIZE];
    g_ascii_formatd(db, sizeof db, "%g", (double)peaks[i].gain_db);
    g_string_append_printf(text, "%s%d:%s:%d", text->len ? "," : "", peaks[i].center_hz, db,
                           peaks[i].q);
  }
  return g_string_free(text, FALSE);
}

guint se_settings_install(GObjectClass* klass, guint first) {
  const GParamFlags flags =
      (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
  first_id = first;
  SeSettings defaults;
  se_settings_init(&defaults);
  const NnProcessConfig* engine = &defaults.stream.engine;
  gchar* peaks = peaks_text(engine->peak);
  GParamSpec* const properties[kCount] = {
      [kPreset] =
          g_param_spec_enum("preset", "Preset",
                            "Sets all of the other settings of the sound, from amount to residual",
                            preset_type(), defaults.preset, flags),
      [kMode] = g_param_spec_enum("mode", "Mode", "What is done to the sound", mode_type(),
                                  defaults.stream.mode, flags),
      [kAmount] = g_param_spec_float(
          "amount", "Amount",
          "1: enhanced; 0: as it came in, with the same latency; between: mixed", 0, 1, 1, flags),
      [kResidual] = g_param_spec_int("residual", "Residual",
                                     "Attenuation of the unprocessed signal with mode mix, dB", 0,
                                     120, engine->residual_db, flags),
      [kNsResidual] =
          g_param_spec_int("ns-residual", "Residual for the suppressor",
                           "Attenuation of the unprocessed signal with mode suppress, dB", 10, 130,
                           engine->ns_residual_db, flags),
      [kLimiter] = g_param_spec_boolean("limiter", "Limiter", "Limit the peaks of the output",
                                        engine->limiter_enable, flags),
      [kLimiterCeiling] = g_param_spec_float("limiter-ceiling", "Limiter's ceiling",
                                             "Limit to this fraction of full scale", 0.01f, 1,
                                             engine->limiter_max_gain, flags),
      [kLimiterGain] = g_param_spec_float("limiter-gain", "Limiter's gain",
                                          "Amplify by this much ahead of the limiter, dB", 0, 60,
                                          engine->limiter_level_db, flags),
      [kLowShelfHz] = g_param_spec_float("low-shelf-frequency", "Low shelf's frequency",
                                         "Attenuate below this, Hz", kLowestShelfHz, 8000,
                                         kLowestShelfHz, flags),
      [kLowShelfDb] = g_param_spec_float("low-shelf-attenuation", "Low shelf's attenuation",
                                         "Attenuate by this much, dB (0: off)", 0, 120, 0, flags),
      [kHighShelfHz] = g_param_spec_float("high-shelf-frequency", "High shelf's frequency",
                                          "Attenuate above this, Hz", 0, kHighestShelfHz,
                                          kHighestShelfHz, flags),
      [kHighShelfDb] = g_param_spec_float("high-shelf-attenuation", "High shelf's attenuation",
                                          "Attenuate by this much, dB (0: off)", 0, 120, 0, flags),
      [kPeakList] = g_param_spec_string("peaks", "Peaks",
                                        "Up to ten bands HZ:DB:Q with commas between them: the "
                                        "level around HZ is changed by DB in a "
                                        "band HZ / Q wide",
                                        peaks, flags),
  };
  for (guint i = 0; i < kCount; ++i)
    g_object_class_install_property(klass, first + i, properties[i]);
  g_free(peaks);
  return first + kCount;
}

static void set_shelf_db(ShelfBand* shelf, const GValue* value) {
  shelf->atten_db = g_value_get_float(value);
  shelf->enable = shelf->atten_db > 0;
}

static const char* set_peaks(PeakBand peaks[kPeaks], const char* text) {
  memset(peaks, 0, kPeaks * sizeof *peaks);
  if (!text || !*text) return NULL;
  const char* wrong = NULL;
  gchar** items = g_strsplit(text, ",", -1);
  for (guint i = 0; items[i] && !wrong; ++i) {
    gchar** fields = g_strsplit(items[i], ":", -1);
    gint64 hz, q;
    gchar* end = NULL;
    if (i == kPeaks) {
      wrong = "peaks: there are ten at most";
    } else if (g_strv_length(fields) != 3 ||
               !g_ascii_string_to_signed(fields[0], 10, 0, G_MAXINT, &hz, NULL) ||
               !g_ascii_string_to_signed(fields[2], 10, 0, G_MAXINT, &q, NULL)) {
      wrong = "peaks: write HZ:DB:Q, such as 3000:3:2,5000:-2.5:1";
    } else {
      peaks[i] = (PeakBand){(gint32)hz, (float)g_ascii_strtod(fields[1], &end), (gint32)q};
      if (end == fields[1] || *end != '\0') wrong = "peaks: DB of HZ:DB:Q is not a number";
    }
    g_strfreev(fields);
  }
  g_strfreev(items);
  return wrong;
}

const char* se_settings_set(SeSettings* settings, guint property, const GValue* value) {
  SeSettings changed = *settings;
  SEStreamSettings* stream = &changed.stream;
  NnProcessConfig* engine = &stream->engine;
  const char* wrong = NULL;
  switch (property - first_id) {
    case kPreset:
      take_preset(&changed, g_value_get_enum(value));
      break;
    case kMode:
      stream->mode = g_value_get_enum(value);
      break;
    case kAmount:
      stream->amount = g_value_get_float(value);
      break;
    case kResidual:
      engine->residual_db = g_value_get_int(value);
      break;
    case kNsResidual:
      engine->ns_residual_db = g_value_get_int(value);
      break;
    case kLimiter:
      engine->limiter_enable = g_value_get_boolean(value);
      break;
    case kLimiterCeiling:
      engine->limiter_max_gain = g_value_get_float(value);
      break;
    case kLimiterGain:
      engine->limiter_level_db = g_value_get_float(value);
      break;
    case kLowShelfHz:
      engine->low_shelf.freq_hz = g_value_get_float(value);
      break;
    case kLowShelfDb:
      set_shelf_db(&engine->low_shelf, value);
      break;
    case kHighShelfHz:
      engine->high_shelf.freq_hz = g_value_get_float(value);
      break;
    case kHighShelfDb:
      set_shelf_db(&engine->high_shelf, value);
      break;
    default:
      wrong = set_peaks(engine->peak, g_value_get_string(value));
      break;
  }
  const int32_t result = se_stream_check_settings(stream);
  if (!wrong && result != SE_STREAM_OK) wrong = se_stream_error_text(result);
  if (!wrong) *settings = changed;
  return wrong;
}

void se_settings_get(const SeSettings* settings, guint property, GValue* value) {
  const SEStreamSettings* stream = &settings->stream;
  const NnProcessConfig* engine = &stream->engine;
  switch (property - first_id) {
    case kPreset:
      g_value_set_enum(value, settings->preset);
      break;
    case kMode:
      g_value_set_enum(value, stream->mode);
      break;
    case kAmount:
      g_value_set_float(value, stream->amount);
      break;
    case kResidual:
      g_value_set_int(value, engine->residual_db);
      break;
    case kNsResidual:
      g_value_set_int(value, engine->ns_residual_db);
      break;
    case kLimiter:
      g_value_set_boolean(value, engine->limiter_enable != 0);
      break;
    case kLimiterCeiling:
      g_value_set_float(value, engine->limiter_max_gain);
      break;
    case kLimiterGain:
      g_value_set_float(value, engine->limiter_level_db);
      break;
    case kLowShelfHz:
      g_value_set_float(value, engine->low_shelf.freq_hz);
      break;
    case kLowShelfDb:
      g_value_set_float(value, engine->low_shelf.enable ? engine->low_shelf.atten_db : 0);
      break;
    case kHighShelfHz:
      g_value_set_float(value, engine->high_shelf.freq_hz);
      break;
    case kHighShelfDb:
      g_value_set_float(value, engine->high_shelf.enable ? engine->high_shelf.atten_db : 0);
      break;
    default:
      g_value_take_string(value, peaks_text(engine->peak));
      break;
  }
}
