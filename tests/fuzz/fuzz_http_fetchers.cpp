// The multipart part parser and the MP4 box walker over a response body the fuzzer writes,
// served by the in-memory HTTP client in pieces of the size the input says.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/fetcher.h"
#include "fuzz_quiet.h"
#include "scriptedhttp.h"

namespace {

const char* const kTypes[] = {"multipart/x-mixed-replace;boundary=b",
                              "multipart/x-mixed-replace; boundary=\"--my-b\"",
                              "multipart/mixed;boundary=--frame",
                              "multipart/ mixed;boundary=x",
                              "image/jpeg",
                              ""};

void Pull(int kind, int mode, size_t parts) {
    FETCH_PARAM p;
    p.strHost = "camera";
    p.iPort = 80;
    p.strPath = "/fuzz";
    p.iTimeout = 1;
    p.iStreamMode = mode;
    std::unique_ptr<FetcherBase> f(FetcherFactory(kind, p));
    std::vector<unsigned char> buf;
    for (size_t i = 0; i < parts; ++i) {
        unsigned size = 0;
        char type[64];
        int media = 0;
        if (f->NextPartInfo(size, type, sizeof(type), media) != 0)
            continue;
        // A part may announce any length; the fuzzer's host reads big ones by dropping them.
        if (size > (16u << 20)) {
            f->DropData();
            continue;
        }
        buf.resize(size);
        if (i % 5 == 4)
            f->DropData();
        else
            f->FetchContent(buf.data(), size);
    }
    ESFormat video, audio;
    f->GetVideoFormat(video);
    f->GetAudioFormat(audio);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    scriptedhttp::Clear();
    scriptedhttp::Response r;
    r.contentType = kTypes[data[0] % 6];
    r.arrival = 1 + data[1] % 64;
    r.failAtEnd = data[1] & 0x80;
    r.body = std::make_shared<const std::string>(reinterpret_cast<const char*>(data + 2), size - 2);
    scriptedhttp::Serve("/fuzz", r);
    if (data[0] & 0x80)
        Pull(2, (data[0] & 0x40) ? 2 : 3, 12);  // MP4 box walk
    else
        Pull(3, (data[0] & 0x40) ? 5 : 1, 12);  // multipart parts
    scriptedhttp::Clear();
    return 0;
}
