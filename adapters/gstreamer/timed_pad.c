#include "timed_pad.h"

G_DEFINE_TYPE(SeTimedPad, se_timed_pad, GST_TYPE_AGGREGATOR_PAD)

void se_timeline_restart(SeTimeline* timeline) {
  timeline->next = -1;
}

gint64 se_timeline_place(SeTimeline* timeline, const GstSegment* segment, GstBuffer* buffer) {
  const gint rate = timeline->info.rate;
  const GstClockTime time =
      gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
  gint64 start = MAX(timeline->next, 0);
  if (GST_CLOCK_TIME_IS_VALID(time)) {
    const gint64 stamped = (gint64)gst_util_uint64_scale_round(time, (guint64)rate, GST_SECOND);
    const gint64 jitter = GST_BUFFER_IS_DISCONT(buffer) ? rate / 1000 : rate / 25;
    if (timeline->next < 0 || ABS(stamped - timeline->next) > jitter) start = stamped;
  }
  timeline->next = start + se_frames_of(buffer, &timeline->info);
  return start;
}

GstBuffer* se_timed_pad_peek(SeTimedPad* pad) {
  GstBuffer* buffer = gst_aggregator_pad_peek_buffer(&pad->parent);
  if (buffer && !pad->placed) {
    pad->start = se_timeline_place(&pad->timeline, &pad->parent.segment, buffer);
    pad->end = pad->timeline.next;
    pad->placed = TRUE;
  }
  return buffer;
}

void se_timed_pad_drop(SeTimedPad* pad) {
  gst_aggregator_pad_drop_buffer(&pad->parent);
  pad->placed = FALSE;
}

static GstFlowReturn flush(GstAggregatorPad* aggregator_pad, GstAggregator* aggregator) {
  (void)aggregator;
  SeTimedPad* pad = SE_TIMED_PAD(aggregator_pad);
  se_timeline_restart(&pad->timeline);
  pad->placed = FALSE;
  pad->flushed = TRUE;
  return GST_FLOW_OK;
}

static void se_timed_pad_init(SeTimedPad* pad) {
  gst_audio_info_init(&pad->timeline.info);
  se_timeline_restart(&pad->timeline);
}

static void se_timed_pad_class_init(SeTimedPadClass* klass) {
  GST_AGGREGATOR_PAD_CLASS(klass)->flush = flush;
}
