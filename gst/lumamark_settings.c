/* Settings shared by the lumamark and lumamarkdetect elements. */
#include "lumamark_settings.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

typedef enum { LM_INT, LM_TEXT, LM_FLAG, LM_CHOICE } LmKind;

typedef struct LmSetting {
  const gchar* name;   /* property name and library setting name */
  LmKind kind;
  size_t offset;       /* field of lumamark_params holding the default */
  guint which;         /* LM_FOR_EMBED, LM_FOR_DETECT or both */
  gboolean from_stream; /* 0 (the default) means: the stream's own value */
  const gchar* blurb;
} LmSetting;

#define FIELD(f) offsetof(lumamark_params, f)
#define BOTH (LM_FOR_EMBED | LM_FOR_DETECT)

/* The detector's geometric search, by the names lumamark_params_set takes. */
static const gchar* const search_names[] = {"none", "fast", "full", "auto"};

static const LmSetting settings[] = {
    {"wm-id", LM_TEXT, FIELD(wm_id), LM_FOR_EMBED, FALSE, "Watermark ID, hexadecimal (at most bit-profile bits)"},
    {"user-urn", LM_TEXT, FIELD(user_urn), BOTH, FALSE,
     "User organisation URN, 32 hexadecimal digits; seeds the code shuffle and the sign pattern"},
    {"strength", LM_INT, FIELD(strength), BOTH, FALSE, "Embedding strength, at least 1"},
    {"fec", LM_INT, FIELD(fec), BOTH, FALSE,
     "Forward error correction: 0 = parity and repetition, 2 = shuffled Reed-Muller code"},
    {"bit-profile", LM_INT, FIELD(bit_profile), BOTH, FALSE, "Number of payload bits"},
    {"sp-width", LM_INT, FIELD(sp_width), BOTH, FALSE, "Superpixel side in pixels, 5..64"},
    {"spb-width", LM_INT, FIELD(spb_width), BOTH, FALSE, "Superpixel border; 0 or less = automatic"},
    {"pm-mode", LM_INT, FIELD(pm_mode), LM_FOR_EMBED, FALSE,
     "Perceptual mode: 0 plain, 1 amplitude 1 only, 2 border-activity attenuation, 3 texture map"},
    {"seed", LM_INT, FIELD(seed), BOTH, FALSE,
     "Superpixel selection seed 0..31; negative = derived from each frame's picture"},
    {"sp-density", LM_INT, FIELD(sp_density), BOTH, FALSE, "Percentage of superpixels changed per frame, 0..100"},
    {"p-density", LM_INT, FIELD(p_density), LM_FOR_EMBED, FALSE, "Pixel density of the dither patterns, percent"},
    {"deep-fake", LM_FLAG, FIELD(deep_fake), LM_FOR_EMBED, FALSE,
     "Repeat the embedding with growing amplitude until a measured signal target is met"},
    {"threads", LM_INT, FIELD(threads), BOTH, FALSE, "Worker threads; 0 = one per online processor"},
    {"payload-file", LM_TEXT, FIELD(payload_file), LM_FOR_EMBED, FALSE,
     "Saved payload file to embed instead of one generated from wm-id; its frame size must be the stream's"},
    {"width", LM_INT, FIELD(width), LM_FOR_DETECT, TRUE, "Width the frames were marked at; 0 = the stream's width"},
    {"height", LM_INT, FIELD(height), LM_FOR_DETECT, TRUE,
     "Height the frames were marked at; 0 = the stream's height"},
    {"search", LM_CHOICE, FIELD(search), LM_FOR_DETECT, FALSE,
     "Geometric search for a scaled, shifted or mirrored copy: none, fast, full or auto (fast, then full when fast names no ID)"},
};

#define N_SETTINGS G_N_ELEMENTS(settings)
G_STATIC_ASSERT(N_SETTINGS <= G_N_ELEMENTS(((LmSettingValues*)0)->ints));

