// The embedded sample camera: an RTSP server on 127.0.0.1, built on live555's server
// classes, serving the bundled H.264 + AAC sample as the stream "sample".
#pragma once

#include <string>
#include <thread>

namespace camfetch_tool {

class DemoCamera {
public:
    DemoCamera() = default;
    ~DemoCamera() { Stop(); }
    DemoCamera(const DemoCamera&) = delete;
    DemoCamera& operator=(const DemoCamera&) = delete;

    // Serves sampleDir/sample.264 and sampleDir/sample.aac; returns the RTSP port or -1.
    int Start(const std::string& sampleDir);
    void Stop();

private:
    void Run();
    static void OnStop(void* self);

    struct State;
    State* m_state = nullptr;
    std::thread m_thread;
};

// The directory holding the bundled sample, or empty when none is found.
std::string FindSampleDir(const char* argv0);

}  // namespace camfetch_tool
