// camfetch: fetch a camera stream with the library, probe it, or run the sample camera.
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/version.h"
#include "democamera.h"
#include "fetchrun.h"
#include "host/hostlog.h"
#include "options.h"
#include "statusline.h"

namespace {

using namespace camfetch_tool;

void OnSignal(int) {
    g_interrupted = true;
}

int LevelNumber(const std::string& name) {
    static const char* const kNames[] = {"NONE",   "ERROR", "CRITICAL", "WARNING",
                                         "NOTICE", "INFO",  "DEBUG",    "TRACE"};
    for (int i = 0; i < 8; ++i)
        if (name == kNames[i])
            return i;
    return 0;  // messages without a level are always shown
}

// Library messages go to stderr at the user's level, with any password blanked out; the
// packer's timestamp repairs are counted for the status line whatever the level.
void ConfigureLog(int level, const std::string& password) {
    camfetch_host::LogInit(level);
    camfetch_host::LogSetLevel(LOG_CATEG_PACKER,
                               level > LOG_LEVEL_NOTICE ? level : LOG_LEVEL_NOTICE);
    camfetch_host::LogSetSink(
        [level, password](const camfetch_host::LogRecord& r) {
            if (r.text.find("Patch with current") != std::string::npos ||
                r.text.find("use current time as PTS") != std::string::npos)
                CountTimestampRepair();
            if (LevelNumber(r.level) > level)
                return;
            std::string text = r.text;
            for (size_t pos; !password.empty() && (pos = text.find(password)) != std::string::npos;)
                text.replace(pos, password.size(), "***");
            fprintf(stderr, "%s %s %s:%d %s\n", r.level.c_str(), r.categ.c_str(), r.file.c_str(),
                    r.line, text.c_str());
        },
        true);
}

int Demo(const Options& options, const char* argv0) {
    std::string dir = FindSampleDir(argv0);
    if (dir.empty()) {
        fprintf(stderr, "camfetch: the sample camera's files are not installed\n");
        return 1;
    }
    DemoCamera camera;
    int port = camera.Start(dir);
    if (port < 0) {
        fprintf(stderr, "camfetch: cannot start the sample camera on 127.0.0.1\n");
        return 1;
    }
    fprintf(stderr, "sample camera: rtsp://127.0.0.1:%d/sample (%s)\n", port, dir.c_str());
    Options fetch = options;
    fetch.command = Command::kFetch;
    std::string error;
    ParseUrl("rtsp://127.0.0.1:" + std::to_string(port) + "/sample", fetch.url, error);
    fetch.kind = Kind::kRtsp;
    fetch.protocol = 2;
    if (fetch.outputDir == Options().outputDir)
        fetch.outputDir = "camfetch-demo";
    if (fetch.durationSec <= 0)
        fetch.durationSec = 30;  // the sample is 10 s long
    int rc = RunFetch(fetch);
    camera.Stop();
    if (rc == 0)
        printf(
            "play it: ffplay %s/video.h264   (audio: ffplay %s/audio.aac; index: %s/index.jsonl)\n",
            fetch.outputDir.c_str(), fetch.outputDir.c_str(), fetch.outputDir.c_str());
    return rc;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    Options options;
    std::string error;
    if (!ParseArgs(args, options, error)) {
        fprintf(stderr, "camfetch: %s\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (options.command == Command::kHelp) {
        printf("%s", kUsage);
        return 0;
    }
    if (options.command == Command::kVersion) {
        printf("camfetch %s (host API %d)\nlive555 %s\n", CamfetchVersion(),
               CamfetchHostApiVersion(), CamfetchLive555Version().c_str());
        return 0;
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    ConfigureLog(options.logLevel, options.url.password);

    switch (options.command) {
        case Command::kFetch:
            return RunFetch(options);
        case Command::kProbe:
            return RunProbe(options);
        case Command::kDemo:
            return Demo(options, argv[0]);
        case Command::kHelp:
        case Command::kVersion:
            break;
    }
    return 0;
}
