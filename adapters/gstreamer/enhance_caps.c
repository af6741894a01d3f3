// Which formats the pads take: one rate for all of them, mono out, and the output in the
// microphone's sample format where that is wanted.
#include "enhance_element.h"

static GstAggregatorClass* parent_class;

static gboolean sink_event(GstAggregator* aggregator, GstAggregatorPad* pad, GstEvent* event) {
  if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
    GstCaps* caps;
    gst_event_parse_caps(event, &caps);
    gst_audio_info_from_caps(&SE_TIMED_PAD(pad)->timeline.info, caps);
    se_timeline_restart(&SE_TIMED_PAD(pad)->timeline);
    // A reference that has just begun may have a latency now (answer_for_reference).
    gst_element_post_message(GST_ELEMENT(aggregator),
                             gst_message_new_latency(GST_OBJECT(aggregator)));
  }
  return parent_class->sink_event(aggregator, pad, event);
}

// The caps with nothing but their rate.
static GstCaps* rate_of(GstCaps* caps) {
  caps = gst_caps_make_writable(caps);
  for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
    gst_structure_remove_fields(gst_caps_get_structure(caps, i), "format", "layout", "channels",
                                "channel-mask", NULL);
  }
  return caps;
}

// The microphone's rate is that of the output, the reference's that of the microphone.
static GstCaps* possible_caps(GstSpeechEnhance* self, GstAggregatorPad* pad) {
  GstCaps* caps = gst_pad_get_pad_template_caps(GST_PAD(pad));
  GstCaps* rate = pad == &self->mic->parent
                      ? gst_pad_peer_query_caps(GST_AGGREGATOR(self)->srcpad, NULL)
                      : gst_pad_get_current_caps(GST_PAD(self->mic));
  if (!rate) return caps;
  rate = rate_of(rate);
  GstCaps* both = gst_caps_intersect(caps, rate);
  gst_caps_unref(caps);
  gst_caps_unref(rate);
  return both;
}

static gboolean sink_query(GstAggregator* aggregator, GstAggregatorPad* pad, GstQuery* query) {
  if (GST_QUERY_TYPE(query) == GST_QUERY_CAPS) {
    GstCaps *filter, *caps = possible_caps(SE_ENHANCE(aggregator), pad);
    gst_query_parse_caps(query, &filter);
    if (filter) {
      GstCaps* filtered = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
      gst_caps_unref(caps);
      caps = filtered;
    }
    gst_query_set_caps_result(query, caps);
    gst_caps_unref(caps);
    return TRUE;
  }
  if (GST_QUERY_TYPE(query) == GST_QUERY_ACCEPT_CAPS) {
    // Not by possible_caps(): when all rates change, one pad's changes first.
    GstCaps *caps, *accepted = gst_pad_get_pad_template_caps(GST_PAD(pad));
    gst_query_parse_accept_caps(query, &caps);
    gst_query_set_accept_caps_result(query, gst_caps_is_subset(caps, accepted));
    gst_caps_unref(accepted);
    return TRUE;
  }
  return parent_class->sink_query(aggregator, pad, query);
}

// The microphone's format, if it is taken, or the other one.
static GstFlowReturn update_src_caps(GstAggregator* aggregator, GstCaps* caps, GstCaps** result) {
  const GstAudioInfo* info = &SE_ENHANCE(aggregator)->mic->timeline.info;
  if (info->rate == 0) return GST_AGGREGATOR_FLOW_NEED_DATA;
  const GstAudioFormat both[] = {GST_AUDIO_INFO_FORMAT(info),
                                 GST_AUDIO_INFO_FORMAT(info) == GST_AUDIO_FORMAT_S16
                                     ? GST_AUDIO_FORMAT_F32
                                     : GST_AUDIO_FORMAT_S16};
  GstCaps* possible = gst_caps_new_empty();
  for (int i = 0; i < 2; ++i) {
    GstAudioInfo mono;
    gst_audio_info_set_format(&mono, both[i], info->rate, 1, NULL);
    gst_caps_append(possible, gst_audio_info_to_caps(&mono));
  }
  *result = gst_caps_intersect_full(possible, caps, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(possible);
  return GST_FLOW_OK;
}

static gboolean negotiated_src_caps(GstAggregator* aggregator, GstCaps* caps) {
  return gst_audio_info_from_caps(&SE_ENHANCE(aggregator)->output, caps) &&
         parent_class->negotiated_src_caps(aggregator, caps);
}

void se_enhance_init_caps(GstAggregatorClass* klass) {
  parent_class = g_type_class_peek_parent(klass);
  klass->sink_event = sink_event;
  klass->sink_query = sink_query;
  klass->update_src_caps = update_src_caps;
  klass->negotiated_src_caps = negotiated_src_caps;
}
