#include "cli/driver.h"

int main(int argc, char** argv) { return lumamark::run_lumamark(argc, argv); }
