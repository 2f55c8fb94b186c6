#include "decode/copy_read.h"

namespace lumamark {

int32_t read_copy(Detector* d, const CopyFrames& copy, SearchMode mode,
                  const std::string& expected_bits, CopyRead* out, std::string* error) {
  const DetectConfig& c = d->config;
  *out = CopyRead();
  const bool same_size = copy.width == c.width && copy.height == c.height;
  bool aligned = same_size;
  if (same_size) {
    out->result = detector_result(d);
    // A read at the wrong phase of the grid can decode a wrong ID (the
    // complement in the constant bits): a detected ID is trusted only when
    // the grid's other phases do not read another ID more clearly.
    const bool detected = out->result.verdict == Verdict::kDetected;
    aligned = mode == SearchMode::kNone ||
              (detected && aligned_read_confirmed(c, copy, out->result.bits));
  }
  if (!aligned) {
    ResyncResult rs;
    if (resync_search(c, copy, mode, expected_bits, &rs, error) != 0) return -1;
    // The search's answer stands when it names an ID or finds several; a
    // weaker one does not replace the aligned read's.
    const bool better = rs.result.verdict == Verdict::kDetected ||
                        rs.result.verdict == Verdict::kAmbiguous || !same_size ||
                        out->result.verdict == Verdict::kDetected;
    if (better) {
      out->result = rs.result;
      out->result.frames = static_cast<int32_t>(copy.luma.size());
      out->searched = mode != SearchMode::kNone;
      out->transform = rs.transform;
      out->hypotheses = rs.hypotheses;
      out->candidates = rs.candidates;
      out->ber = rs.ber;
    } else {
      aligned = true;
    }
  }
  out->aligned = aligned;
  if (aligned && !expected_bits.empty()) {
    out->ber = detector_bit_error_rate(*d, detector_expected_symbols(*d, expected_bits));
  }
  return 0;
}

}  // namespace lumamark
