// The microphone is the clock of this element: every frame of it gives one frame of output with the
// same time stamp. The reference is put beside it by running time, in whole frames, however both
// are cut into buffers. The stream's latency is taken off again: its first frames are dropped, and
// at the end as many of silence push the last ones out.
#include <string.h>

#include "enhance_element.h"

typedef struct {
  GstAggregatorClass parent_class;
} GstSpeechEnhanceClass;

G_DEFINE_TYPE(GstSpeechEnhance, gst_speech_enhance, GST_TYPE_AGGREGATOR)
GST_DEBUG_CATEGORY_STATIC(se_enhance_debug);
#define GST_CAT_DEFAULT se_enhance_debug

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(SE_CAPS("[ 1, 2 ]")));
static GstStaticPadTemplate reference_template = GST_STATIC_PAD_TEMPLATE(
    "reference", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(SE_CAPS("[ 1, 2 ]")));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(SE_CAPS("1")));

static GstClockTime time_of(const GstSpeechEnhance* self, gint64 frame) {
  return gst_util_uint64_scale((guint64)frame, GST_SECOND, (guint64)self->input.rate);
}

// The pad "reference", which the caller releases, or null.
static SeTimedPad* get_reference(GstSpeechEnhance* self) {
  GstPad* pad = gst_element_get_static_pad(GST_ELEMENT(self), "reference");
  return pad ? SE_TIMED_PAD(pad) : NULL;
}

// ---- The stream --------------------------------------------------------------------------------

static void forget_position(GstSpeechEnhance* self) {
  self->position = -1;
  self->next_message = GST_CLOCK_TIME_NONE;
}

static void drop_stream(GstSpeechEnhance* self) {
  GST_OBJECT_LOCK(self);
  se_stream_destroy(self->stream);
  self->stream = NULL;
  GST_OBJECT_UNLOCK(self);
  forget_position(self);
}

static gboolean make_stream(GstSpeechEnhance* self) {
  drop_stream(self);
  GST_OBJECT_LOCK(self);
  const int32_t delay = self->auto_delay ? SE_STREAM_DELAY_AUTO : self->delay_ms;
  int32_t result =
      se_stream_create(self->input.rate, self->input.channels,
                       self->has_reference ? SE_MOST_CHANNELS : 0, delay, &self->stream);
  if (result == SE_STREAM_OK) {
    result = se_stream_set_settings(self->stream, &self->settings.stream);
  }
  const gint32 latency = self->stream ? se_stream_latency(self->stream) : 0;
  self->renew = FALSE;
  GST_OBJECT_UNLOCK(self);
  if (result != SE_STREAM_OK) {
    GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("%s", se_stream_error_text(result)), (NULL));
    return FALSE;
  }
  const GstClockTime time =
      gst_util_uint64_scale_ceil((guint64)latency, GST_SECOND, (guint64)self->input.rate);
  gst_aggregator_set_latency(GST_AGGREGATOR(self), time, time);
  return TRUE;
}

// From here on the microphone's sound starts anew, at `position`.
static void restart_at(GstSpeechEnhance* self, gint64 position) {
  se_stream_reset(self->stream);
  self->to_drop = se_stream_latency(self->stream);
  self->position = position;
  self->discontinuous = TRUE;
  self->next_message = GST_CLOCK_TIME_NONE;
}

static void post_statistics(GstSpeechEnhance* self, GstClockTime running_time) {
  GST_OBJECT_LOCK(self);
  GstStructure* structure = NULL;
  if (self->post_messages &&
      (!GST_CLOCK_TIME_IS_VALID(self->next_message) || running_time >= self->next_message)) {
    structure = se_enhance_statistics(self);
    self->next_message = running_time + self->interval;
  }
  GST_OBJECT_UNLOCK(self);
  if (!structure) return;
  gst_structure_set(structure, "running-time", GST_TYPE_CLOCK_TIME, running_time, NULL);
  gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), structure));
}

