#include "democamera.h"

#include <BasicUsageEnvironment.hh>
#include <GroupsockHelper.hh>
#include <liveMedia.hh>
#include <arpa/inet.h>
#include <unistd.h>

#include <future>

namespace camfetch_tool {

struct DemoCamera::State {
    TaskScheduler* scheduler = nullptr;
    UsageEnvironment* env = nullptr;
    RTSPServer* server = nullptr;
    EventTriggerId stopTrigger = 0;
    EventLoopWatchVariable stop = 0;
    std::string dir;
    std::promise<int> port;
};

int DemoCamera::Start(const std::string& sampleDir) {
    Stop();
    m_state = new State;
    m_state->dir = sampleDir;
    std::future<int> port = m_state->port.get_future();
    m_thread = std::thread(&DemoCamera::Run, this);
    int p = port.get();
    if (p < 0)
        Stop();
    return p;
}

void DemoCamera::OnStop(void* self) {
    static_cast<DemoCamera*>(self)->m_state->stop = 1;
}

void DemoCamera::Run() {
    State& s = *m_state;
    // Keep the sample camera on loopback whatever the machine's interfaces are.
    ReceivingInterfaceAddr = inet_addr("127.0.0.1");
    ReceivingInterfaceAddr6 = in6addr_loopback;
    s.scheduler = BasicTaskScheduler::createNew();
    s.env = BasicUsageEnvironment::createNew(*s.scheduler);
    portNumBits port = 8554;
    for (; port < 8654; ++port)
        if ((s.server = RTSPServer::createNew(*s.env, Port(port), nullptr, 65)))
            break;
    if (!s.server) {
        s.port.set_value(-1);
    } else {
        ServerMediaSession* sms =
            ServerMediaSession::createNew(*s.env, "sample", "sample", "camfetch sample camera");
        // The file server never sends the last unit of a file (and the picture it belongs
        // to): the sample ends with end-of-sequence and end-of-stream units, so that all
        // 250 pictures go out.
        sms->addSubsession(H264VideoFileServerMediaSubsession::createNew(
            *s.env, (s.dir + "/sample.264").c_str(), False));
        sms->addSubsession(ADTSAudioFileServerMediaSubsession::createNew(
            *s.env, (s.dir + "/sample.aac").c_str(), False));
        s.server->addServerMediaSession(sms);
        s.stopTrigger = s.scheduler->createEventTrigger(OnStop);
        s.port.set_value(port);
        s.env->taskScheduler().doEventLoop(&s.stop);
        Medium::close(s.server);
    }
    s.env->reclaim();
    delete s.scheduler;
}

void DemoCamera::Stop() {
    if (!m_state)
        return;
    if (m_thread.joinable()) {
        // The event loop is only entered from its own thread: ask it through a trigger.
        if (m_state->stopTrigger)
            m_state->scheduler->triggerEvent(m_state->stopTrigger, this);
        m_thread.join();
    }
    delete m_state;
    m_state = nullptr;
}

std::string FindSampleDir(const char* argv0) {
    std::string candidates[] = {CAMFETCH_SAMPLE_SOURCE_DIR, CAMFETCH_SAMPLE_INSTALL_DIR, ""};
    // Relative to the program: bin/camfetch -> share/camfetch.
    std::string self = argv0 ? argv0 : "";
    char resolved[4096];
    ssize_t n = readlink("/proc/self/exe", resolved, sizeof(resolved) - 1);
    if (n > 0)
        self.assign(resolved, static_cast<size_t>(n));
    size_t slash = self.rfind('/');
    if (slash != std::string::npos)
        candidates[2] = self.substr(0, slash) + "/../share/camfetch";
    for (const std::string& dir : candidates)
        if (!dir.empty() && access((dir + "/sample.264").c_str(), R_OK) == 0)
            return dir;
    return std::string();
}

}  // namespace camfetch_tool
