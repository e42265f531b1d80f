// The live555 we build against actually works on this machine: its event loop
// runs, its RTSP client connects, and a DESCRIBE to a loopback port nobody
// listens on comes back through the response handler as a network error
// (negative result code) whose text gives the refusal.  The errno inside the
// result code is not the reason: live555 reports the connect() call's stale
// EINPROGRESS there, and the socket's real error only in the text.
#include <BasicUsageEnvironment.hh>
#include <liveMedia.hh>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

// Only bounds a broken event loop; a refused loopback connection is reported
// long before this.
constexpr int64_t kSafetyNetMicroseconds = 10 * 1000 * 1000;

// A loopback TCP port that was free a moment ago and has no listener now.
int closedLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

struct DescribeOutcome {
    EventLoopWatchVariable done = 0;
    bool answered = false;
    bool safetyNetFired = false;
    int resultCode = 0;
    std::string resultString;
};

// live555 hands the response handler only the client, so the client carries
// the place to record the outcome.
class ProbeClient : public RTSPClient {
public:
    static ProbeClient* createNew(UsageEnvironment& env, const std::string& url,
                                  DescribeOutcome& outcome) {
        return new ProbeClient(env, url, outcome);
    }
    DescribeOutcome& outcome;

private:
    ProbeClient(UsageEnvironment& env, const std::string& url, DescribeOutcome& outcome)
        : RTSPClient(env, url.c_str(), 0, "camfetch-live555-smoke", 0, -1), outcome(outcome) {}
};

void onDescribeResponse(RTSPClient* client, int resultCode, char* resultString) {
    // The handler owns resultString (allocated with new[]).
    std::unique_ptr<char[]> text(resultString);
    DescribeOutcome& outcome = static_cast<ProbeClient*>(client)->outcome;
    outcome.answered = true;
    outcome.resultCode = resultCode;
    if (text)
        outcome.resultString = text.get();
    outcome.done = 1;
}

void onSafetyNet(void* clientData) {
    auto* outcome = static_cast<DescribeOutcome*>(clientData);
    outcome->safetyNetFired = true;
    outcome->done = 1;
}

TEST(Live555Smoke, DescribeToClosedLoopbackPortReportsRefusedConnection) {
    const int port = closedLoopbackPort();
    ASSERT_GT(port, 0) << "could not reserve a loopback port";

    TaskScheduler* scheduler = BasicTaskScheduler::createNew();
    ASSERT_NE(scheduler, nullptr);
    UsageEnvironment* env = BasicUsageEnvironment::createNew(*scheduler);
    ASSERT_NE(env, nullptr);

    DescribeOutcome outcome;
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/nothing-here";
    ProbeClient* client = ProbeClient::createNew(*env, url, outcome);
    ASSERT_NE(client, nullptr) << env->getResultMsg();

    TaskToken safetyNet =
        scheduler->scheduleDelayedTask(kSafetyNetMicroseconds, onSafetyNet, &outcome);
    client->sendDescribeCommand(onDescribeResponse);
    env->taskScheduler().doEventLoop(&outcome.done);
    scheduler->unscheduleDelayedTask(safetyNet);

    Medium::close(client);
    env->reclaim();
    delete scheduler;

    ASSERT_FALSE(outcome.safetyNetFired) << "the DESCRIBE never completed";
    ASSERT_TRUE(outcome.answered);
    EXPECT_LT(outcome.resultCode, 0) << outcome.resultString;
    EXPECT_NE(outcome.resultString.find(std::strerror(ECONNREFUSED)), std::string::npos)
        << outcome.resultString;
}

}  // namespace
