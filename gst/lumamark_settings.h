/* Settings shared by the lumamark and lumamarkdetect elements: one table
 * that names every setting after the command-line option, takes its default
 * from the library, installs it as a GObject property, keeps its value and
 * hands it to lumamark_params_set, so that the library alone judges values. */
#ifndef LUMAMARK_GST_SETTINGS_H
#define LUMAMARK_GST_SETTINGS_H

#include <glib-object.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <lumamark/lumamark.h>

G_BEGIN_DECLS

/* Which element has a setting. */
#define LM_FOR_EMBED 1u
#define LM_FOR_DETECT 2u

/* Settings that are not library settings but the detector's own. */
enum { LM_PROP_INTERVAL = 1000 };

/* The value of every setting an element has, indexed like the table. */
typedef struct LmSettingValues {
  gint ints[24];
  gchar* texts[24];
} LmSettingValues;

/* Installs the properties of the settings that `which` element has, and
 * the sink and src pad templates (LM_VIDEO_CAPS) both elements share. */
void lm_element_class_init(GstElementClass* klass, guint which);

/* Fills v with the defaults of the element `which`. */
void lm_settings_init(LmSettingValues* v, guint which);
void lm_settings_clear(LmSettingValues* v);
/* A deep copy, so that values can be used outside the object lock. */
void lm_settings_copy(LmSettingValues* dst, const LmSettingValues* src);

/* Property access for ids installed by lm_element_class_init; FALSE when the
 * id is not one of them. */
gboolean lm_settings_set_property(LmSettingValues* v, guint prop_id, const GValue* value);
gboolean lm_settings_get_property(const LmSettingValues* v, guint prop_id, GValue* value);

/* Builds library parameters from the values of `which` element's settings,
 * each through lumamark_params_set. On a value the library refuses, posts
 * an error naming the property and its value on the bus and returns FALSE. */
gboolean lm_settings_to_params(GstElement* element, const LmSettingValues* v, guint which,
                               lumamark_params* p);

/* Sets the frame size and pixel format of a negotiated stream on p. The
 * embedder marks frames of the stream's size; the detector reads frames of
 * the stream's size, marked at its width and height properties (0 = the
 * stream's). Posts an error and returns FALSE if the library refuses. */
gboolean lm_settings_set_stream(GstElement* element, const GstVideoInfo* info, const LmSettingValues* v, guint which,
                                lumamark_params* p);

/* The current text of a setting, or NULL when `name` is not a text one. */
const gchar* lm_settings_text(const LmSettingValues* v, const gchar* name);

/* Caps both elements accept: the planar 8-bit formats the library marks. */
#define LM_VIDEO_CAPS GST_VIDEO_CAPS_MAKE("{ I420, Y42B, Y444 }")

G_END_DECLS

#endif
