// What the files of the element speechenhance share: enhance.c with its stream, enhance_caps.c,
// enhance_properties.c.
#pragma once

#include "enhance.h"
#include "probe.h"
#include "settings.h"
#include "timed_pad.h"

G_BEGIN_DECLS

enum { kMostFrames = 2048, kLongestGapSeconds = 5 };

typedef struct {
  GstAggregator parent;
  SeTimedPad* mic;  // the pad "sink"

  // With the object's lock.
  SeSettings settings;
  gboolean auto_delay;
  gint delay_ms;
  gchar* probe_name;
  gboolean post_messages;
  GstClockTime interval;
  SEStream* stream;
  gboolean renew;  // make another stream as soon as there is sound

  // Of the thread that aggregates.
  GstSpeechEnhanceProbe* probe;
  GstAudioInfo input, output;  // of the stream, and of what is pushed
  gboolean has_reference;      // the stream has
  gint64 position;             // next frame of the microphone, from running time 0; -1: none yet
  gint64 to_drop;              // frames of the stream's latency that are still to come out
  gboolean discontinuous;      // the next buffer follows a jump
  GstClockTime next_message;
  float signals[2 * SE_MOST_CHANNELS][kMostFrames];
  float out[kMostFrames];
} GstSpeechEnhance;

#define SE_ENHANCE(object) (G_TYPE_CHECK_INSTANCE_CAST((object), SE_TYPE_ENHANCE, GstSpeechEnhance))

// What is known of the stream, for messages and the property "stats". With the object's lock.
GstStructure* se_enhance_statistics(GstSpeechEnhance* self);

// Each puts its part into the element's class.
void se_enhance_init_caps(GstAggregatorClass* klass);
void se_enhance_init_properties(GObjectClass* klass);

G_END_DECLS
