/* lumamark: marks the luma plane of each frame in place with the library's
 * embedder. The chroma planes pass through untouched, so the output equals
 * the lumamark command line's for the same frames and settings. */
#include "gstlumamark.h"

#include <stdio.h>
#include <string.h>

#include "lumamark_settings.h"

GST_DEBUG_CATEGORY_STATIC(lumamark_embed_debug);
#define GST_CAT_DEFAULT lumamark_embed_debug

struct _GstLumamark {
  GstVideoFilter parent;
  LmSettingValues values; /* guarded by the object lock */
  gboolean wm_id_set;     /* wm-id was given, which conflicts with payload-file */
  lumamark_embedder* embedder;
  guint64 frames;
};

G_DEFINE_TYPE(GstLumamark, gst_lumamark, GST_TYPE_VIDEO_FILTER)

static void gst_lumamark_set_property(GObject* object, guint prop_id, const GValue* value, GParamSpec* pspec) {
  GstLumamark* self = GST_LUMAMARK(object);
  GST_OBJECT_LOCK(self);
  const gboolean known = lm_settings_set_property(&self->values, prop_id, value);
  if (known && strcmp(pspec->name, "wm-id") == 0) self->wm_id_set = TRUE;
  GST_OBJECT_UNLOCK(self);
  if (!known) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
}

static void gst_lumamark_get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec) {
  GstLumamark* self = GST_LUMAMARK(object);
  GST_OBJECT_LOCK(self);
  const gboolean known = lm_settings_get_property(&self->values, prop_id, value);
  GST_OBJECT_UNLOCK(self);
  if (!known) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
}

/* Library parameters from the properties; posts the error and returns FALSE
 * when a value is refused or payload-file and wm-id are both given. */
static gboolean gst_lumamark_params(GstLumamark* self, lumamark_params* p) {
  LmSettingValues values;
  GST_OBJECT_LOCK(self);
  lm_settings_copy(&values, &self->values);
  const gboolean wm_id_set = self->wm_id_set;
  GST_OBJECT_UNLOCK(self);
  const gchar* payload_file = lm_settings_text(&values, "payload-file");
  gboolean ok;
  if (wm_id_set && payload_file && payload_file[0]) {
    GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS,
                      ("Properties 'wm-id' and 'payload-file' exclude each other: the payload file holds the ID"),
                      (NULL));
    ok = FALSE;
  } else {
    ok = lm_settings_to_params(GST_ELEMENT(self), &values, LM_FOR_EMBED, p);
  }
  lm_settings_clear(&values);
  return ok;
}

/* Posts why the embedder could not be opened, naming the property at fault
 * where the code tells which. */
static void report_open_error(GstLumamark* self, const lumamark_params* p, int rc) {
  if (rc == LUMAMARK_EWMID)
    GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS,
                      ("Invalid value for property 'wm-id': \"%s\" (%s %d)", p->wm_id, lumamark_strerror(rc),
                       p->bit_profile),
                      ("lumamark_embedder_open returned %d", rc));
  else if (rc == LUMAMARK_EPAYLOAD)
    GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS,
                      ("Cannot use property 'payload-file': \"%s\" (%s)", p->payload_file, lumamark_strerror(rc)),
                      ("lumamark_embedder_open returned %d", rc));
  else
    GST_ELEMENT_ERROR(self, LIBRARY, INIT,
                      ("Cannot mark %dx%d %s video with these settings: %s", p->width, p->height, p->pix_fmt,
                       lumamark_strerror(rc)),
                      ("lumamark_embedder_open returned %d", rc));
}

/* Settings are judged before the pipeline starts, so that a bad value stops
 * it before a frame flows: each value by the library's setter, then the ID
 * and the payload file by opening an embedder for the default frame size.
 * Refusals that depend on the frame size wait for the negotiated one. */
static gboolean gst_lumamark_start(GstBaseTransform* trans) {
  GstLumamark* self = GST_LUMAMARK(trans);
  lumamark_params p;
  self->frames = 0;
  if (!gst_lumamark_params(self, &p)) return FALSE;
  lumamark_embedder* trial = NULL;
  const int rc = lumamark_embedder_open(&p, &trial);
  lumamark_embedder_close(trial);
  if (rc == LUMAMARK_EWMID || rc == LUMAMARK_EPAYLOAD) {
    report_open_error(self, &p, rc);
    return FALSE;
  }
  return TRUE;
}

static gboolean gst_lumamark_stop(GstBaseTransform* trans) {
  GstLumamark* self = GST_LUMAMARK(trans);
  g_clear_pointer(&self->embedder, lumamark_embedder_close);
  return TRUE;
}

/* A payload file fixes the frame size; refuses a stream of another size
 * rather than marking it with a map made for different frames. */
