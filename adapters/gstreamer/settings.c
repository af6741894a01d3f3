#include "settings.h"

#include <stddef.h>
#include <string.h>

enum {
  kMostPresets = 32,
  kOldPresets = 8,
  kPeaks = 10,
  kLowestShelfHz = 279,
  kHighestShelfHz = 7718
};

// A number of the settings that is its property's value.
typedef struct {
  const char *name, *nick, *blurb;
  GType type;  // of the field: int, float, or boolean in an int
  double low, high;
  gsize field;  // where it lies in SEStreamSettings
} Number;

#define FIELD(name) offsetof(SEStreamSettings, name)
static const Number kNumbers[] = {
    {"amount", "Amount", "1: enhanced; 0: as it came in, with the same latency; between: mixed",
     G_TYPE_FLOAT, 0, 1, FIELD(amount)},
    {"residual", "Residual", "Attenuation of the unprocessed signal with mode mix, dB", G_TYPE_INT,
     0, 120, FIELD(engine.residual_db)},
    {"ns-residual", "Residual for the suppressor",
     "Attenuation of the unprocessed signal with mode suppress, dB", G_TYPE_INT, 10, 130,
     FIELD(engine.ns_residual_db)},
    {"limiter", "Limiter", "Limit the peaks of the output", G_TYPE_BOOLEAN, 0, 1,
     FIELD(engine.limiter_enable)},
    {"limiter-ceiling", "Limiter's ceiling", "Limit to this fraction of full scale", G_TYPE_FLOAT,
     0.01f, 1, FIELD(engine.limiter_max_gain)},
    {"limiter-gain", "Limiter's gain", "Amplify by this much ahead of the limiter, dB",
     G_TYPE_FLOAT, 0, 60, FIELD(engine.limiter_level_db)},
    {"low-shelf-frequency", "Low shelf's frequency", "Attenuate below this, Hz", G_TYPE_FLOAT,
     kLowestShelfHz, 8000, FIELD(engine.low_shelf.freq_hz)},
    {"low-shelf-attenuation", "Low shelf's attenuation", "Attenuate by this much, dB (0: off)",
     G_TYPE_FLOAT, 0, 120, FIELD(engine.low_shelf.atten_db)},
    {"high-shelf-frequency", "High shelf's frequency", "Attenuate above this, Hz", G_TYPE_FLOAT, 0,
     kHighestShelfHz, FIELD(engine.high_shelf.freq_hz)},
    {"high-shelf-attenuation", "High shelf's attenuation", "Attenuate by this much, dB (0: off)",
     G_TYPE_FLOAT, 0, 120, FIELD(engine.high_shelf.atten_db)},
};

// Identities, from `first_id` on: of numbers one after another, of the others by name.
enum { kPreset, kMode, kNumber, kPeakList = kNumber + G_N_ELEMENTS(kNumbers), kCount };

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
  if (!engine->low_shelf.enable) engine->low_shelf = (ShelfBand){0, kLowestShelfHz, 0};
  if (!engine->high_shelf.enable) engine->high_shelf = (ShelfBand){0, kHighestShelfHz, 0};
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

static GParamSpec* number_spec(const Number* number, const SEStreamSettings* defaults,
                               GParamFlags flags) {
  const void* field = (const char*)defaults + number->field;
  switch (number->type) {
    case G_TYPE_INT:
      return g_param_spec_int(number->name, number->nick, number->blurb, (gint)number->low,
                              (gint)number->high, *(const gint*)field, flags);
    case G_TYPE_BOOLEAN:
      return g_param_spec_boolean(number->name, number->nick, number->blurb, *(const gint*)field,
                                  flags);
    default:
      return g_param_spec_float(number->name, number->nick, number->blurb, (float)number->low,
                                (float)number->high, *(const float*)field, flags);
  }
}

guint se_settings_install(GObjectClass* klass, guint first) {
  const GParamFlags flags =
      (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
  first_id = first;
  SeSettings defaults;
  se_settings_init(&defaults);
  g_object_class_install_property(
      klass, first + kPreset,
      g_param_spec_enum("preset", "Preset",
                        "Sets all of the other settings of the sound, from amount to residual",
                        preset_type(), defaults.preset, flags));
  g_object_class_install_property(klass, first + kMode,
                                  g_param_spec_enum("mode", "Mode", "What is done to the sound",
                                                    mode_type(), defaults.stream.mode, flags));
  for (guint i = 0; i < G_N_ELEMENTS(kNumbers); ++i) {
    g_object_class_install_property(klass, first + kNumber + i,
                                    number_spec(&kNumbers[i], &defaults.stream, flags));
  }
  gchar* peaks = peaks_text(defaults.stream.engine.peak);
  g_object_class_install_property(
      klass, first + kPeakList,
      g_param_spec_string("peaks", "Peaks",
                          "Up to ten bands HZ:DB:Q with commas between them: the "
                          "level around HZ is changed by DB in a "
                          "band HZ / Q wide",
                          peaks, flags));
  g_free(peaks);
  return first + kCount;
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

static void set_number(SEStreamSettings* stream, const Number* number, const GValue* value) {
  void* field = (char*)stream + number->field;
  if (number->type == G_TYPE_FLOAT) *(float*)field = g_value_get_float(value);
  if (number->type == G_TYPE_INT) *(gint*)field = g_value_get_int(value);
  if (number->type == G_TYPE_BOOLEAN) *(gint*)field = g_value_get_boolean(value);
  NnProcessConfig* engine = &stream->engine;
  engine->low_shelf.enable = engine->low_shelf.atten_db > 0;
  engine->high_shelf.enable = engine->high_shelf.atten_db > 0;
}

const char* se_settings_set(SeSettings* settings, guint property, const GValue* value) {
  SeSettings changed = *settings;
  const char* wrong = NULL;
  switch (property - first_id) {
    case kPreset:
      take_preset(&changed, g_value_get_enum(value));
      break;
    case kMode:
      changed.stream.mode = g_value_get_enum(value);
      break;
    case kPeakList:
      wrong = set_peaks(changed.stream.engine.peak, g_value_get_string(value));
      break;
    default:
      set_number(&changed.stream, &kNumbers[property - first_id - kNumber], value);
      break;
  }
  const int32_t result = se_stream_check_settings(&changed.stream);
  if (!wrong && result != SE_STREAM_OK) wrong = se_stream_error_text(result);
  if (!wrong) *settings = changed;
  return wrong;
}

static void get_number(const SEStreamSettings* stream, const Number* number, GValue* value) {
  const void* field = (const char*)stream + number->field;
  if (number->type == G_TYPE_FLOAT) g_value_set_float(value, *(const float*)field);
  if (number->type == G_TYPE_INT) g_value_set_int(value, *(const gint*)field);
  if (number->type == G_TYPE_BOOLEAN) g_value_set_boolean(value, *(const gint*)field != 0);
}

void se_settings_get(const SeSettings* settings, guint property, GValue* value) {
  switch (property - first_id) {
    case kPreset:
      g_value_set_enum(value, settings->preset);
      break;
    case kMode:
      g_value_set_enum(value, settings->stream.mode);
      break;
    case kPeakList:
      g_value_take_string(value, peaks_text(settings->stream.engine.peak));
      break;
    default:
      get_number(&settings->stream, &kNumbers[property - first_id - kNumber], value);
      break;
  }
}
