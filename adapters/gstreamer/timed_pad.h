// Where buffers stand in running time, in whole samples; and a pad of an aggregator that knows it.
#pragma once

#include <gst/base/gstaggregator.h>

#include "samples.h"

G_BEGIN_DECLS

// A row of buffers on one grid: each starts where the one before it ended, unless its time stamp
// says clearly otherwise.
typedef struct {
  GstAudioInfo info;
  gint64 next;  // frame behind the last buffer; -1: none yet
} SeTimeline;

void se_timeline_restart(SeTimeline* timeline);

// The frame at which the buffer starts, counted from running time 0; `next` moves to its end. Time
// stamps that differ from `next` by up to 40 ms (1 ms after a discontinuity) are jitter.
gint64 se_timeline_place(SeTimeline* timeline, const GstSegment* segment, GstBuffer* buffer);

typedef struct {
  GstAggregatorPad parent;
  SeTimeline timeline;
  gboolean placed;  // of the first buffer in the queue: start and end are known
  gint64 start, end;
  gboolean flushed;  // what came before says nothing about what comes
} SeTimedPad;

typedef struct {
  GstAggregatorPadClass parent_class;
} SeTimedPadClass;

GType se_timed_pad_get_type(void);
#define SE_TYPE_TIMED_PAD (se_timed_pad_get_type())
#define SE_TIMED_PAD(object) (G_TYPE_CHECK_INSTANCE_CAST((object), SE_TYPE_TIMED_PAD, SeTimedPad))

// The first buffer in the queue, its place in `start` and `end`; null if there is none. The caller
// releases it.
GstBuffer* se_timed_pad_peek(SeTimedPad* pad);

// Takes the first buffer off the queue.
void se_timed_pad_drop(SeTimedPad* pad);

G_END_DECLS
