// The receiver's event loop: sockets numbered past select()'s limit, triggers from other
// threads, delayed tasks, and a socket closed behind the loop's back.
#include "rtsp/pollscheduler.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"

namespace {

struct Loop {
    PollTaskScheduler* scheduler = PollTaskScheduler::createNew();
    EventLoopWatchVariable watch = 0;
    std::vector<std::string> events;
    ~Loop() { delete scheduler; }
};

void Record(Loop* loop, const std::string& what) {
    loop->events.push_back(what);
    loop->watch = 1;
}

TEST(PollTaskScheduler, SocketsPastTheSelectLimitAreHandled) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlim_t wanted = FD_SETSIZE + 64;
    if (limit.rlim_cur < wanted) {
        if (limit.rlim_max < wanted)
            GTEST_SKIP() << "descriptor limit " << limit.rlim_max;
        limit.rlim_cur = wanted;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    const int high = fcntl(pair[0], F_DUPFD_CLOEXEC, FD_SETSIZE + 10);
    ASSERT_GE(high, FD_SETSIZE);
    Loop loop;
    loop.scheduler->turnOnBackgroundReadHandling(
        high,
        [](void* data, int mask) {
            Record(static_cast<Loop*>(data), "read " + std::to_string(mask));
        },
        &loop);
    ASSERT_EQ(write(pair[1], "x", 1), 1);
    loop.scheduler->doEventLoop(&loop.watch);
    EXPECT_EQ(loop.events, std::vector<std::string>{"read " + std::to_string(SOCKET_READABLE)});
    loop.scheduler->turnOffBackgroundReadHandling(high);
    close(high);
    close(pair[0]);
    close(pair[1]);
}

TEST(PollTaskScheduler, TriggersFromAnotherThreadAndTasksRunOnTheLoop) {
    Loop loop;
    const EventTriggerId first = loop.scheduler->createEventTrigger(
        [](void* data) { Record(static_cast<Loop*>(data), "first"); });
    const EventTriggerId unused =
        loop.scheduler->createEventTrigger([](void*) { ADD_FAILURE() << "deleted trigger ran"; });
    ASSERT_NE(first, 0u);
    ASSERT_NE(unused, first);
    loop.scheduler->deleteEventTrigger(unused);
    // A task due later than the trigger must not run first.
    loop.scheduler->scheduleDelayedTask(
        60 * 1000000LL, [](void*) { ADD_FAILURE() << "a task ran before its time"; }, nullptr);
    std::thread other([&] { loop.scheduler->triggerEvent(first, &loop); });
    loop.scheduler->doEventLoop(&loop.watch);
    other.join();
    EXPECT_EQ(loop.events, std::vector<std::string>{"first"});

    loop.watch = 0;
    loop.scheduler->scheduleDelayedTask(
        2000, [](void* data) { Record(static_cast<Loop*>(data), "later"); }, &loop);
    loop.scheduler->scheduleDelayedTask(
        0, [](void* data) { static_cast<Loop*>(data)->events.push_back("now"); }, &loop);
    loop.scheduler->doEventLoop(&loop.watch);
    EXPECT_EQ(loop.events, (std::vector<std::string>{"first", "now", "later"}));
}

TEST(PollTaskScheduler, SocketClosedWhileWatchedIsDroppedNotSpunOn) {
    LogCapture log;
    Loop loop;
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    loop.scheduler->turnOnBackgroundReadHandling(
        pair[0], [](void*, int) { ADD_FAILURE() << "handler of a closed socket ran"; }, nullptr);
    close(pair[0]);
    close(pair[1]);
    loop.scheduler->scheduleDelayedTask(
        1000, [](void* data) { Record(static_cast<Loop*>(data), "task"); }, &loop);
    loop.scheduler->doEventLoop(&loop.watch);
    EXPECT_EQ(loop.events, std::vector<std::string>{"task"});
    EXPECT_EQ(log.Count("was closed while still watched; no longer handled."), 1);
}

}  // namespace
