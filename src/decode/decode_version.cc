// The decode layer: soft decoding of the payload and the blind detector.
namespace lumamark {
// Version of the detector's output format.
extern const int kDetectFormatVersion;
const int kDetectFormatVersion = 1;
}  // namespace lumamark
