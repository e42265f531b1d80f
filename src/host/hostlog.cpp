#include "host/hostlog.h"

#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {
DBG_LOG_CFG g_config;
std::mutex g_writeMutex;
std::function<void(const camfetch_host::LogRecord&)> g_sink;
bool g_quiet = false;

const char* CategName(int value) {
    switch (value) {
        case LOG_CATEG_CORE:
            return "core";
        case LOG_CATEG_PACKER:
            return "packer";
        case LOG_CATEG_PACKETIZER:
            return "packetizer";
        case LOG_CATEG_RTSP:
            return "rtsp";
        case LOG_CATEG_MOBILE:
            return "mobile";
        case LOG_CATEG_HOST:
            return "host";
        case LOG_CATEG_TOOL:
            return "tool";
        case LOG_CATEG_MP4FETCH:
            return "mp4fetch";
        case LOG_CATEG_MULTIPART:
            return "multipart";
        default:
            return "unknown";
    }
}

const char* LevelName(int value) {
    static const char* const kNames[] = {"NONE",   "ERROR", "CRITICAL", "WARNING",
                                         "NOTICE", "INFO",  "DEBUG",    "TRACE"};
    return value >= 0 && value < 8 ? kNames[value] : "UNKNOWN";
}
}  // namespace

DBG_LOG_CFG* g_pDbgLogCfg = nullptr;
int g_DbgLogPid = 0;

template <>
const char* KVEnum2StrMap<LOG_CATEG>::Lookup(int value) {
    return CategName(value);
}

template <>
const char* KVEnum2StrMap<LOG_LEVEL>::Lookup(int value) {
    return LevelName(value);
}

void KVPrintf(int type, const char* categ, const char* level, const char* file, int line,
              const char* function, const char* format, ...) {
    (void)type;
    char text[2048];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (n < 0)
        return;
    size_t len = static_cast<size_t>(n) < sizeof(text) ? static_cast<size_t>(n) : sizeof(text) - 1;
    if (len > 0 && text[len - 1] == '\n')
        text[--len] = 0;

    timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm parts;
    localtime_r(&tv.tv_sec, &parts);
    char when[32];
    strftime(when, sizeof(when), "%H:%M:%S", &parts);

    std::lock_guard<std::mutex> lock(g_writeMutex);
    if (g_sink)
        g_sink({categ ? categ : "-", level ? level : "-", file ? file : "?", line,
                function ? function : "?", std::string(text, len)});
    if (g_quiet)
        return;
    fprintf(stderr, "%s.%06ld %-7s %-10s %s:%d %s: %.*s\n", when, static_cast<long>(tv.tv_usec),
            level ? level : "-", categ ? categ : "-", file ? file : "?", line,
            function ? function : "?", static_cast<int>(len), text);
}

namespace camfetch_host {

void LogInit(int level) {
    if (g_pDbgLogCfg)
        return;
    for (int& l : g_config.aiCategLevel)
        l = level;
    g_config.iPidCount = 0;
    g_pDbgLogCfg = &g_config;
}

void LogSetLevel(int categ, int level) {
    LogInit(LOG_LEVEL_NOTICE);
    if (categ < 0) {
        for (int& l : g_config.aiCategLevel)
            l = level;
    } else if (categ < LOG_CATEG_MAX) {
        g_config.aiCategLevel[categ] = level;
    }
}

void LogSetPidLevel(int pid, int level) {
    LogInit(LOG_LEVEL_NOTICE);
    if (pid == 0)
        pid = static_cast<int>(getpid());
    for (int i = 0; i < g_config.iPidCount; ++i)
        if (g_config.aPid[i].iPid == pid) {
            g_config.aPid[i].iLevel = level;
            return;
        }
    const int capacity = static_cast<int>(sizeof(g_config.aPid) / sizeof(g_config.aPid[0]));
    if (g_config.iPidCount < capacity)
        g_config.aPid[g_config.iPidCount++] = {pid, level};
}

void LogClear() {
    g_pDbgLogCfg = nullptr;
}

bool HostLogWanted(int categ, int level) {
    const DBG_LOG_CFG* cfg = g_pDbgLogCfg;
    if (!cfg)
        return true;
    if (categ >= 0 && categ < LOG_CATEG_MAX && cfg->aiCategLevel[categ] >= level)
        return true;
    if (g_DbgLogPid == 0)
        g_DbgLogPid = static_cast<int>(getpid());
    const int capacity = static_cast<int>(sizeof(cfg->aPid) / sizeof(cfg->aPid[0]));
    for (int i = 0; i < cfg->iPidCount && i < capacity; ++i)
        if (cfg->aPid[i].iPid == g_DbgLogPid)
            return cfg->aPid[i].iLevel >= level;
    return false;
}

void LogSetSink(std::function<void(const LogRecord&)> sink, bool quiet) {
    std::lock_guard<std::mutex> lock(g_writeMutex);
    g_sink = std::move(sink);
    g_quiet = g_sink && quiet;
}

}  // namespace camfetch_host
