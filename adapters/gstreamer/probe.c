#include "probe.h"

#include <string.h>

#include "samples.h"
#include "timed_pad.h"

enum { kSecondsKept = 3 };

typedef struct {
  GstBuffer* buffer;
  gint64 start, end;  // frames since running time 0
} Piece;

struct _GstSpeechEnhanceProbe {
  GstBaseTransform parent;
  GMutex mutex;  // of what follows
  SeTimeline timeline;
  GQueue pieces;         // oldest first
  GstClockTime latency;  // between a buffer's running time and its sound in the air
};

typedef struct {
  GstBaseTransformClass parent_class;
} GstSpeechEnhanceProbeClass;

#define SE_PROBE(object) \
  (G_TYPE_CHECK_INSTANCE_CAST((object), SE_TYPE_PROBE, GstSpeechEnhanceProbe))
G_DEFINE_TYPE(GstSpeechEnhanceProbe, gst_speech_enhance_probe, GST_TYPE_BASE_TRANSFORM)

static GMutex all_mutex;
static GList* all_probes;  // not owned: a probe removes itself

static void free_piece(gpointer data) {
  Piece* piece = data;
  gst_buffer_unref(piece->buffer);
  g_free(piece);
}

// With the mutex held.
static void forget_sound(GstSpeechEnhanceProbe* probe) {
  g_queue_clear_full(&probe->pieces, free_piece);
  se_timeline_restart(&probe->timeline);
}

GstSpeechEnhanceProbe* se_probe_find(const char* name) {
  GstSpeechEnhanceProbe* found = NULL;
  g_mutex_lock(&all_mutex);
  for (GList* item = all_probes; item && !found; item = item->next) {
    gchar* its_name = gst_object_get_name(GST_OBJECT(item->data));
    if (g_strcmp0(its_name, name) == 0) found = gst_object_ref(item->data);
    g_free(its_name);
  }
  g_mutex_unlock(&all_mutex);
  return found;
}

gboolean se_probe_read(GstSpeechEnhanceProbe* probe, GstClockTime base_time, gint rate, gint64 from,
                       gint64 frames, float* const planar[2]) {
  for (int c = 0; c < 2; ++c) memset(planar[c], 0, (gsize)frames * sizeof(float));
  g_mutex_lock(&probe->mutex);
  const GstAudioInfo* info = &probe->timeline.info;
  const gboolean fits = probe->pieces.length == 0 || info->rate == rate;
  if (fits && probe->pieces.length > 0) {
    // The same time on the probe's own grid.
    const GstClockTime played = gst_element_get_base_time(GST_ELEMENT(probe)) + probe->latency;
    const GstClockTimeDiff later = GST_CLOCK_DIFF(played, base_time);
    const gint64 shift =
        (gint64)gst_util_uint64_scale_round((guint64)ABS(later), (guint64)rate, GST_SECOND);
    from += later < 0 ? -shift : shift;
    for (GList* item = probe->pieces.head; item; item = item->next) {
      const Piece* piece = item->data;
      const gint64 start = MAX(piece->start, from), end = MIN(piece->end, from + frames);
      if (start >= end) continue;
      float* const target[2] = {planar[0] + (start - from), planar[1] + (start - from)};
      se_read_samples(piece->buffer, info, start - piece->start, end - start, target);
    }
  }
  g_mutex_unlock(&probe->mutex);
  return fits;
}

static GstFlowReturn transform_ip(GstBaseTransform* base, GstBuffer* buffer) {
  GstSpeechEnhanceProbe* probe = SE_PROBE(base);
  g_mutex_lock(&probe->mutex);
  Piece* piece = g_new(Piece, 1);
  piece->start = se_timeline_place(&probe->timeline, &base->segment, buffer);
  piece->end = probe->timeline.next;
  piece->buffer = gst_buffer_ref(buffer);
  g_queue_push_tail(&probe->pieces, piece);
  const gint64 oldest = piece->end - (gint64)kSecondsKept * probe->timeline.info.rate;
  while (((Piece*)probe->pieces.head->data)->end < oldest) {
    free_piece(g_queue_pop_head(&probe->pieces));
  }
  g_mutex_unlock(&probe->mutex);
  return GST_FLOW_OK;
}

