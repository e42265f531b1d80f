// A minimal host: create a fetcher for an RTSP camera, receive blocks on a thread of its
// own, stop after a few seconds. Build against the installed package:
//   cmake -S examples -B build-example -DCMAKE_PREFIX_PATH=/usr/local && cmake --build
//   build-example
#include <core/fetcher.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

class CountingHandler : public MediaDataHandler {
public:
    int ProcessMediaBlock(ESFormat& format, MediaBlock* block) override {
        ++(format.i_cat == VIDEO_ES ? video : audio);
        delete block;  // the handler owns every block it is given
        return 0;
    }
    std::atomic<int> video{0}, audio{0};
};

int main(int argc, char** argv) {
    FETCH_PARAM param;
    param.strHost = argc > 1 ? argv[1] : "127.0.0.1";
    param.iPort = argc > 2 ? atoi(argv[2]) : 554;
    param.strPath = argc > 3 ? argv[3] : "/";
    param.iProtocol = 2;  // RTP over the RTSP connection
    param.iTimeout = 10;
    param.bHasAudio = true;

    FetcherBase* fetcher = FetcherFactory(1, param);
    if (!fetcher) {
        fprintf(stderr, "no RTSP fetcher in this build\n");
        return 1;
    }
    CountingHandler handler;
    std::thread loop([&] { fetcher->DoFetchLoop(&handler); });
    std::this_thread::sleep_for(std::chrono::seconds(argc > 4 ? atoi(argv[4]) : 3));
    fetcher->StopFetchLoop();
    loop.join();
    ReleaseFetcher(fetcher);
    printf("video blocks %d, audio blocks %d\n", handler.video.load(), handler.audio.load());
    return 0;
}
