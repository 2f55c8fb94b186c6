// The C library: settings by name, an embedder that prepares the filter
// exactly as the command line does, and a detector that reads copies as the
// command line does (the aligned read, then the geometric search). Nothing here prints: every check whose failure the lower layers
// would report on a stream is made first, and the payload file is read by
// the silent reader.
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "decode/copy_read.h"
#include "decode/detector.h"
#include "decode/resync.h"
#include "filter/filter.h"
#include "kernels/pattern.h"
#include "lumamark/lumamark.h"
#include "payload/fec.h"
#include "payload/layout.h"
#include "payload/payload_map.h"
#include "payload/payload_reader.h"
#include "payload/wm_id.h"

struct lumamark_embedder {
  lumamark::WatermarkFilter* filter = nullptr;  // prepared filter, owned
  int32_t width = 0;                            // luma width of every frame
  int32_t height = 0;                           // luma height of every frame
  int32_t seed = -1;                            // mask seed handed to every frame
  bool deep_fake = false;                       // deep-fake embedding (see process)
  std::vector<uint8_t> packed;                  // a padded plane's packed copy
};

struct lumamark_detector {
  lumamark::Detector detector;       // the aligned detector and its running sum
  lumamark::CopyFrames copy;         // the first frames, packed, for the geometric search
  int64_t added = 0;                 // frames added
  lumamark::SearchMode search = lumamark::SearchMode::kFast;  // search asked for
};

namespace {

using lumamark::MarkLayout;
using lumamark::WatermarkFilter;

constexpr int32_t kMaxSide = 65535;

enum class Kind { kInt, kFec, kText, kPixFmt, kUrn, kSearch };

// One setting: its name, where it lives, and the values it takes. Integer
// settings hold min..max; text settings any NUL-terminated text that fits,
// further restricted by their kind.
struct Setting {
  const char* name;
  Kind kind;
  size_t offset;  // of the field in lumamark_params
  size_t size;    // bytes of a text field
  int32_t min;
  int32_t max;
};

#define LM_INT(name, field, lo, hi) \
  {name, Kind::kInt, offsetof(lumamark_params, field), 0, lo, hi}
#define LM_TEXT(name, kind, field) \
  {name, kind, offsetof(lumamark_params, field), sizeof(lumamark_params::field), 0, 0}

constexpr Setting kSettings[] = {
    LM_INT("width", width, 1, kMaxSide),
    LM_INT("height", height, 1, kMaxSide),
    LM_TEXT("pix-fmt", Kind::kPixFmt, pix_fmt),
    LM_TEXT("wm-id", Kind::kText, wm_id),
    LM_TEXT("user-urn", Kind::kUrn, user_urn),
    // A map byte holds strength plus a value in [-strength, strength].
    LM_INT("strength", strength, 1, 127),
    {"fec", Kind::kFec, offsetof(lumamark_params, fec), 0, 0, 2},
    LM_INT("bit-profile", bit_profile, 1, 2048),
    LM_INT("sp-width", sp_width, 5, 64),
    LM_INT("spb-width", spb_width, 0, 31),
    LM_INT("pm-mode", pm_mode, 0, 3),
    LM_INT("seed", seed, -1, 31),
    LM_INT("sp-density", sp_density, 0, 100),
    LM_INT("p-density", p_density, 0, 100),
    LM_INT("deep-fake", deep_fake, 0, 1),
    LM_INT("threads", threads, 0, 64),
    LM_TEXT("payload-file", Kind::kText, payload_file),
    LM_INT("input-width", input_width, 0, kMaxSide),
    LM_INT("input-height", input_height, 0, kMaxSide),
    {"search", Kind::kSearch, offsetof(lumamark_params, search), 0, 0, 3},
};

#undef LM_INT
#undef LM_TEXT

const char* const kSearchNames[] = {"none", "fast", "full", "auto"};

const Setting* find_setting(const char* name) {
  for (const Setting& s : kSettings) {
    if (std::strcmp(s.name, name) == 0) return &s;
  }
  return nullptr;
}

int32_t* int_field(lumamark_params* p, const Setting& s) {
  return reinterpret_cast<int32_t*>(reinterpret_cast<char*>(p) + s.offset);
}
const int32_t* int_field(const lumamark_params* p, const Setting& s) {
  return reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(p) + s.offset);
}
const char* text_field(const lumamark_params* p, const Setting& s) {
  return reinterpret_cast<const char*>(p) + s.offset;
}

