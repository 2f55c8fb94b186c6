// The run driver: command line, payload source, filter and frame loop.
#pragma once

namespace lumamark {

// Runs the tool and returns the exit status (0 or 1).
int run_lumamark(int argc, char** argv);

}  // namespace lumamark