// `frames` of the signals through the stream and on.
static GstFlowReturn enhance(GstSpeechEnhance* self, gint64 frames, gboolean silent) {
  const float* const mics[] = {self->signals[0], self->signals[1]};
  const float* const refs[] = {self->signals[2], self->signals[3]};
  se_stream_process(self->stream, silent ? NULL : mics, refs, self->out, (int32_t)frames);
  self->position += frames;
  const gint64 dropped = MIN(frames, self->to_drop);
  self->to_drop -= dropped;
  if (dropped == frames) return GST_FLOW_OK;

  const gint64 end = self->position - se_stream_latency(self->stream);
  const GstClockTime start_time = time_of(self, end - (frames - dropped));
  GstBuffer* buffer = se_write_samples(self->out + dropped, frames - dropped, &self->output);
  GST_BUFFER_PTS(buffer) = start_time;
  GST_BUFFER_DURATION(buffer) = time_of(self, end) - start_time;
  if (self->discontinuous) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
  self->discontinuous = FALSE;
  GST_AGGREGATOR_PAD(GST_AGGREGATOR(self)->srcpad)->segment.position = time_of(self, end);
  post_statistics(self, start_time);
  return gst_aggregator_finish_buffer(GST_AGGREGATOR(self), buffer);
}

// Gets out what the stream holds back.
static GstFlowReturn drain(GstSpeechEnhance* self) {
  GstFlowReturn flow = GST_FLOW_OK;
  if (!self->stream || self->position < 0) return flow;
  memset(self->signals, 0, sizeof self->signals);
  for (gint64 left = se_stream_latency(self->stream); left > 0 && flow == GST_FLOW_OK;) {
    const gint64 frames = MIN(left, kMostFrames);
    flow = enhance(self, frames, TRUE);
    left -= frames;
  }
  forget_position(self);
  return flow;
}

// A stream that fits what comes in, and caps of the output that fit it.
static GstFlowReturn prepare(GstSpeechEnhance* self, gboolean has_reference) {
  const GstAudioInfo* input = &self->mic->timeline.info;
  GST_OBJECT_LOCK(self);
  const gboolean fits = self->stream && !self->renew && self->has_reference == has_reference &&
                        gst_audio_info_is_equal(input, &self->input);
  GST_OBJECT_UNLOCK(self);
  if (fits) return GST_FLOW_OK;
  const GstFlowReturn flow = drain(self);
  if (flow != GST_FLOW_OK) return flow;
  self->input = *input;
  self->has_reference = has_reference;
  if (!make_stream(self)) return GST_FLOW_ERROR;
  return gst_aggregator_negotiate(GST_AGGREGATOR(self)) ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
}

// ---- The reference beside the microphone -------------------------------------------------------

static GstFlowReturn wrong_rate(GstSpeechEnhance* self) {
  GST_ELEMENT_ERROR(
      self, STREAM, FORMAT,
      ("The reference must have the microphone's sample rate, %d Hz: put audioresample "
       "ahead of it",
       self->input.rate),
      (NULL));
  return GST_FLOW_NOT_NEGOTIATED;
}

// Fills the reference's signals for the next frames, at most `*frames`, of which as many remain as
// are known: none means to wait. What will not come any more is silence.
static GstFlowReturn read_reference(GstSpeechEnhance* self, SeTimedPad* pad, gboolean late,
                                    gint64* frames) {
  float* const planar[SE_MOST_CHANNELS] = {self->signals[2], self->signals[3]};
  GstBuffer* buffer;
  while ((buffer = se_timed_pad_peek(pad)) && pad->end <= self->position) {
    gst_buffer_unref(buffer);
    se_timed_pad_drop(pad);
  }
  const gboolean waits = !buffer && !late && !gst_aggregator_pad_is_eos(&pad->parent);
  if (waits) *frames = 0;
  if (!buffer || pad->start > self->position) {
    if (buffer) *frames = MIN(*frames, pad->start - self->position);
    for (int c = 0; c < SE_MOST_CHANNELS; ++c) memset(planar[c], 0, (gsize)*frames * sizeof(float));
  } else {
    if (pad->timeline.info.rate != self->input.rate) {
      gst_buffer_unref(buffer);
      return wrong_rate(self);
    }
    *frames = MIN(*frames, pad->end - self->position);
    se_read_samples(buffer, &pad->timeline.info, self->position - pad->start, *frames, planar);
  }
  gst_clear_buffer(&buffer);
  return GST_FLOW_OK;
}

static GstFlowReturn read_probe(GstSpeechEnhance* self, gint64 frames) {
  float* const planar[SE_MOST_CHANNELS] = {self->signals[2], self->signals[3]};
  const GstClockTime base_time = gst_element_get_base_time(GST_ELEMENT(self));
  const gboolean fits =
      se_probe_read(self->probe, base_time, self->input.rate, self->position, frames, planar);
  return fits ? GST_FLOW_OK : wrong_rate(self);
}