static const lumamark_params* library_defaults(void) {
  static lumamark_params defaults;
  static gsize done = 0;
  if (g_once_init_enter(&done)) {
    lumamark_params_default(&defaults);
    g_once_init_leave(&done, 1);
  }
  return &defaults;
}

static gint default_int(const LmSetting* s) {
  if (s->from_stream) return 0;
  gint32 value;
  memcpy(&value, (const char*)library_defaults() + s->offset, sizeof value);
  return value;
}

static const gchar* default_text(const LmSetting* s) {
  if (s->kind == LM_CHOICE) {
    const gint index = default_int(s);
    return index >= 0 && index < (gint)G_N_ELEMENTS(search_names) ? search_names[index] : search_names[0];
  }
  return (const char*)library_defaults() + s->offset;
}

void lm_element_class_init(GstElementClass* element_class, guint which) {
  GstCaps* caps = gst_caps_from_string(LM_VIDEO_CAPS);
  gst_element_class_add_pad_template(element_class, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
  gst_element_class_add_pad_template(element_class, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
  GObjectClass* klass = G_OBJECT_CLASS(element_class);
  const GParamFlags flags = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY;
  for (guint i = 0; i < N_SETTINGS; i++) {
    const LmSetting* s = &settings[i];
    if (!(s->which & which)) continue;
    GParamSpec* property;
    switch (s->kind) {
      case LM_INT:
        /* The whole range: the library, not GObject, judges the value. */
        property = g_param_spec_int(s->name, s->name, s->blurb, G_MININT, G_MAXINT, default_int(s), flags);
        break;
      case LM_FLAG:
        property = g_param_spec_boolean(s->name, s->name, s->blurb, default_int(s) != 0, flags);
        break;
      default:
        property = g_param_spec_string(s->name, s->name, s->blurb, default_text(s), flags);
        break;
    }
    g_object_class_install_property(klass, i + 1, property);
  }
}

void lm_settings_init(LmSettingValues* v, guint which) {
  memset(v, 0, sizeof *v);
  for (guint i = 0; i < N_SETTINGS; i++) {
    if (!(settings[i].which & which)) continue;
    if (settings[i].kind == LM_TEXT || settings[i].kind == LM_CHOICE)
      v->texts[i] = g_strdup(default_text(&settings[i]));
    else
      v->ints[i] = default_int(&settings[i]);
  }
}

void lm_settings_clear(LmSettingValues* v) {
  for (guint i = 0; i < N_SETTINGS; i++) g_clear_pointer(&v->texts[i], g_free);
}

void lm_settings_copy(LmSettingValues* dst, const LmSettingValues* src) {
  *dst = *src;
  for (guint i = 0; i < N_SETTINGS; i++) dst->texts[i] = g_strdup(src->texts[i]);
}

gboolean lm_settings_set_property(LmSettingValues* v, guint prop_id, const GValue* value) {
  if (prop_id < 1 || prop_id > N_SETTINGS) return FALSE;
  const guint i = prop_id - 1;
  switch (settings[i].kind) {
    case LM_INT:
      v->ints[i] = g_value_get_int(value);
      break;
    case LM_FLAG:
      v->ints[i] = g_value_get_boolean(value) ? 1 : 0;
      break;
    default:
      g_free(v->texts[i]);
      v->texts[i] = g_value_dup_string(value);
      break;
  }
  return TRUE;
}

gboolean lm_settings_get_property(const LmSettingValues* v, guint prop_id, GValue* value) {
  if (prop_id < 1 || prop_id > N_SETTINGS) return FALSE;
  const guint i = prop_id - 1;
  switch (settings[i].kind) {
    case LM_INT:
      g_value_set_int(value, v->ints[i]);
      break;
    case LM_FLAG:
      g_value_set_boolean(value, v->ints[i] != 0);
      break;
    default:
      g_value_set_string(value, v->texts[i]);
      break;
  }
  return TRUE;
}

const gchar* lm_settings_text(const LmSettingValues* v, const gchar* name) {
  for (guint i = 0; i < N_SETTINGS; i++)
    if (strcmp(settings[i].name, name) == 0) return v->texts[i];
  return NULL;
}

/* Sets one library setting, posting an error if the library refuses the
 * value: it names the property, or the stream's format when the value came
 * from the caps. */
static gboolean set_value(GstElement* element, lumamark_params* p, const gchar* name, const gchar* value,
                          gboolean from_caps) {
  const int rc = lumamark_params_set(p, name, value);
  if (rc == 0) return TRUE;
  if (from_caps)
    GST_ELEMENT_ERROR(element, CORE, NEGOTIATION, ("The stream's %s %s is refused (%s)", name, value, lumamark_strerror(rc)),
                      ("lumamark_params_set returned %d", rc));
  else
    GST_ELEMENT_ERROR(element, LIBRARY, SETTINGS,
                      ("Invalid value for property '%s': \"%s\" (%s)", name, value, lumamark_strerror(rc)),
                      ("lumamark_params_set returned %d", rc));
  return FALSE;
}

static gboolean set_one(GstElement* element, lumamark_params* p, const gchar* name, const gchar* value) {
  return set_value(element, p, name, value, FALSE);
}

static gboolean set_from_caps(GstElement* element, lumamark_params* p, const gchar* name, const gchar* value) {
  return set_value(element, p, name, value, TRUE);
}

gboolean lm_settings_to_params(GstElement* element, const LmSettingValues* v, guint which, lumamark_params* p) {
  lumamark_params_default(p);
  for (guint i = 0; i < N_SETTINGS; i++) {
    const LmSetting* s = &settings[i];
    if (!(s->which & which)) continue;
    if (s->from_stream && v->ints[i] == 0) continue; /* set from the caps */
    gchar number[16];
    const gchar* text = number;
    if (s->kind == LM_INT || s->kind == LM_FLAG)
      g_snprintf(number, sizeof number, "%d", v->ints[i]);
    else
      text = v->texts[i] ? v->texts[i] : "";
    if (!set_one(element, p, s->name, text)) return FALSE;
  }
  return TRUE;
}

gboolean lm_settings_set_stream(GstElement* element, const GstVideoInfo* info, const LmSettingValues* v, guint which,
                                lumamark_params* p) {
  const gchar* pix_fmt;
  switch (GST_VIDEO_INFO_FORMAT(info)) {
    case GST_VIDEO_FORMAT_I420:
      pix_fmt = "yuv420p";
      break;
    case GST_VIDEO_FORMAT_Y42B:
      pix_fmt = "yuv422p";
      break;
    case GST_VIDEO_FORMAT_Y444:
      pix_fmt = "yuv444p";
      break;
    default:
      GST_ELEMENT_ERROR(element, CORE, NEGOTIATION, ("Unsupported video format %s (use I420, Y42B or Y444)",
                                                      GST_VIDEO_INFO_NAME(info)), (NULL));
      return FALSE;
  }
  gchar width[16], height[16];
  g_snprintf(width, sizeof width, "%d", GST_VIDEO_INFO_WIDTH(info));
  g_snprintf(height, sizeof height, "%d", GST_VIDEO_INFO_HEIGHT(info));
  if (!set_from_caps(element, p, "pix-fmt", pix_fmt)) return FALSE;
  /* The detector reads the stream as the copy; the size it was marked at is
   * the stream's unless the width or height property says otherwise. */
  gboolean marked_width = TRUE, marked_height = TRUE;
  if (which == LM_FOR_DETECT) {
    if (!set_from_caps(element, p, "input-width", width) || !set_from_caps(element, p, "input-height", height)) return FALSE;
    for (guint i = 0; i < N_SETTINGS; i++) {
      if (!settings[i].from_stream || v->ints[i] == 0) continue;
      if (strcmp(settings[i].name, "width") == 0) marked_width = FALSE;
      if (strcmp(settings[i].name, "height") == 0) marked_height = FALSE;
    }
  }
  return (!marked_width || set_from_caps(element, p, "width", width)) &&
         (!marked_height || set_from_caps(element, p, "height", height));
}
