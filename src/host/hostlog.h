// Configuration of the default host's stderr log: a level per category and per process.
#pragma once

#include <functional>
#include <string>

#include "core/hostapi.h"

namespace camfetch_host {

// Installs the default configuration (every category at `level`) unless one is set.
void LogInit(int level);
// Sets the level of one category, or of every category with categ < 0.
void LogSetLevel(int categ, int level);
// Lists this process (or pid) in the per-process table with a level.
void LogSetPidLevel(int pid, int level);
// Removes the configuration: every message is written.
void LogClear();
// Whether the configuration wants a message of this level in this category; the host's own
// messages (the HTTP client's) are filtered with it, by the same rule the library applies.
bool HostLogWanted(int categ, int level);

// One written message, as a sink sees it (text without its final line end).
struct LogRecord {
    std::string categ;  // "-" when the message has no category
    std::string level;  // "-" when the message has no level
    std::string file;
    int line;
    std::string function;
    std::string text;
};
// Sends every written message to sink as well as to stderr (an empty sink removes it);
// quiet stops the stderr copy. Used by tests to check log lines.
void LogSetSink(std::function<void(const LogRecord&)> sink, bool quiet);

}  // namespace camfetch_host