// ---- Aggregation -------------------------------------------------------------------------------

// Enhances what it can of the microphone's first buffer, or of the gap ahead of it.
static GstFlowReturn take_microphone(GstSpeechEnhance* self, SeTimedPad* reference,
                                     GstBuffer* buffer, gboolean late) {
  SeTimedPad* mic = self->mic;
  GstFlowReturn flow = prepare(self, reference || self->probe);
  if (flow != GST_FLOW_OK) return flow;
  const gint64 gap = mic->start - self->position;
  if (self->position >= 0 && gap > (gint64)kLongestGapSeconds * self->input.rate)
    flow = drain(self);
  if (flow != GST_FLOW_OK) return flow;
  if (self->position < 0 || mic->flushed) restart_at(self, mic->start);
  mic->flushed = FALSE;

  const gboolean in_gap = mic->start > self->position;
  gint64 frames = MIN((in_gap ? mic->start : mic->end) - self->position, kMostFrames);
  if (frames > 0) {
    if (reference) {
      flow = read_reference(self, reference, late, &frames);
    } else if (self->probe) {
      flow = read_probe(self, frames);
    }
    if (flow != GST_FLOW_OK) return flow;
    if (frames == 0) return GST_AGGREGATOR_FLOW_NEED_DATA;
    if (!in_gap) {
      float* const planar[SE_MOST_CHANNELS] = {self->signals[0], self->signals[1]};
      se_read_samples(buffer, &self->input, self->position - mic->start, frames, planar);
    }
    flow = enhance(self, frames, in_gap);
  }
  if (self->position >= mic->end) se_timed_pad_drop(mic);
  return flow;
}

static GstFlowReturn aggregate(GstAggregator* aggregator, gboolean late) {
  GstSpeechEnhance* self = SE_ENHANCE(aggregator);
  GstBuffer* buffer = se_timed_pad_peek(self->mic);
  if (!buffer) {
    if (!gst_aggregator_pad_is_eos(&self->mic->parent)) return GST_AGGREGATOR_FLOW_NEED_DATA;
    const GstFlowReturn flow = drain(self);
    return flow == GST_FLOW_OK ? GST_FLOW_EOS : flow;
  }
  SeTimedPad* reference = get_reference(self);
  const GstFlowReturn flow = take_microphone(self, reference, buffer, late);
  if (reference) gst_object_unref(reference);
  gst_buffer_unref(buffer);
  return flow;
}

// A live pipeline waits for the reference no longer than its latency allows; for the microphone
// always, since without it there is nothing to do.
static GstClockTime get_next_time(GstAggregator* aggregator) {
  GstSpeechEnhance* self = SE_ENHANCE(aggregator);
  GstAggregatorPad* mic = &self->mic->parent;
  if (!gst_aggregator_pad_has_buffer(mic) && !gst_aggregator_pad_is_eos(mic)) {
    return GST_CLOCK_TIME_NONE;
  }
  return gst_aggregator_simple_get_next_time(aggregator);
}

static GstBuffer* clip(GstAggregator* aggregator, GstAggregatorPad* pad, GstBuffer* buffer) {
  (void)aggregator;
  const GstAudioInfo* info = &SE_TIMED_PAD(pad)->timeline.info;
  if (info->bpf == 0 || gst_buffer_get_size(buffer) == 0) return buffer;
  return gst_audio_buffer_clip(buffer, &pad->segment, info->rate, info->bpf);
}

static gboolean start(GstAggregator* aggregator) {
  GstSpeechEnhance* self = SE_ENHANCE(aggregator);
  forget_position(self);
  GST_OBJECT_LOCK(self);
  gchar* name = g_strdup(self->probe_name);
  GST_OBJECT_UNLOCK(self);
  if (name) self->probe = se_probe_find(name);
  const gboolean found = !name || self->probe;
  if (!found) {
    GST_ELEMENT_ERROR(
        self, RESOURCE, NOT_FOUND,
        ("There is no speechenhanceprobe named \"%s\": make it before this element starts", name),
        (NULL));
  }
  g_free(name);
  return found;
}