bool is_hex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Strict base-10 integer: an optional '-', then 1 to 10 digits, nothing else.
bool parse_int(const char* text, int32_t* value) {
  const bool negative = text[0] == '-';
  const char* p = text + (negative ? 1 : 0);
  const size_t digits = std::strlen(p);
  if (digits == 0 || digits > 10) return false;
  int64_t v = 0;
  for (; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
    v = v * 10 + (*p - '0');
  }
  if (negative) v = -v;
  if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max()) {
    return false;
  }
  *value = static_cast<int32_t>(v);
  return true;
}

// Whether v is a value of the integer setting s (FEC modes are 0 and 2).
bool int_valid(const Setting& s, int32_t v) {
  return v >= s.min && v <= s.max && !(s.kind == Kind::kFec && v == 1);
}

// Whether text (NUL-terminated, at most size bytes with the NUL) is a value of
// the setting.
bool text_valid(const Setting& s, const char* text, size_t size) {
  const void* nul = std::memchr(text, '\0', size);
  if (nul == nullptr) return false;
  const size_t len = static_cast<size_t>(static_cast<const char*>(nul) - text);
  switch (s.kind) {
    case Kind::kPixFmt:
      return std::strcmp(text, "yuv420p") == 0 || std::strcmp(text, "yuv422p") == 0 ||
             std::strcmp(text, "yuv444p") == 0;
    case Kind::kUrn:
      if (len != 32) return false;
      for (size_t i = 0; i < len; ++i) {
        if (!is_hex(text[i])) return false;
      }
      return true;
    default:
      return true;
  }
}

// LUMAMARK_OK when every field holds a value that lumamark_params_set would
// accept, else LUMAMARK_EVALUE.
int check_fields(const lumamark_params* p) {
  for (const Setting& s : kSettings) {
    if (s.kind == Kind::kInt || s.kind == Kind::kFec || s.kind == Kind::kSearch) {
      if (!int_valid(s, *int_field(p, s))) return LUMAMARK_EVALUE;
    } else if (!text_valid(s, text_field(p, s), s.size)) {
      return LUMAMARK_EVALUE;
    }
  }
  return LUMAMARK_OK;
}

// Prepares f as the command line does for the same settings (payload
// generated from the ID, or read from the payload file), without any of the
// reports the command line makes: each failure they describe is found here
// first and returned as a code.
int prepare_filter(const lumamark_params& p, WatermarkFilter* f) {
  int32_t width = p.width, height = p.height, sp = p.sp_width, bits = p.bit_profile;
  // Every frame size the command line computes (4:4:4 included) stays
  // within 32 bits; the border check is the command line's.
  if (int64_t{width} * height * 3 > std::numeric_limits<int32_t>::max() ||
      p.sp_width <= 2 * p.spb_width) {
    return LUMAMARK_EGEOMETRY;
  }
  int32_t encoded_bit_count = 0;
  // A payload file is read with the ID left at its default, as the command
  // line reads it when no --wm-id is given.
  const bool from_file = p.payload_file[0] != '\0';
  const char* wm_id = from_file ? "0" : p.wm_id;
  lumamark::PayloadData data;
  if (from_file) {
    std::string message;
    if (!lumamark::load_payload_file(p.payload_file, p.fec, p.spb_width, &data, &message)) {
      return LUMAMARK_EPAYLOAD;
    }
    // Frames are handed over as width x height planes: the file must be for
    // that size.
    if (data.width != width || data.height != height) return LUMAMARK_EGEOMETRY;
    sp = data.sp_size;
    bits = data.bits;
    encoded_bit_count = data.encoded_bit_count;
  }
  // The checks the filter would report on standard output.
  if (lumamark::wm_id_validate(wm_id, bits) != 0) return from_file ? LUMAMARK_EPAYLOAD : LUMAMARK_EWMID;
  // The cell count is at most 65535^2 / 25: it fits.
  MarkLayout layout = lumamark::mark_grid(width, height, sp);
  if (layout.cols < 1 || layout.rows < 1 ||
      sp <= 2 * lumamark::border_or_default(p.spb_width, sp)) {
    return LUMAMARK_EGEOMETRY;
  }
  if (!from_file) encoded_bit_count = lumamark::mark_coded_length(bits, p.fec, layout.cells);
  lumamark::mark_set_length(&layout, encoded_bit_count);
  lumamark::mark_set_urn(&layout, p.user_urn);

  if (lumamark::wm_filter_init(f, p.strength, sp, p.spb_width, p.p_density, p.sp_density, 1, 1,
                               width, height, wm_id, bits, p.deep_fake, p.fec, p.pm_mode) != 0) {
    return LUMAMARK_ENOMEM;  // every other refusal was checked above
  }
  lumamark::wm_filter_set_threads(f, p.threads);
  if (from_file) {
    lumamark::wm_filter_set_payload(f, data.map.data(),
                                    data.indexes.empty() ? nullptr : data.indexes.data(),
                                    encoded_bit_count, sp, width, height);
    return LUMAMARK_OK;
  }
  if (f->pattern_values == nullptr) return LUMAMARK_ENOMEM;
  // The generator reports a Reed-Muller failure on standard error (the code
  // does not fit the grid); the same encoding is tried first, and the
  // generator repeats it with the same result.
  if (p.fec == 2 && (f->coded_bits == nullptr ||
                     lumamark::rm_encode_payload(f->coded_bits, f->wm_id, bits, layout.length,
                                                 layout.urn_seed) < 0)) {
    return LUMAMARK_ESETTINGS;
  }
  std::vector<uint8_t> map(static_cast<size_t>(layout.cells), 0);
  std::vector<uint8_t> indexes;
  if (p.fec == 0) {
    indexes.assign(static_cast<size_t>(lumamark::mark_index_table_bytes(layout.length)), 0);
  }
  uint8_t* index_table = indexes.empty() ? nullptr : indexes.data();
  lumamark::wm_generate_payload_map(f, map.data(), p.user_urn, index_table);
  lumamark::wm_filter_set_payload(f, map.data(), index_table, encoded_bit_count, sp, width, height);
  return LUMAMARK_OK;
}

}  // namespace

