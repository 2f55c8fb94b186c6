/* lumamarkdetect: passes frames through unchanged, adds their luma to the
 * library's detector and posts what it reads as an element message named
 * "lumamark-detection" every `interval` frames and at end of stream. */
#include <string.h>

#include "gstlumamark.h"
#include "lumamark_settings.h"

GST_DEBUG_CATEGORY_STATIC(lumamark_detect_debug);
#define GST_CAT_DEFAULT lumamark_detect_debug

#define DEFAULT_INTERVAL 100

struct _GstLumamarkDetect {
  GstVideoFilter parent;
  LmSettingValues values; /* guarded by the object lock, like interval */
  guint interval;
  lumamark_detector* detector;
  guint added;  /* frames given to the detector */
  guint posted; /* frame count of the last message */
};

G_DEFINE_TYPE(GstLumamarkDetect, gst_lumamark_detect, GST_TYPE_VIDEO_FILTER)

static void gst_lumamark_detect_set_property(GObject* object, guint prop_id, const GValue* value,
                                             GParamSpec* pspec) {
  GstLumamarkDetect* self = GST_LUMAMARK_DETECT(object);
  GST_OBJECT_LOCK(self);
  gboolean known = TRUE;
  if (prop_id == LM_PROP_INTERVAL)
    self->interval = g_value_get_uint(value);
  else
    known = lm_settings_set_property(&self->values, prop_id, value);
  GST_OBJECT_UNLOCK(self);
  if (!known) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
}

static void gst_lumamark_detect_get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec) {
  GstLumamarkDetect* self = GST_LUMAMARK_DETECT(object);
  GST_OBJECT_LOCK(self);
  gboolean known = TRUE;
  if (prop_id == LM_PROP_INTERVAL)
    g_value_set_uint(value, self->interval);
  else
    known = lm_settings_get_property(&self->values, prop_id, value);
  GST_OBJECT_UNLOCK(self);
  if (!known) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
}

/* Library parameters from the properties and, when info is given, the
 * stream; posts the error and returns FALSE when a value is refused. */
static gboolean gst_lumamark_detect_params(GstLumamarkDetect* self, const GstVideoInfo* info, lumamark_params* p) {
  LmSettingValues values;
  GST_OBJECT_LOCK(self);
  lm_settings_copy(&values, &self->values);
  GST_OBJECT_UNLOCK(self);
  const gboolean ok = lm_settings_to_params(GST_ELEMENT(self), &values, LM_FOR_DETECT, p) &&
                      (!info || lm_settings_set_stream(GST_ELEMENT(self), info, &values, LM_FOR_DETECT, p));
  lm_settings_clear(&values);
  return ok;
}

static const gchar* verdict_name(lumamark_verdict verdict) {
  switch (verdict) {
    case LUMAMARK_VERDICT_WEAK:
      return "weak";
    case LUMAMARK_VERDICT_DETECTED:
      return "detected";
    case LUMAMARK_VERDICT_AMBIGUOUS:
      return "ambiguous";
    default:
      return "none";
  }
}

/* Decodes the frames added so far and posts the result on the bus. */
static gboolean post_detection(GstLumamarkDetect* self) {
  lumamark_detection d;
  const int rc = lumamark_detector_result(self->detector, &d);
  if (rc != 0) {
    GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("Reading the watermark failed: %s", lumamark_strerror(rc)),
                      ("lumamark_detector_result returned %d", rc));
    return FALSE;
  }
  GstStructure* s = gst_structure_new("lumamark-detection", "wm-id", G_TYPE_STRING, d.wm_id, "z", G_TYPE_DOUBLE, d.z,
                                      "verdict", G_TYPE_STRING, verdict_name(d.verdict), "frames", G_TYPE_INT,
                                      (gint)d.frames, "scale-x", G_TYPE_DOUBLE, d.transform.scale_x, "scale-y",
                                      G_TYPE_DOUBLE, d.transform.scale_y, "offset-x", G_TYPE_DOUBLE,
                                      d.transform.offset_x, "offset-y", G_TYPE_DOUBLE, d.transform.offset_y, "flip",
                                      G_TYPE_BOOLEAN, (gboolean)(d.transform.flip != 0), NULL);
  GST_INFO_OBJECT(self, "%" GST_PTR_FORMAT, s);
  self->posted = self->added;
  gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), s));
  return TRUE;
}

static gboolean gst_lumamark_detect_start(GstBaseTransform* trans) {
  GstLumamarkDetect* self = GST_LUMAMARK_DETECT(trans);
  lumamark_params p;
  self->added = self->posted = 0;
  return gst_lumamark_detect_params(self, NULL, &p);
}

static gboolean gst_lumamark_detect_stop(GstBaseTransform* trans) {
  GstLumamarkDetect* self = GST_LUMAMARK_DETECT(trans);
  g_clear_pointer(&self->detector, lumamark_detector_close);
  return TRUE;
}

/* A new format starts a new reading: frames of different sizes cannot be
 * combined. What the old one read is posted first. As in the embedder, a
 * format the settings cannot read is accepted with no detector and the
 * error posted, and the first frame stops the stream. */
