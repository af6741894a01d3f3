// speechenhance: removes noise from the sound of `sink`, and the echo of what `reference` or a
// speechenhanceprobe hears.
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

GType gst_speech_enhance_get_type(void);
#define SE_TYPE_ENHANCE (gst_speech_enhance_get_type())

G_END_DECLS
