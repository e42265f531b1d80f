// Collects the log lines written while it lives, so tests can check the texts a failure
// must produce. Messages still reach the host's sink in order; stderr stays quiet.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "host/hostlog.h"

class LogCapture {
public:
    LogCapture() {
        camfetch_host::LogSetSink(
            [this](const camfetch_host::LogRecord& r) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_records.push_back(r);
            },
            true);
    }
    ~LogCapture() { camfetch_host::LogSetSink(nullptr, false); }

    // Number of messages whose text contains needle.
    int Count(const std::string& needle) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(
            std::count_if(m_records.begin(), m_records.end(),
                          [&](const auto& r) { return r.text.find(needle) != std::string::npos; }));
    }
    std::vector<camfetch_host::LogRecord> Records() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<camfetch_host::LogRecord> m_records;
};
