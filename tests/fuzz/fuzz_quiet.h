// Fuzz targets run millions of inputs: keep the library's log lines off stderr.
#pragma once

#include "host/hostlog.h"

namespace {
struct QuietLog {
    QuietLog() {
        camfetch_host::LogInit(0);
        camfetch_host::LogSetSink([](const camfetch_host::LogRecord&) {}, true);
    }
};
const QuietLog g_quietLog;
}  // namespace
