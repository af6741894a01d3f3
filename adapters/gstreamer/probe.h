// speechenhanceprobe: passes the loudspeaker's sound on, and keeps the last seconds of it for
// elements speechenhance that name it.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

typedef struct _GstSpeechEnhanceProbe GstSpeechEnhanceProbe;

GType gst_speech_enhance_probe_get_type(void);
#define SE_TYPE_PROBE (gst_speech_enhance_probe_get_type())

// The probe of this name in the process, or null. The caller releases it.
GstSpeechEnhanceProbe* se_probe_find(const char* name);

// The sound that is played at the clock's time `base_time` + frame `from` of `rate`: `frames` of
// two channels, silence where there is none. False if the sound has another rate (silence, too).
gboolean se_probe_read(GstSpeechEnhanceProbe* probe, GstClockTime base_time, gint rate, gint64 from,
                       gint64 frames, float* const planar[2]);

G_END_DECLS