extern "C" {

void lumamark_params_default(lumamark_params* p) {
  if (p == nullptr) return;
  std::memset(p, 0, sizeof *p);
  p->width = 1920;
  p->height = 1080;
  std::strcpy(p->pix_fmt, "yuv420p");
  std::strcpy(p->wm_id, "0");
  std::strcpy(p->user_urn, lumamark::kNeutralUrn);
  p->strength = 3;
  p->fec = 2;
  p->bit_profile = 13;
  p->sp_width = 7;
  p->spb_width = 0;
  p->pm_mode = 3;
  p->seed = -1;
  p->sp_density = 100;
  p->p_density = 100;
  p->deep_fake = 0;
  p->threads = 1;
  p->input_width = 0;
  p->input_height = 0;
  p->search = 3;
}

int lumamark_params_set(lumamark_params* p, const char* name, const char* value) {
  if (p == nullptr || name == nullptr || value == nullptr) return LUMAMARK_EINVAL;
  const Setting* s = find_setting(name);
  if (s == nullptr) return LUMAMARK_ENAME;
  if (s->kind == Kind::kSearch) {
    for (int32_t i = 0; i < 4; ++i) {
      if (std::strcmp(value, kSearchNames[i]) == 0) {
        *int_field(p, *s) = i;
        return LUMAMARK_OK;
      }
    }
    return LUMAMARK_EVALUE;
  }
  if (s->kind == Kind::kInt || s->kind == Kind::kFec) {
    int32_t v = 0;
    if (!parse_int(value, &v) || !int_valid(*s, v)) return LUMAMARK_EVALUE;
    *int_field(p, *s) = v;
    return LUMAMARK_OK;
  }
  const size_t len = std::strlen(value);
  if (len >= s->size || !text_valid(*s, value, len + 1)) return LUMAMARK_EVALUE;
  std::memcpy(reinterpret_cast<char*>(p) + s->offset, value, len + 1);
  return LUMAMARK_OK;
}

int lumamark_embedder_open(const lumamark_params* p, lumamark_embedder** out) {
  if (out == nullptr) return LUMAMARK_EINVAL;
  *out = nullptr;
  if (p == nullptr) return LUMAMARK_EINVAL;
  int rc = check_fields(p);
  if (rc != LUMAMARK_OK) return rc;
  try {
    lumamark_embedder* e = new lumamark_embedder;
    e->filter = lumamark::wm_filter_create();
    rc = e->filter == nullptr ? LUMAMARK_ENOMEM : prepare_filter(*p, e->filter);
    if (rc != LUMAMARK_OK) {
      lumamark_embedder_close(e);
      return rc;
    }
    e->width = p->width;
    e->height = p->height;
    e->seed = p->seed;
    e->deep_fake = p->deep_fake != 0;
    *out = e;
    return LUMAMARK_OK;
  } catch (const std::bad_alloc&) {
    return LUMAMARK_ENOMEM;
  }
}

int lumamark_embedder_process(lumamark_embedder* e, uint8_t* luma, ptrdiff_t stride) {
  if (e == nullptr || luma == nullptr || stride < e->width ||
      stride > std::numeric_limits<int32_t>::max()) {
    return LUMAMARK_EINVAL;
  }
  if (stride == e->width || !e->deep_fake) {
    const int32_t rc = lumamark::wm_filter_apply(e->filter, luma, e->width, e->height,
                                                 static_cast<int32_t>(stride), e->seed);
    return rc == 0 ? LUMAMARK_OK : LUMAMARK_EFRAME;
  }
  // Deep-fake targets are measured with the frame width as the row pitch,
  // which is the stride of the command line's frames: a padded plane is
  // marked through a packed copy to give the same samples.
  const size_t w = static_cast<size_t>(e->width), h = static_cast<size_t>(e->height);
  try {
    e->packed.resize(w * h);
  } catch (const std::bad_alloc&) {
    return LUMAMARK_ENOMEM;
  }
  for (size_t y = 0; y < h; ++y) std::memcpy(&e->packed[y * w], luma + y * stride, w);
  const int32_t rc = lumamark::wm_filter_apply(e->filter, e->packed.data(), e->width, e->height,
                                               e->width, e->seed);
  if (rc != 0) return LUMAMARK_EFRAME;
  for (size_t y = 0; y < h; ++y) std::memcpy(luma + y * stride, &e->packed[y * w], w);
  return LUMAMARK_OK;
}

void lumamark_embedder_close(lumamark_embedder* e) {
  if (e == nullptr) return;
  if (e->filter != nullptr) lumamark::wm_filter_free(e->filter);
  delete e;
}

int lumamark_detector_open(const lumamark_params* p, lumamark_detector** out) {
  if (out == nullptr) return LUMAMARK_EINVAL;
  *out = nullptr;
  if (p == nullptr) return LUMAMARK_EINVAL;
  const int rc = check_fields(p);
  if (rc != LUMAMARK_OK) return rc;
  const int32_t in_w = p->input_width > 0 ? p->input_width : p->width;
  const int32_t in_h = p->input_height > 0 ? p->input_height : p->height;
  lumamark::DetectConfig c;
  c.width = p->width;
  c.height = p->height;
  c.sp_width = p->sp_width;
  c.spb_width = p->spb_width;
  c.fec = p->fec;
  c.bit_profile = p->bit_profile;
  c.strength = p->strength;
  c.seed = p->seed;
  c.sp_density = p->sp_density;
  c.threads = p->threads;
  constexpr lumamark::SearchMode kModes[] = {lumamark::SearchMode::kNone,
                                             lumamark::SearchMode::kFast,
                                             lumamark::SearchMode::kFull,
                                             lumamark::SearchMode::kAuto};
  try {
    c.user_urn = p->user_urn;
    lumamark_detector* d = new lumamark_detector;
    std::string error;
    if (lumamark::detector_init(&d->detector, c, &error) != 0) {
      delete d;
      return LUMAMARK_ESETTINGS;
    }
    d->copy.width = in_w;
    d->copy.height = in_h;
    d->search = kModes[p->search];
    *out = d;
    return LUMAMARK_OK;
  } catch (const std::bad_alloc&) {
    return LUMAMARK_ENOMEM;
  }
}

int lumamark_detector_add(lumamark_detector* d, const uint8_t* luma, ptrdiff_t stride) {
  if (d == nullptr || luma == nullptr || stride < d->copy.width ||
      stride > std::numeric_limits<int32_t>::max()) {
    return LUMAMARK_EINVAL;
  }
  const lumamark::DetectConfig& c = d->detector.config;
  try {
    // A copy of the marked size is read aligned, every frame; the first
    // frames are kept for the search, as the command line keeps them.
    if (d->copy.width == c.width && d->copy.height == c.height) {
      lumamark::detector_add_frame(&d->detector, luma, static_cast<int32_t>(stride));
    }
    if (d->copy.luma.size() < static_cast<size_t>(lumamark::kSearchFrames)) {
      const size_t w = static_cast<size_t>(d->copy.width), h = static_cast<size_t>(d->copy.height);
      std::vector<uint8_t> packed(w * h);
      for (size_t y = 0; y < h; ++y) {
        std::memcpy(&packed[y * w], luma + static_cast<ptrdiff_t>(y) * stride, w);
      }
      d->copy.luma.push_back(std::move(packed));
    }
    ++d->added;
    return LUMAMARK_OK;
  } catch (const std::bad_alloc&) {
    return LUMAMARK_ENOMEM;
  }
}

int lumamark_detector_result(lumamark_detector* d, lumamark_detection* out) {
  if (d == nullptr || out == nullptr) return LUMAMARK_EINVAL;
  std::memset(out, 0, sizeof *out);
  out->transform = lumamark_transform{1.0, 1.0, 0.0, 0.0, 0};
  out->verdict = LUMAMARK_VERDICT_NONE;
  if (d->added == 0) return LUMAMARK_OK;
  try {
    lumamark::CopyRead read;
    std::string error;
    if (lumamark::read_copy(&d->detector, d->copy, d->search, std::string(), &read, &error) != 0) {
      return LUMAMARK_ESETTINGS;
    }
    const lumamark::DetectResult& r = read.result;
    out->z = r.z;
    out->frames = r.frames;
    out->transform = lumamark_transform{read.transform.scale_x, read.transform.scale_y,
                                        read.transform.offset_x, read.transform.offset_y,
                                        read.transform.flip ? 1 : 0};
    switch (r.verdict) {
      case lumamark::Verdict::kDetected:
        out->verdict = LUMAMARK_VERDICT_DETECTED;
        break;
      case lumamark::Verdict::kWeak:
        out->verdict = LUMAMARK_VERDICT_WEAK;
        break;
      case lumamark::Verdict::kAmbiguous:
        out->verdict = LUMAMARK_VERDICT_AMBIGUOUS;
        break;
      case lumamark::Verdict::kNone:
        out->verdict = LUMAMARK_VERDICT_NONE;
        break;
    }
    const bool named = out->verdict == LUMAMARK_VERDICT_DETECTED ||
                       out->verdict == LUMAMARK_VERDICT_WEAK;
    if (named && r.wm_id.size() < sizeof out->wm_id) {
      std::memcpy(out->wm_id, r.wm_id.c_str(), r.wm_id.size() + 1);
    }
    return LUMAMARK_OK;
  } catch (const std::bad_alloc&) {
    return LUMAMARK_ENOMEM;
  }
}

void lumamark_detector_close(lumamark_detector* d) { delete d; }

const char* lumamark_strerror(int code) {
  switch (code) {
    case LUMAMARK_OK:
      return "success";
    case LUMAMARK_EINVAL:
      return "null pointer or invalid argument";
    case LUMAMARK_ENAME:
      return "unknown setting name";
    case LUMAMARK_EVALUE:
      return "setting value malformed or out of range";
    case LUMAMARK_ENOMEM:
      return "memory exhausted";
    case LUMAMARK_EWMID:
      return "watermark ID invalid for the bit profile";
    case LUMAMARK_EGEOMETRY:
      return "frame or superpixel geometry refused";
    case LUMAMARK_EPAYLOAD:
      return "payload file unreadable or inconsistent";
    case LUMAMARK_EFRAME:
      return "a frame could not be processed";
    case LUMAMARK_ESETTINGS:
      return "settings that cannot work together";
    default:
      return "unknown error code";
  }
}

#define LM_STRINGIFY2(x) #x
#define LM_STRINGIFY(x) LM_STRINGIFY2(x)

const char* lumamark_version(void) {
  return LM_STRINGIFY(LUMAMARK_VERSION_MAJOR) "." LM_STRINGIFY(
      LUMAMARK_VERSION_MINOR) "." LM_STRINGIFY(LUMAMARK_VERSION_PATCH);
}

}  // extern "C"
