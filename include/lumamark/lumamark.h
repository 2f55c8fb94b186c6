/* lumamark: an invisible, robust forensic watermark in the luma of planar YUV
 * video, as a C library.
 *
 * Usage: fill a lumamark_params with lumamark_params_default, change settings
 * by name with lumamark_params_set (the names are the command-line option
 * names without the leading dashes), then open an embedder or a detector.
 *
 *   lumamark_params p;
 *   lumamark_params_default(&p);
 *   lumamark_params_set(&p, "width", "1280");
 *   lumamark_params_set(&p, "height", "720");
 *   lumamark_params_set(&p, "wm-id", "1a2b");
 *   lumamark_embedder* e;
 *   if (lumamark_embedder_open(&p, &e) == 0) {
 *     while (next_frame(luma, stride)) lumamark_embedder_process(e, luma, stride);
 *     lumamark_embedder_close(e);
 *   }
 *
 * The library prints nothing. Every function that can fail returns 0 or a
 * negative LUMAMARK_E* code; lumamark_strerror names it. Instances are
 * independent: different instances may be used from different threads at the
 * same time; one instance must not be used by two threads at once.
 *
 * Frames marked through the library are byte-identical to the frames the
 * lumamark command line writes for the same settings.
 */
#ifndef LUMAMARK_LUMAMARK_H
#define LUMAMARK_LUMAMARK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define LUMAMARK_API __attribute__((visibility("default")))
#else
#define LUMAMARK_API
#endif

/* Version of this header; lumamark_version() gives the library's. */
#define LUMAMARK_VERSION_MAJOR 2
#define LUMAMARK_VERSION_MINOR 1
#define LUMAMARK_VERSION_PATCH 3

/* Error codes (all negative; 0 is success). */
#define LUMAMARK_OK 0
#define LUMAMARK_EINVAL (-1)     /* null pointer or invalid argument */
#define LUMAMARK_ENAME (-2)      /* unknown setting name */
#define LUMAMARK_EVALUE (-3)     /* setting value malformed or out of range */
#define LUMAMARK_ENOMEM (-4)     /* memory exhausted */
#define LUMAMARK_EWMID (-5)      /* watermark ID invalid for the bit profile */
#define LUMAMARK_EGEOMETRY (-6)  /* frame or superpixel geometry refused */
#define LUMAMARK_EPAYLOAD (-7)   /* payload file unreadable or inconsistent */
#define LUMAMARK_EFRAME (-8)     /* a frame could not be processed */
#define LUMAMARK_ESETTINGS (-9)  /* settings that cannot work together */

/* Longest setting text kept by lumamark_params, including the final NUL. */
#define LUMAMARK_TEXT_MAX 4096

/* Every setting of an embedder or a detector. Fill it with
 * lumamark_params_default and change it with lumamark_params_set; the fields
 * may also be written directly. Text fields are NUL-terminated. */
typedef struct lumamark_params {
  int32_t width;          /* marked frame width in pixels, 1..65535; default 1920 ("width") */
  int32_t height;         /* marked frame height in pixels, 1..65535 (width x height x 3 < 2^31); default 1080 ("height") */
  char pix_fmt[16];       /* "yuv420p" (default), "yuv422p" or "yuv444p" ("pix-fmt") */
  char wm_id[LUMAMARK_TEXT_MAX];    /* watermark ID, hexadecimal; default "0" ("wm-id") */
  char user_urn[LUMAMARK_TEXT_MAX]; /* user organisation URN, 32 hex digits; default 32 zeros ("user-urn") */
  int32_t strength;       /* embedding strength, 1..127; default 3 ("strength") */
  int32_t fec;            /* forward error correction: 0 or 2; default 2 ("fec") */
  int32_t bit_profile;    /* payload bits, 1..2048; default 13 ("bit-profile") */
  int32_t sp_width;       /* superpixel side in pixels, 5..64; default 7 ("sp-width") */
  int32_t spb_width;      /* superpixel border 0..31, below half the side; 0 = automatic; default 0 ("spb-width") */
  int32_t pm_mode;        /* perceptual mode 0..3; default 3 ("pm-mode") */
  int32_t seed;           /* mask seed 0..31; -1 = from the image; default -1 ("seed") */
  int32_t sp_density;     /* superpixel density in percent, 0..100; default 100 ("sp-density") */
  int32_t p_density;      /* pixel density in percent, 0..100; default 100 ("p-density") */
  int32_t deep_fake;      /* 1 = repeat embedding up to a signal target, 0 = not; default 0 ("deep-fake") */
  int32_t threads;        /* worker threads, 0 = one per processor, at most 64; default 1 ("threads") */
  char payload_file[LUMAMARK_TEXT_MAX]; /* saved payload to embed instead of wm_id; "" = none ("payload-file") */
  int32_t input_width;    /* detector: width of the copy being read, 0..65535; 0 = width; default 0 ("input-width") */
  int32_t input_height;   /* detector: height of the copy being read, 0..65535; 0 = height; default 0 ("input-height") */
  int32_t search;         /* detector: geometric search, 0 none, 1 fast, 2 full, 3 auto (fast, then full when fast names no ID); default 3 ("search") */
} lumamark_params;

