#include "rtsp/logenvironment.h"

#include <cstdio>

#include "core/log.h"

namespace {
// Request dumps can be long; anything longer is written in pieces.
constexpr size_t kMaxPending = 16384;
}  // namespace

LogUsageEnvironment* LogUsageEnvironment::createNew(TaskScheduler& scheduler) {
    return new LogUsageEnvironment(scheduler);
}

LogUsageEnvironment::LogUsageEnvironment(TaskScheduler& scheduler)
    : BasicUsageEnvironment(scheduler) {}

LogUsageEnvironment::~LogUsageEnvironment() {
    if (!m_pending.empty()) {
        m_pending += '\n';
        FlushIfLineEnds();
    }
}

UsageEnvironment& LogUsageEnvironment::operator<<(char const* str) {
    m_pending += str ? str : "(NULL)";
    FlushIfLineEnds();
    return *this;
}

UsageEnvironment& LogUsageEnvironment::operator<<(int i) {
    m_pending += std::to_string(i);
    return *this;
}

UsageEnvironment& LogUsageEnvironment::operator<<(unsigned u) {
    m_pending += std::to_string(u);
    return *this;
}

UsageEnvironment& LogUsageEnvironment::operator<<(double d) {
    char text[32];
    snprintf(text, sizeof text, "%f", d);
    m_pending += text;
    return *this;
}

UsageEnvironment& LogUsageEnvironment::operator<<(void* p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    m_pending += text;
    return *this;
}

void LogUsageEnvironment::FlushIfLineEnds() {
    if (m_pending.empty() || (m_pending.back() != '\n' && m_pending.size() < kMaxPending))
        return;
    // One log message per line: the host's log is line oriented. RTSP dumps end their lines
    // in CR LF.
    size_t begin = 0;
    while (begin < m_pending.size()) {
        size_t end = m_pending.find('\n', begin);
        if (end == std::string::npos)
            end = m_pending.size();
        size_t stop = end;
        while (stop > begin && m_pending[stop - 1] == '\r')
            --stop;
        if (stop > begin)
            CF_LOG_AS("live555", LOG_CATEG_RTSP, LOG_LEVEL_DEBUG, "%.*s\n",
                      static_cast<int>(stop - begin), m_pending.data() + begin);
        begin = end + 1;
    }
    m_pending.clear();
}
