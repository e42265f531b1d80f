// The tool's commands: fetch a stream into a directory, probe it, or run the demo.
#pragma once

#include <atomic>

#include "options.h"

namespace camfetch_tool {

// Set by the signal handler: stop as if the duration were over.
extern std::atomic<bool> g_interrupted;

// Exit codes: 0 stopped by duration, frames, Ctrl-C or the end of the stream; 1 when no
// connection could be made (one line on stderr names the cause).
int RunFetch(const Options& options);
int RunProbe(const Options& options);
int RunDemo(const Options& options, const char* argv0);

}  // namespace camfetch_tool
