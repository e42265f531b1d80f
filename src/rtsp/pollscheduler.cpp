#include "rtsp/pollscheduler.h"

#include <BasicUsageEnvironment.hh>
#include <HandlerSet.hh>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/log.h"
#include "rtsp/socketbatch.h"

namespace {
// The longest poll ever waits; only a safety net, as triggers and tasks wake it in time.
constexpr int64_t kMaxWaitUs = 1000000;

short PollEvents(int conditionSet) {
    short events = 0;
    if (conditionSet & SOCKET_READABLE)
        events |= POLLIN;
    if (conditionSet & SOCKET_WRITABLE)
        events |= POLLOUT;
    if (conditionSet & SOCKET_EXCEPTION)
        events |= POLLPRI;
    return events;
}

// What select would have reported for these poll results.
int ConditionMask(short revents, int conditionSet) {
    int mask = 0;
    if (revents & (POLLIN | POLLHUP | POLLERR))
        mask |= SOCKET_READABLE;
    if (revents & (POLLOUT | POLLHUP | POLLERR))
        mask |= SOCKET_WRITABLE;
    if (revents & POLLPRI)
        mask |= SOCKET_EXCEPTION;
    mask &= conditionSet;
    // A hang-up or error on a socket watched for none of those must still reach its handler,
    // or poll would report it again at once, forever.
    if (mask == 0 && (revents & (POLLHUP | POLLERR)))
        mask = conditionSet;
    return mask;
}

HandlerDescriptor* FindHandler(HandlerSet& handlers, int socketNum) {
    HandlerIterator iter(handlers);
    while (HandlerDescriptor* h = iter.next())
        if (h->socketNum == socketNum)
            return h;
    return nullptr;
}
}  // namespace

PollTaskScheduler* PollTaskScheduler::createNew() {
    const int wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) {
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_ERROR, "eventfd failed: %s.\n", strerror(errno));
        return nullptr;
    }
    return new PollTaskScheduler(wakeFd);
}

PollTaskScheduler::PollTaskScheduler(int wakeFd) : m_wakeFd(wakeFd) {}

PollTaskScheduler::~PollTaskScheduler() {
    close(m_wakeFd);
}

void PollTaskScheduler::doEventLoop(EventLoopWatchVariable* watchVariable) {
    while (!watchVariable || *watchVariable == 0)
        SingleStep(0);
}

int PollTaskScheduler::WaitMs(unsigned maxDelayTime) {
    if (m_pendingTriggers.load(std::memory_order_relaxed))
        return 0;
    const DelayInterval& next = fDelayQueue.timeToNextAlarm();
    int64_t us = std::min<int64_t>(static_cast<int64_t>(next.seconds()) * 1000000, kMaxWaitUs) +
                 next.useconds();
    us = std::min<int64_t>(us, kMaxWaitUs);
    if (maxDelayTime > 0)
        us = std::min<int64_t>(us, maxDelayTime);
    // Rounded up: waking before the task is due would only spin until it is.
    return static_cast<int>((us + 999) / 1000);
}

void PollTaskScheduler::SingleStep(unsigned maxDelayTime) {
    m_polled.clear();
    bool buffered = false;
    HandlerIterator iter(*fHandlers);
    while (HandlerDescriptor* h = iter.next()) {
        pollfd p{h->socketNum, PollEvents(h->conditionSet), 0};
        // Bytes already read for this loop's socket are ready without asking the kernel.
        if ((h->conditionSet & SOCKET_READABLE) && socketbatch::Buffered(h->socketNum)) {
            p.revents = POLLIN;
            buffered = true;
        }
        m_polled.push_back(p);
    }
    m_polled.push_back({m_wakeFd, POLLIN, 0});
    // While a buffer holds bytes the other sockets wait for the next round, which comes as
    // soon as the buffer has been read.
    if (!buffered && poll(m_polled.data(), m_polled.size(), WaitMs(maxDelayTime)) < 0 &&
        errno != EINTR)
        CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING, "poll failed: %s.\n", strerror(errno));
    if (m_polled.back().revents & POLLIN)
        DrainWake();
    m_polled.pop_back();

    HandleOneSocket(m_polled);
    HandleTriggers();
    if (fDelayQueue.timeToNextAlarm() == DELAY_ZERO)
        fDelayQueue.handleAlarm();
}

