#include "core/log.h"

#include <unistd.h>

namespace {
int CurrentPid() {
    if (g_DbgLogPid == 0)
        g_DbgLogPid = static_cast<int>(getpid());
    return g_DbgLogPid;
}

// Level of this process in the configuration's table, or -1 when it is not listed.
int PidLevel(const DBG_LOG_CFG& cfg) {
    int pid = CurrentPid();
    int count = cfg.iPidCount;
    if (count > static_cast<int>(sizeof(cfg.aPid) / sizeof(cfg.aPid[0])))
        count = static_cast<int>(sizeof(cfg.aPid) / sizeof(cfg.aPid[0]));
    for (int i = 0; i < count; ++i)
        if (cfg.aPid[i].iPid == pid)
            return cfg.aPid[i].iLevel;
    return -1;
}
}  // namespace

bool LogWanted(LOG_CATEG categ, LOG_LEVEL level) {
    const DBG_LOG_CFG* cfg = g_pDbgLogCfg;
    if (!cfg)
        return true;
    if (categ >= 0 && categ < LOG_CATEG_MAX && cfg->aiCategLevel[categ] >= level)
        return true;
    int pidLevel = PidLevel(*cfg);
    return pidLevel >= 0 && pidLevel >= level;
}

bool ChkPidLevel(LOG_LEVEL level) {
    const DBG_LOG_CFG* cfg = g_pDbgLogCfg;
    if (!cfg)
        return false;
    if (cfg->iPidCount <= 0)
        return false;
    int pidLevel = PidLevel(*cfg);
    if (pidLevel >= 0)
        return pidLevel >= level;
    return level < 1;
}
