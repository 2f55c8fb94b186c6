// lumamark-detect: the blind watermark detector.
#include "cli/detect_cli.h"

int main(int argc, char** argv) { return lumamark::run_detect(argc, argv); }
