// The event loop under one RTSP receiver: live555's task scheduler interface on poll()
// instead of select(), so a host with more than FD_SETSIZE descriptors open can still pull
// cameras, with two additions a recorder needs:
// - triggerEvent wakes the loop through an eventfd at once, so the loop never has to wake
//   on a short tick just to look for triggers;
// - bytes the socket batch layer already holds for a socket make that socket ready without
//   a system call.
// Delayed tasks stay live555's own (the base class's delay queue).
#pragma once

#include <BasicUsageEnvironment0.hh>

#include <atomic>
#include <cstdint>
#include <vector>

struct pollfd;

class PollTaskScheduler : public BasicTaskScheduler0 {
public:
    // nullptr when the eventfd cannot be made.
    static PollTaskScheduler* createNew();
    ~PollTaskScheduler() override;

    void SingleStep(unsigned maxDelayTime = 0) override;
    void doEventLoop(EventLoopWatchVariable* watchVariable) override;

    EventTriggerId createEventTrigger(TaskFunc* eventHandlerProc) override;
    void deleteEventTrigger(EventTriggerId eventTriggerId) override;
    // From any thread.
    void triggerEvent(EventTriggerId eventTriggerId, void* clientData = nullptr) override;

protected:
    void setBackgroundHandling(int socketNum, int conditionSet, BackgroundHandlerProc* handlerProc,
                               void* clientData) override;
    void moveSocketHandling(int oldSocketNum, int newSocketNum) override;

private:
    explicit PollTaskScheduler(int wakeFd);
    // Milliseconds poll may wait: until the next delayed task, at most maxDelayTime (µs,
    // 0 for no limit) and at most a second.
    int WaitMs(unsigned maxDelayTime);
    // Runs the handler of one ready socket, taking them in turn across steps.
    void HandleOneSocket(const std::vector<pollfd>& polled);
    void HandleTriggers();
    void DrainWake();

    static constexpr int kTriggers = 32;
    const int m_wakeFd;
    std::vector<pollfd> m_polled;
    TaskFunc* m_triggerHandlers[kTriggers] = {};
    std::atomic<void*> m_triggerData[kTriggers] = {};
    std::atomic<uint32_t> m_pendingTriggers{0};
    uint32_t m_usedTriggers = 0;
};
