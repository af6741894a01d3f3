#include <gst/gst.h>

#include "enhance.h"
#include "probe.h"

static gboolean plugin_init(GstPlugin* plugin) {
  return gst_element_register(plugin, "speechenhance", GST_RANK_NONE, SE_TYPE_ENHANCE) &&
         gst_element_register(plugin, "speechenhanceprobe", GST_RANK_NONE, SE_TYPE_PROBE);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, speechenhance,
                  "Removes noise and echo from speech", plugin_init, VERSION, "Apache 2.0", PACKAGE,
                  "Unknown package origin")
