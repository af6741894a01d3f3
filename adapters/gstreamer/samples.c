#include "samples.h"

#include <string.h>

static const float kFullScale = 32768.0f;

void se_read_samples(GstBuffer* buffer, const GstAudioInfo* info, gint64 from, gint64 frames,
                     float* const planar[SE_MOST_CHANNELS]) {
  GstMapInfo map;
  const gboolean mapped = gst_buffer_map(buffer, &map, GST_MAP_READ);
  if (!mapped || map.size < (gsize)(from + frames) * (gsize)info->bpf) {
    for (int c = 0; c < SE_MOST_CHANNELS; ++c) memset(planar[c], 0, (gsize)frames * sizeof(float));
    if (mapped) gst_buffer_unmap(buffer, &map);
    return;
  }
  for (int c = 0; c < SE_MOST_CHANNELS; ++c) {
    const gint64 first = from * info->channels + MIN(c, info->channels - 1);
    if (GST_AUDIO_INFO_FORMAT(info) == GST_AUDIO_FORMAT_S16) {
      const gint16* in = (const gint16*)map.data + first;
      for (gint64 i = 0; i < frames; ++i) {
        planar[c][i] = (float)in[i * info->channels] / kFullScale;
      }
    } else {
      const float* in = (const float*)map.data + first;
      for (gint64 i = 0; i < frames; ++i) planar[c][i] = in[i * info->channels];
    }
  }
  gst_buffer_unmap(buffer, &map);
}

GstBuffer* se_write_samples(const float* samples, gint64 frames, const GstAudioInfo* info) {
  const gsize bytes = (gsize)frames * (gsize)info->bpf;
  GstBuffer* buffer = gst_buffer_new_allocate(NULL, bytes, NULL);
  if (GST_AUDIO_INFO_FORMAT(info) == GST_AUDIO_FORMAT_F32) {
    gst_buffer_fill(buffer, 0, samples, bytes);
    return buffer;
  }
  GstMapInfo map;
  gst_buffer_map(buffer, &map, GST_MAP_WRITE);
  gint16* out = (gint16*)map.data;
  for (gint64 i = 0; i < frames; ++i) {
    out[i] = (gint16)CLAMP(samples[i] * kFullScale, -32768.0f, 32767.0f);
  }
  gst_buffer_unmap(buffer, &map);
  return buffer;
}

gint64 se_frames_of(GstBuffer* buffer, const GstAudioInfo* info) {
  const gsize size = gst_buffer_get_size(buffer);
  if (size > 0) return (gint64)(size / (gsize)info->bpf);
  if (!GST_BUFFER_DURATION_IS_VALID(buffer)) return 0;
  return (gint64)gst_util_uint64_scale_round(GST_BUFFER_DURATION(buffer), (guint64)info->rate,
                                             GST_SECOND);
}