static gboolean stop(GstAggregator* aggregator) {
  GstSpeechEnhance* self = SE_ENHANCE(aggregator);
  drop_stream(self);
  gst_clear_object(&self->probe);
  return TRUE;
}

static GstFlowReturn flush(GstAggregator* aggregator) {
  forget_position(SE_ENHANCE(aggregator));
  return GST_FLOW_OK;
}

// ---- The pad for the reference -----------------------------------------------------------------

// The aggregator knows no latency, so that a live microphone waits for ever, while one of its
// inputs cannot tell its own. A reference that has not begun, and may never, is as good as without.
static GstPadProbeReturn answer_for_reference(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  (void)data;
  GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY) return GST_PAD_PROBE_OK;
  GstPad* peer = gst_pad_get_peer(pad);
  if (!peer || !gst_pad_query(peer, query)) {
    gst_query_set_latency(query, FALSE, 0, GST_CLOCK_TIME_NONE);
  }
  gst_clear_object(&peer);
  return GST_PAD_PROBE_HANDLED;
}

static GstAggregatorPad* create_new_pad(GstAggregator* aggregator, GstPadTemplate* pad_template,
                                        const gchar* name, const GstCaps* caps) {
  (void)name;
  (void)caps;
  SeTimedPad* there = get_reference(SE_ENHANCE(aggregator));
  if (there) {
    GST_WARNING_OBJECT(aggregator, "there is one reference already");
    gst_object_unref(there);
    return NULL;
  }
  GstAggregatorPad* reference = g_object_new(SE_TYPE_TIMED_PAD, "name", "reference", "direction",
                                             GST_PAD_SINK, "template", pad_template, NULL);
  gst_pad_add_probe(GST_PAD(reference), GST_PAD_PROBE_TYPE_QUERY_UPSTREAM | GST_PAD_PROBE_TYPE_PUSH,
                    answer_for_reference, NULL, NULL);
  return reference;
}

static void finalize(GObject* object) {
  GstSpeechEnhance* self = SE_ENHANCE(object);
  se_stream_destroy(self->stream);
  g_free(self->probe_name);
  G_OBJECT_CLASS(gst_speech_enhance_parent_class)->finalize(object);
}

static void gst_speech_enhance_init(GstSpeechEnhance* self) {
  se_settings_init(&self->settings);
  self->auto_delay = TRUE;
  self->post_messages = TRUE;
  self->interval = GST_SECOND;
  gst_audio_info_init(&self->input);
  gst_audio_info_init(&self->output);
  forget_position(self);
  GstPadTemplate* pad_template = gst_element_get_pad_template(GST_ELEMENT(self), "sink");
  self->mic = g_object_new(SE_TYPE_TIMED_PAD, "name", "sink", "direction", GST_PAD_SINK, "template",
                           pad_template, NULL);
  gst_element_add_pad(GST_ELEMENT(self), GST_PAD(self->mic));
}

static void gst_speech_enhance_class_init(GstSpeechEnhanceClass* klass) {
  GObjectClass* object_class = G_OBJECT_CLASS(klass);
  GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
  GstAggregatorClass* aggregator_class = GST_AGGREGATOR_CLASS(klass);
  GST_DEBUG_CATEGORY_INIT(se_enhance_debug, "speechenhance", 0,
                          "Removes noise and echo from speech");
  object_class->finalize = finalize;
  se_enhance_init_properties(object_class);
  se_enhance_init_caps(aggregator_class);
  aggregator_class->aggregate = aggregate;
  aggregator_class->get_next_time = get_next_time;
  aggregator_class->clip = clip;
  aggregator_class->start = start;
  aggregator_class->stop = stop;
  aggregator_class->flush = flush;
  aggregator_class->create_new_pad = create_new_pad;
  gst_element_class_add_static_pad_template_with_gtype(element_class, &sink_template,
                                                       SE_TYPE_TIMED_PAD);
  gst_element_class_add_static_pad_template_with_gtype(element_class, &reference_template,
                                                       SE_TYPE_TIMED_PAD);
  gst_element_class_add_static_pad_template_with_gtype(element_class, &src_template,
                                                       GST_TYPE_AGGREGATOR_PAD);
  gst_element_class_set_static_metadata(
      element_class, "Speech enhancement", "Filter/Effect/Audio",
      "Removes noise from speech, and the echo of what the loudspeaker plays (reference, probe)",
      "The speechenhance developers");
}