void PollTaskScheduler::DrainWake() {
    uint64_t count;
    // Empty already is fine: the writes since the last drain are what woke the loop.
    if (read(m_wakeFd, &count, sizeof count) < 0)
        return;
}

void PollTaskScheduler::HandleOneSocket(const std::vector<pollfd>& polled) {
    if (polled.empty())
        return;
    // Taken in turn, starting after the socket handled last, so that a busy socket cannot
    // starve the others.
    size_t start = 0;
    for (size_t i = 0; i < polled.size(); ++i)
        if (polled[i].fd == fLastHandledSocketNum)
            start = i + 1;
    for (size_t k = 0; k < polled.size(); ++k) {
        const pollfd& p = polled[(start + k) % polled.size()];
        if (p.revents == 0)
            continue;
        if (p.revents & POLLNVAL) {
            // Closed without being taken out of the set: poll would report it forever.
            CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_WARNING,
                   "Socket %d was closed while still watched; no longer handled.\n", p.fd);
            fHandlers->clearHandler(p.fd);
            continue;
        }
        HandlerDescriptor* h = FindHandler(*fHandlers, p.fd);
        if (!h || !h->handlerProc)
            continue;
        const int mask = ConditionMask(p.revents, h->conditionSet);
        if (mask == 0)
            continue;
        fLastHandledSocketNum = p.fd;
        (*h->handlerProc)(h->clientData, mask);
        return;
    }
}

void PollTaskScheduler::HandleTriggers() {
    uint32_t pending = m_pendingTriggers.exchange(0, std::memory_order_acquire);
    for (int i = 0; pending != 0 && i < kTriggers; ++i) {
        const uint32_t bit = 1u << i;
        if (!(pending & bit))
            continue;
        pending &= ~bit;
        if ((m_usedTriggers & bit) && m_triggerHandlers[i])
            m_triggerHandlers[i](m_triggerData[i].load(std::memory_order_relaxed));
    }
}

EventTriggerId PollTaskScheduler::createEventTrigger(TaskFunc* eventHandlerProc) {
    for (int i = 0; i < kTriggers; ++i) {
        const uint32_t bit = 1u << i;
        if (m_usedTriggers & bit)
            continue;
        m_usedTriggers |= bit;
        m_triggerHandlers[i] = eventHandlerProc;
        return bit;
    }
    return 0;
}

void PollTaskScheduler::deleteEventTrigger(EventTriggerId eventTriggerId) {
    m_pendingTriggers.fetch_and(~eventTriggerId, std::memory_order_relaxed);
    m_usedTriggers &= ~eventTriggerId;
    for (int i = 0; i < kTriggers; ++i)
        if (eventTriggerId & (1u << i))
            m_triggerHandlers[i] = nullptr;
}

void PollTaskScheduler::triggerEvent(EventTriggerId eventTriggerId, void* clientData) {
    for (int i = 0; i < kTriggers; ++i)
        if (eventTriggerId & (1u << i))
            m_triggerData[i].store(clientData, std::memory_order_relaxed);
    m_pendingTriggers.fetch_or(eventTriggerId, std::memory_order_release);
    const uint64_t one = 1;
    // A full counter is as good as a write: the loop is awake either way.
    if (write(m_wakeFd, &one, sizeof one) < 0)
        return;
}

void PollTaskScheduler::setBackgroundHandling(int socketNum, int conditionSet,
                                              BackgroundHandlerProc* handlerProc,
                                              void* clientData) {
    if (socketNum < 0)
        return;
    if (conditionSet == 0 || !handlerProc)
        fHandlers->clearHandler(socketNum);
    else
        fHandlers->assignHandler(socketNum, conditionSet, handlerProc, clientData);
}

void PollTaskScheduler::moveSocketHandling(int oldSocketNum, int newSocketNum) {
    if (oldSocketNum < 0 || newSocketNum < 0)
        return;
    fHandlers->moveHandler(oldSocketNum, newSocketNum);
}
