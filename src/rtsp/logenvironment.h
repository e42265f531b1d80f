// A live555 usage environment whose text output (the client's request and response dumps,
// live555's own warnings) goes to the host's log instead of the process's stderr.
#pragma once

#include <BasicUsageEnvironment.hh>

#include <string>

class LogUsageEnvironment : public BasicUsageEnvironment {
public:
    static LogUsageEnvironment* createNew(TaskScheduler& scheduler);

    UsageEnvironment& operator<<(char const* str) override;
    UsageEnvironment& operator<<(int i) override;
    UsageEnvironment& operator<<(unsigned u) override;
    UsageEnvironment& operator<<(double d) override;
    UsageEnvironment& operator<<(void* p) override;

protected:
    explicit LogUsageEnvironment(TaskScheduler& scheduler);
    ~LogUsageEnvironment() override;

private:
    // Writes what has been collected once a piece ends a line.
    void FlushIfLineEnds();

    std::string m_pending;
};