static gboolean check_payload_size(GstLumamark* self, const lumamark_params* p, const GstVideoInfo* info) {
  if (!p->payload_file[0]) return TRUE;
  FILE* f = fopen(p->payload_file, "rb");
  if (!f) return TRUE; /* the library reports the unreadable file */
  unsigned char head[8];
  const size_t got = fread(head, 1, sizeof head, f);
  fclose(f);
  if (got != sizeof head) return TRUE;
  const guint32 w = head[0] | (guint32)head[1] << 8 | (guint32)head[2] << 16 | (guint32)head[3] << 24;
  const guint32 h = head[4] | (guint32)head[5] << 8 | (guint32)head[6] << 16 | (guint32)head[7] << 24;
  if (w == (guint32)GST_VIDEO_INFO_WIDTH(info) && h == (guint32)GST_VIDEO_INFO_HEIGHT(info)) return TRUE;
  GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS,
                    ("Payload file %s was made for %dx%d frames; the stream is %dx%d", p->payload_file, (gint32)w,
                     (gint32)h, GST_VIDEO_INFO_WIDTH(info), GST_VIDEO_INFO_HEIGHT(info)),
                    (NULL));
  return FALSE;
}

/* Every negotiated format (and every caps change) opens a new embedder for
 * the stream's frame size and pixel format. A format the settings cannot
 * mark is still accepted as caps, with no embedder and the error posted:
 * the first frame then stops the stream unmarked and unsent. Refusing the
 * caps instead makes upstream negotiate again and again. */
static gboolean gst_lumamark_set_info(GstVideoFilter* filter, GstCaps* incaps, GstVideoInfo* in_info,
                                      GstCaps* outcaps, GstVideoInfo* out_info) {
  (void)incaps;
  (void)outcaps;
  (void)out_info;
  GstLumamark* self = GST_LUMAMARK(filter);
  g_clear_pointer(&self->embedder, lumamark_embedder_close);
  lumamark_params p;
  if (!gst_lumamark_params(self, &p) || !lm_settings_set_stream(GST_ELEMENT(self), in_info, NULL, LM_FOR_EMBED, &p) ||
      !check_payload_size(self, &p, in_info))
    return TRUE;
  const int rc = lumamark_embedder_open(&p, &self->embedder);
  if (rc != 0)
    report_open_error(self, &p, rc);
  else
    GST_INFO_OBJECT(self, "embedder open for %dx%d %s", p.width, p.height, p.pix_fmt);
  return TRUE;
}

static GstFlowReturn gst_lumamark_transform_frame_ip(GstVideoFilter* filter, GstVideoFrame* frame) {
  GstLumamark* self = GST_LUMAMARK(filter);
  if (!self->embedder) return GST_FLOW_ERROR; /* set_info posted why */
  const int rc = lumamark_embedder_process(self->embedder, GST_VIDEO_FRAME_PLANE_DATA(frame, 0),
                                           GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0));
  if (rc != 0) {
    GST_ELEMENT_ERROR(self, LIBRARY, FAILED,
                      ("Marking frame %" G_GUINT64_FORMAT " failed: %s", self->frames, lumamark_strerror(rc)),
                      ("lumamark_embedder_process returned %d", rc));
    return GST_FLOW_ERROR;
  }
  self->frames++;
  return GST_FLOW_OK;
}

static void gst_lumamark_finalize(GObject* object) {
  GstLumamark* self = GST_LUMAMARK(object);
  g_clear_pointer(&self->embedder, lumamark_embedder_close);
  lm_settings_clear(&self->values);
  G_OBJECT_CLASS(gst_lumamark_parent_class)->finalize(object);
}

static void gst_lumamark_class_init(GstLumamarkClass* klass) {
  GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
  GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* trans_class = GST_BASE_TRANSFORM_CLASS(klass);
  GstVideoFilterClass* filter_class = GST_VIDEO_FILTER_CLASS(klass);

  GST_DEBUG_CATEGORY_INIT(lumamark_embed_debug, "lumamark", 0, "lumamark watermark embedder");

  gobject_class->set_property = gst_lumamark_set_property;
  gobject_class->get_property = gst_lumamark_get_property;
  gobject_class->finalize = gst_lumamark_finalize;
  lm_element_class_init(element_class, LM_FOR_EMBED);

  gst_element_class_set_static_metadata(element_class, "lumamark watermark embedder", "Filter/Effect/Video",
                                        "Embeds an invisible forensic watermark in the luma of planar YUV video",
                                        "lumamark developers");

  trans_class->start = GST_DEBUG_FUNCPTR(gst_lumamark_start);
  trans_class->stop = GST_DEBUG_FUNCPTR(gst_lumamark_stop);
  filter_class->set_info = GST_DEBUG_FUNCPTR(gst_lumamark_set_info);
  filter_class->transform_frame_ip = GST_DEBUG_FUNCPTR(gst_lumamark_transform_frame_ip);
}

static void gst_lumamark_init(GstLumamark* self) {
  /* Every frame is processed: a late frame is not dropped here. */
  gst_base_transform_set_qos_enabled(GST_BASE_TRANSFORM(self), FALSE);
  lm_settings_init(&self->values, LM_FOR_EMBED);
}
