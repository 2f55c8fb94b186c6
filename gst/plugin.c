/* Registers the lumamark plugin's elements. */
#include "gstlumamark.h"

#include <lumamark/lumamark.h>

#define PACKAGE "lumamark"
#ifndef LUMAMARK_PLUGIN_VERSION
#define LUMAMARK_PLUGIN_VERSION "2.1.3"
#endif

static gboolean plugin_init(GstPlugin* plugin) {
  return gst_element_register(plugin, "lumamark", GST_RANK_NONE, GST_TYPE_LUMAMARK) &&
         gst_element_register(plugin, "lumamarkdetect", GST_RANK_NONE, GST_TYPE_LUMAMARK_DETECT);
}

/* The descriptor macro leaves the reserved padding to zero-initialisation. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, lumamark,
                  "Invisible forensic watermark: embedding and detection in planar YUV video", plugin_init,
                  LUMAMARK_PLUGIN_VERSION, "unknown", "lumamark", "lumamark")
#pragma GCC diagnostic pop