static gboolean set_caps(GstBaseTransform* base, GstCaps* in, GstCaps* out) {
  (void)out;
  GstSpeechEnhanceProbe* probe = SE_PROBE(base);
  g_mutex_lock(&probe->mutex);
  forget_sound(probe);
  const gboolean valid = gst_audio_info_from_caps(&probe->timeline.info, in);
  g_mutex_unlock(&probe->mutex);
  return valid;
}

static gboolean sink_event(GstBaseTransform* base, GstEvent* event) {
  GstSpeechEnhanceProbe* probe = SE_PROBE(base);
  if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP) {
    g_mutex_lock(&probe->mutex);
    forget_sound(probe);
    g_mutex_unlock(&probe->mutex);
  }
  return GST_BASE_TRANSFORM_CLASS(gst_speech_enhance_probe_parent_class)->sink_event(base, event);
}

// Sinks play a buffer at its running time plus the pipeline's latency, which they tell upstream.
static gboolean src_event(GstBaseTransform* base, GstEvent* event) {
  GstSpeechEnhanceProbe* probe = SE_PROBE(base);
  if (GST_EVENT_TYPE(event) == GST_EVENT_LATENCY) {
    GstClockTime latency;
    gst_event_parse_latency(event, &latency);
    g_mutex_lock(&probe->mutex);
    probe->latency = latency;
    g_mutex_unlock(&probe->mutex);
  }
  return GST_BASE_TRANSFORM_CLASS(gst_speech_enhance_probe_parent_class)->src_event(base, event);
}

static gboolean stop(GstBaseTransform* base) {
  GstSpeechEnhanceProbe* probe = SE_PROBE(base);
  g_mutex_lock(&probe->mutex);
  forget_sound(probe);
  probe->latency = 0;
  g_mutex_unlock(&probe->mutex);
  return TRUE;
}

static void dispose(GObject* object) {
  g_mutex_lock(&all_mutex);
  all_probes = g_list_remove(all_probes, object);
  g_mutex_unlock(&all_mutex);
  G_OBJECT_CLASS(gst_speech_enhance_probe_parent_class)->dispose(object);
}

static void finalize(GObject* object) {
  GstSpeechEnhanceProbe* probe = SE_PROBE(object);
  forget_sound(probe);
  g_mutex_clear(&probe->mutex);
  G_OBJECT_CLASS(gst_speech_enhance_probe_parent_class)->finalize(object);
}

static void gst_speech_enhance_probe_init(GstSpeechEnhanceProbe* probe) {
  g_mutex_init(&probe->mutex);
  g_queue_init(&probe->pieces);
  gst_audio_info_init(&probe->timeline.info);
  se_timeline_restart(&probe->timeline);
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(probe), TRUE);
  g_mutex_lock(&all_mutex);
  all_probes = g_list_prepend(all_probes, probe);
  g_mutex_unlock(&all_mutex);
}

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(SE_CAPS("[ 1, 2 ]")));
static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(SE_CAPS("[ 1, 2 ]")));

static void gst_speech_enhance_probe_class_init(GstSpeechEnhanceProbeClass* klass) {
  GObjectClass* object_class = G_OBJECT_CLASS(klass);
  GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* base_class = GST_BASE_TRANSFORM_CLASS(klass);
  object_class->dispose = dispose;
  object_class->finalize = finalize;
  base_class->transform_ip = transform_ip;
  base_class->transform_ip_on_passthrough = TRUE;
  base_class->set_caps = set_caps;
  base_class->sink_event = sink_event;
  base_class->src_event = src_event;
  base_class->stop = stop;
  gst_element_class_add_static_pad_template(element_class, &sink_template);
  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(
      element_class, "Speech enhancement probe", "Generic/Audio",
      "Passes the loudspeaker's sound on; speechenhance elements of the process that name it in "
      "their property probe take it as their reference",
      "The speechenhance developers");
}