/* An open embedder; see lumamark_embedder_open. */
typedef struct lumamark_embedder lumamark_embedder;

/* An open detector; see lumamark_detector_open. */
typedef struct lumamark_detector lumamark_detector;

/* Verdicts of a detection. */
typedef enum lumamark_verdict {
  LUMAMARK_VERDICT_NONE = 0,      /* no mark found */
  LUMAMARK_VERDICT_WEAK = 1,      /* a mark may be present, too weak to name an ID */
  LUMAMARK_VERDICT_DETECTED = 2,  /* a mark was found and wm_id names it */
  LUMAMARK_VERDICT_AMBIGUOUS = 3  /* several IDs fit; none is named */
} lumamark_verdict;

/* The geometric change found between the copy and the marked frame: a copy
 * pixel (x, y) maps to marked pixel (x * scale_x + offset_x, y * scale_y +
 * offset_y), after a horizontal mirror of the copy when flip is 1. */
typedef struct lumamark_transform {
  double scale_x;   /* marked pixels per copy pixel, horizontally; 1 = same size */
  double scale_y;   /* marked pixels per copy pixel, vertically; 1 = same size */
  double offset_x;  /* horizontal offset in marked pixels; 0 = aligned */
  double offset_y;  /* vertical offset in marked pixels; 0 = aligned */
  int32_t flip;     /* 1 when the copy is mirrored left to right, else 0 */
} lumamark_transform;

/* What a detector concluded from the frames added so far. */
typedef struct lumamark_detection {
  char wm_id[520];            /* decoded ID, lowercase hexadecimal; "" unless detected or weak */
  double z;                   /* confidence of the decode; larger is stronger */
  lumamark_verdict verdict;   /* none, weak, detected or ambiguous */
  int32_t frames;             /* frames combined */
  lumamark_transform transform; /* geometry the mark was read at */
} lumamark_detection;

/* Fills p with the defaults listed beside each field. */
LUMAMARK_API void lumamark_params_default(lumamark_params* p);

/* Sets the setting called name (a command-line option name without the
 * dashes, e.g. "wm-id", "sp-width", "deep-fake") from its text value. Flags
 * such as "deep-fake" take "1" or "0". Integers are strict decimal (an
 * optional '-', digits, nothing else) within the range beside each field;
 * "user-urn" takes exactly 32 hexadecimal digits; "search" takes "none",
 * "fast", "full" or "auto". Returns 0, LUMAMARK_ENAME for an unknown name or
 * LUMAMARK_EVALUE for a malformed or out-of-range value (p is then
 * unchanged). Never aborts. */
LUMAMARK_API int lumamark_params_set(lumamark_params* p, const char* name, const char* value);

/* Opens an embedder for frames of p->width x p->height luma samples, with
 * the payload generated from p->wm_id or read from p->payload_file (then
 * p->wm_id and p->user_urn are not used, and the file must be for frames of
 * p->width x p->height). Fields written directly are checked as
 * lumamark_params_set checks them. Returns 0 and *out, or a negative code and
 * *out = NULL. p is copied; it may be changed or freed afterwards. */
LUMAMARK_API int lumamark_embedder_open(const lumamark_params* p, lumamark_embedder** out);

/* Marks one luma plane in place: width x height samples, rows stride bytes
 * apart (stride >= width). Frames must be given in order: the mark of a frame
 * depends only on the frame, not on the ones before it. Returns 0 or a
 * negative code. */
LUMAMARK_API int lumamark_embedder_process(lumamark_embedder* e, uint8_t* luma, ptrdiff_t stride);

/* Releases the embedder; NULL is allowed. */
LUMAMARK_API void lumamark_embedder_close(lumamark_embedder* e);

/* Opens a detector for the settings the copy was marked with (p->width x
 * p->height is the marked size), reading frames of p->input_width x
 * p->input_height (or the marked size). The copy is read as the command line
 * reads it: a copy of the marked size aligned first, and when that names no
 * ID (or the grid's other phases read another ID more clearly), and always
 * for another size, through the geometric search of p->search over scale,
 * offset and mirroring, run on the first 10 frames. Returns 0 and *out, or a
 * negative code and *out = NULL. */
LUMAMARK_API int lumamark_detector_open(const lumamark_params* p, lumamark_detector** out);

/* Adds one luma plane of the copy (input size, rows stride bytes apart).
 * Returns 0 or a negative code. */
LUMAMARK_API int lumamark_detector_add(lumamark_detector* d, const uint8_t* luma, ptrdiff_t stride);

/* Decodes the frames added so far into *out, with out->transform the geometry
 * the mark was read at (the identity for an aligned read). A search runs on
 * every call that needs one. May be called again after more frames. Returns
 * 0 or a negative code. */
LUMAMARK_API int lumamark_detector_result(lumamark_detector* d, lumamark_detection* out);

/* Releases the detector; NULL is allowed. */
LUMAMARK_API void lumamark_detector_close(lumamark_detector* d);

/* A short English text for an error code; never NULL. */
LUMAMARK_API const char* lumamark_strerror(int code);

/* The library's version, e.g. "2.1.3". */
LUMAMARK_API const char* lumamark_version(void);

#ifdef __cplusplus
}
#endif

#endif /* LUMAMARK_LUMAMARK_H */
