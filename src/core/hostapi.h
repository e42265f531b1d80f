// Services the library takes from the process that loads it: logging, threads, a delay
// timer. The library only declares them; the host defines them (src/host is the default).
//
// A host implements these declarations; the layouts are part of the ABI. The library reads
// the host's log configuration (DBG_LOG_CFG, its table of processes) field by field, and it
// makes DelayTimer objects in its own memory at the size declared here while the host's
// constructor and methods fill them in: a host built against other layouts corrupts memory.
// CAMFETCH_HOSTAPI_VERSION changes whenever a layout or a declaration here changes;
// CamfetchHostApiVersion() (core/version.h) is the library's, for a host to compare.
#pragma once

#include <pthread.h>

constexpr int CAMFETCH_HOSTAPI_VERSION = 1;

// Log categories: one per subsystem. The numbers are part of the host's log configuration.
enum LOG_CATEG {
    LOG_CATEG_CORE = 1,
    LOG_CATEG_PACKER = 2,
    LOG_CATEG_PACKETIZER = 3,
    LOG_CATEG_RTSP = 4,
    LOG_CATEG_MOBILE = 5,
    LOG_CATEG_HOST = 6,
    LOG_CATEG_TOOL = 7,
    LOG_CATEG_MP4FETCH = 8,
    LOG_CATEG_MULTIPART = 37,
    LOG_CATEG_MAX = 64
};

// Log levels: 1 failures, 3/4 warnings and notable events, 5 information, 6/7 detail.
enum LOG_LEVEL {
    LOG_LEVEL_NONE = 0,
    LOG_LEVEL_ERROR = 1,
    LOG_LEVEL_CRITICAL = 2,
    LOG_LEVEL_WARNING = 3,
    LOG_LEVEL_NOTICE = 4,
    LOG_LEVEL_INFO = 5,
    LOG_LEVEL_DEBUG = 6,
    LOG_LEVEL_TRACE = 7
};

// Names of enumeration values, one table per enumeration, defined by the host.
template <typename E>
struct KVEnum2StrMap {
    static const char* Lookup(int value);
};

template <typename E>
inline const char* Enum2String(E value) {
    return KVEnum2StrMap<E>::Lookup(static_cast<int>(value));
}

// The host's log configuration: a level per category and a table of (process id, level).
// Absent (null) means "write everything".
struct __tag_DBG_LOG_PID {
    int iPid;
    int iLevel;
};
struct __tag_DBG_LOG_CFG {
    int aiCategLevel[LOG_CATEG_MAX];
    int iPidCount;
    __tag_DBG_LOG_PID aPid[32];
};
typedef __tag_DBG_LOG_CFG DBG_LOG_CFG;

extern DBG_LOG_CFG* g_pDbgLogCfg;
extern int g_DbgLogPid;

// One log message. type is 0 for every message of this library; categ and level may be
// null for the few messages written without a level check.
void KVPrintf(int type, const char* categ, const char* level, const char* file, int line,
              const char* function, const char* format, ...) __attribute__((format(printf, 7, 8)));

// Starts func(arg) on a new thread with the given stack size (0 = default). A detached
// thread cannot be joined. Returns false when the thread could not be created.
bool CreateThread(void* (*func)(void*), void* arg, int stackSize, bool detached,
                  pthread_t& threadId);

// Paces a loop: Delay() sleeps out the rest of the period (microseconds) counted from the
// last BeginTiming() or Delay(), without accumulating drift.
class DelayTimer {
public:
    explicit DelayTimer(int period);
    void BeginTiming();
    void Delay();

private:
    long long m_llPeriod;
    long long m_llDeadline;
};
