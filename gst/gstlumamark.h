/* The lumamark plugin's two elements. */
#ifndef GST_LUMAMARK_H
#define GST_LUMAMARK_H

#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>

G_BEGIN_DECLS

/* lumamark: marks frames in place. */
#define GST_TYPE_LUMAMARK (gst_lumamark_get_type())
G_DECLARE_FINAL_TYPE(GstLumamark, gst_lumamark, GST, LUMAMARK, GstVideoFilter)

/* lumamarkdetect: passes frames through and reports the mark it reads. */
#define GST_TYPE_LUMAMARK_DETECT (gst_lumamark_detect_get_type())
G_DECLARE_FINAL_TYPE(GstLumamarkDetect, gst_lumamark_detect, GST, LUMAMARK_DETECT, GstVideoFilter)

G_END_DECLS

#endif