static gboolean gst_lumamark_detect_set_info(GstVideoFilter* filter, GstCaps* incaps, GstVideoInfo* in_info,
                                             GstCaps* outcaps, GstVideoInfo* out_info) {
  (void)incaps;
  (void)outcaps;
  (void)out_info;
  GstLumamarkDetect* self = GST_LUMAMARK_DETECT(filter);
  if (self->detector && self->added > self->posted) post_detection(self);
  g_clear_pointer(&self->detector, lumamark_detector_close);
  self->added = self->posted = 0;

  lumamark_params p;
  if (!gst_lumamark_detect_params(self, in_info, &p)) return TRUE;
  const int rc = lumamark_detector_open(&p, &self->detector);
  if (rc != 0) {
    GST_ELEMENT_ERROR(self, LIBRARY, INIT,
                      ("Cannot read %dx%d %s video marked at %dx%d with these settings: %s",
                       GST_VIDEO_INFO_WIDTH(in_info), GST_VIDEO_INFO_HEIGHT(in_info), p.pix_fmt, p.width, p.height,
                       lumamark_strerror(rc)),
                      ("lumamark_detector_open returned %d", rc));
  }
  return TRUE;
}

static GstFlowReturn gst_lumamark_detect_transform_frame_ip(GstVideoFilter* filter, GstVideoFrame* frame) {
  GstLumamarkDetect* self = GST_LUMAMARK_DETECT(filter);
  if (!self->detector) return GST_FLOW_ERROR; /* set_info posted why */
  const int rc = lumamark_detector_add(self->detector, GST_VIDEO_FRAME_PLANE_DATA(frame, 0),
                                       GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0));
  if (rc != 0) {
    GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("Reading frame %u failed: %s", self->added, lumamark_strerror(rc)),
                      ("lumamark_detector_add returned %d", rc));
    return GST_FLOW_ERROR;
  }
  self->added++;
  GST_OBJECT_LOCK(self);
  const guint interval = self->interval;
  GST_OBJECT_UNLOCK(self);
  if (interval > 0 && self->added % interval == 0 && !post_detection(self)) return GST_FLOW_ERROR;
  return GST_FLOW_OK;
}

/* The final reading goes on the bus before end of stream reaches the sinks,
 * so an application sees it before the pipeline's EOS message. */
static gboolean gst_lumamark_detect_sink_event(GstBaseTransform* trans, GstEvent* event) {
  GstLumamarkDetect* self = GST_LUMAMARK_DETECT(trans);
  if (GST_EVENT_TYPE(event) == GST_EVENT_EOS && self->detector && self->added > 0) post_detection(self);
  return GST_BASE_TRANSFORM_CLASS(gst_lumamark_detect_parent_class)->sink_event(trans, event);
}

static void gst_lumamark_detect_finalize(GObject* object) {
  GstLumamarkDetect* self = GST_LUMAMARK_DETECT(object);
  g_clear_pointer(&self->detector, lumamark_detector_close);
  lm_settings_clear(&self->values);
  G_OBJECT_CLASS(gst_lumamark_detect_parent_class)->finalize(object);
}

static void gst_lumamark_detect_class_init(GstLumamarkDetectClass* klass) {
  GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
  GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* trans_class = GST_BASE_TRANSFORM_CLASS(klass);
  GstVideoFilterClass* filter_class = GST_VIDEO_FILTER_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(lumamark_detect_debug, "lumamarkdetect", 0, "lumamark watermark detector");

  gobject_class->set_property = gst_lumamark_detect_set_property;
  gobject_class->get_property = gst_lumamark_detect_get_property;
  gobject_class->finalize = gst_lumamark_detect_finalize;
  lm_element_class_init(element_class, LM_FOR_DETECT);
  g_object_class_install_property(
      gobject_class, LM_PROP_INTERVAL,
      g_param_spec_uint("interval", "interval",
                        "Post a lumamark-detection message every this many frames (0 = only at end of stream)", 0,
                        G_MAXUINT, DEFAULT_INTERVAL,
                        G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING));

  gst_element_class_set_static_metadata(
      element_class, "lumamark watermark detector", "Filter/Analyzer/Video",
      "Reads the lumamark watermark from planar YUV video passing through and posts lumamark-detection messages",
      "lumamark developers");

  trans_class->start = GST_DEBUG_FUNCPTR(gst_lumamark_detect_start);
  trans_class->stop = GST_DEBUG_FUNCPTR(gst_lumamark_detect_stop);
  trans_class->sink_event = GST_DEBUG_FUNCPTR(gst_lumamark_detect_sink_event);
  trans_class->passthrough_on_same_caps = TRUE;
  trans_class->transform_ip_on_passthrough = TRUE;
  filter_class->set_info = GST_DEBUG_FUNCPTR(gst_lumamark_detect_set_info);
  filter_class->transform_frame_ip = GST_DEBUG_FUNCPTR(gst_lumamark_detect_transform_frame_ip);
}

static void gst_lumamark_detect_init(GstLumamarkDetect* self) {
  /* Every frame is processed: a late frame is not dropped here. */
  gst_base_transform_set_qos_enabled(GST_BASE_TRANSFORM(self), FALSE);
  lm_settings_init(&self->values, LM_FOR_DETECT);
  self->interval = DEFAULT_INTERVAL;
  gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}
