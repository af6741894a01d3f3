// What can be set on the element, and seen of it: the stream's delay, the settings of the engine
// (see settings.h), the statistics.
#include "enhance_element.h"

GstStructure* se_enhance_statistics(GstSpeechEnhance* self) {
  SEStreamStatus status = {-150, -150, -150, 0, 0, 0, 0, {0}};
  if (self->stream) se_stream_get_status(self->stream, &status);
  return gst_structure_new(
      "speechenhance", "mic-db", G_TYPE_DOUBLE, (double)status.mic_db, "reference-db",
      G_TYPE_DOUBLE, (double)status.ref_db, "out-db", G_TYPE_DOUBLE, (double)status.out_db,
      "echo-reduction-db", G_TYPE_DOUBLE, (double)status.echo_reduction_db, "delay-found",
      G_TYPE_BOOLEAN, status.delay_found != 0, "delay-ms", G_TYPE_DOUBLE, (double)status.delay_ms,
      "delay-confidence", G_TYPE_DOUBLE, (double)status.delay_confidence, NULL);
}

enum { kDelay = 1, kAutoDelay, kProbe, kPostMessages, kInterval, kStats, kFirstSetting };

// With the object's lock.
static void change_delay(GstSpeechEnhance* self) {
  if (!self->stream) return;
  const int32_t delay = self->auto_delay ? SE_STREAM_DELAY_AUTO : self->delay_ms;
  // A more negative one changes the latency.
  if (se_stream_set_delay(self->stream, delay) != SE_STREAM_OK) self->renew = TRUE;
}

static void set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
  GstSpeechEnhance* self = SE_ENHANCE(object);
  const char* wrong = NULL;
  GST_OBJECT_LOCK(self);
  switch (id) {
    case kDelay:
      self->delay_ms = g_value_get_int(value);
      self->auto_delay = FALSE;
      change_delay(self);
      break;
    case kAutoDelay:
      self->auto_delay = g_value_get_boolean(value);
      change_delay(self);
      break;
    case kProbe:
      g_free(self->probe_name);
      self->probe_name = g_value_dup_string(value);
      break;
    case kPostMessages:
      self->post_messages = g_value_get_boolean(value);
      break;
    case kInterval:
      self->interval = g_value_get_uint64(value);
      break;
    default:
      wrong = se_settings_set(&self->settings, id, value);
      if (self->stream) se_stream_set_settings(self->stream, &self->settings.stream);
      break;
  }
  GST_OBJECT_UNLOCK(self);
  if (wrong) g_warning("speechenhance: %s is left as it was: %s", spec->name, wrong);
}

static void get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
  (void)spec;
  GstSpeechEnhance* self = SE_ENHANCE(object);
  GST_OBJECT_LOCK(self);
  switch (id) {
    case kDelay:
      g_value_set_int(value, self->delay_ms);
      break;
    case kAutoDelay:
      g_value_set_boolean(value, self->auto_delay);
      break;
    case kProbe:
      g_value_set_string(value, self->probe_name);
      break;
    case kPostMessages:
      g_value_set_boolean(value, self->post_messages);
      break;
    case kInterval:
      g_value_set_uint64(value, self->interval);
      break;
    case kStats:
      g_value_take_boxed(value, se_enhance_statistics(self));
      break;
    default:
      se_settings_get(&self->settings, id, value);
      break;
  }
  GST_OBJECT_UNLOCK(self);
}

void se_enhance_init_properties(GObjectClass* klass) {
  const GParamFlags ready =
      (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  const GParamFlags any =
      (GParamFlags)(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
  const GParamFlags shown = (GParamFlags)(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
  klass->set_property = set_property;
  klass->get_property = get_property;
  se_settings_install(klass, kFirstSetting);
  g_object_class_install_property(
      klass, kDelay,
      g_param_spec_int(
          "delay", "Delay",
          "By how many ms the echo comes after the reference; setting it turns auto-delay "
          "off. A negative one adds to the latency",
          -SE_STREAM_MAX_DELAY_MS, SE_STREAM_MAX_DELAY_MS, 0, any));
  g_object_class_install_property(
      klass, kAutoDelay,
      g_param_spec_boolean("auto-delay", "Automatic delay",
                           "Find the delay, 0 to 500 ms, from the sound and follow it", TRUE, any));
  g_object_class_install_property(
      klass, kProbe,
      g_param_spec_string(
          "probe", "Probe",
          "Name of the speechenhanceprobe whose sound is the reference, unless the pad "
          "reference is there",
          NULL, ready));
  g_object_class_install_property(
      klass, kPostMessages,
      g_param_spec_boolean(
          "post-messages", "Post messages",
          "Post an element message \"speechenhance\" with stats and running-time at each "
          "interval",
          TRUE, any));
  g_object_class_install_property(
      klass, kInterval,
      g_param_spec_uint64("interval", "Interval", "Time between messages, ns", 1, G_MAXUINT64 / 2,
                          GST_SECOND, any));
  g_object_class_install_property(
      klass, kStats,
      g_param_spec_boxed(
          "stats", "Statistics",
          "Levels of microphone, reference and output, echo reduction (dB), the delay "
          "found (ms)",
          GST_TYPE_STRUCTURE, shown));
}
