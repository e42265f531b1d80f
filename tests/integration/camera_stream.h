// What multipart_camera.py sends, computed independently of the fetcher: the deterministic
// part bodies, and a helper that pulls parts through a MultipartFetch the way a host does.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "http/multipartfetch.h"

namespace camera {

// 65536 bytes of x = (1103515245 x + 12345) mod 2^31 from x = 1, each byte (x >> 16) & 255.
inline const std::string& Base() {
    static const std::string base = [] {
        std::string b(65536, '\0');
        uint32_t x = 1;
        for (auto& c : b) {
            x = (1103515245u * x + 12345u) & 0x7FFFFFFFu;
            c = static_cast<char>((x >> 16) & 0xFF);
        }
        return b;
    }();
    return base;
}

// Byte k of video part i is Base()[(k + 7919 i) % 65536]; nearmiss overwrites the middle.
inline std::string VideoBody(int i, size_t size, const std::string& nearmiss = "") {
    std::string body(size, '\0');
    const std::string& base = Base();
    for (size_t k = 0; k < size; ++k)
        body[k] = base[(k + 7919u * i) % 65536];
    if (!nearmiss.empty() && size >= 2 * nearmiss.size())
        body.replace(size / 2, nearmiss.size(), nearmiss);
    return body;
}

inline size_t DefaultSize(int i) {
    return 200 + 37 * i;
}

inline std::string AudioBody(int i) {
    std::string body(320, '\0');
    for (int k = 0; k < 320; ++k)
        body[k] = static_cast<char>((0xD5 + 3 * i + k) & 0xFF);
    return body;
}

struct Part {
    std::string type;
    int kind = 0;
    std::string body;
};

enum class Fetch { kWhole, kPieces };

// Pulls up to max parts. Returns the first non-zero result, or 0 after max parts.
inline int Pull(MultipartFetch& f, int max, std::vector<Part>& out, Fetch how = Fetch::kWhole) {
    for (int n = 0; n < max; ++n) {
        unsigned size = 0;
        char type[128] = {};
        int kind = 0;
        int rc = f.NextPartInfo(size, type, sizeof(type), kind);
        if (rc != 0)
            return rc;
        Part part{type, kind, std::string(size, '\0')};
        auto* buf = reinterpret_cast<unsigned char*>(&part.body[0]);
        if (how == Fetch::kWhole || size == 0) {
            rc = f.FetchContent(buf, size);
        } else {
            // Odd-sized pieces, so that piece ends fall everywhere.
            unsigned done = 0;
            while (rc == 0 && done < size) {
                int got = 0;
                rc = f.FetchPartOfContent(buf + done, std::min(7u, size - done), got);
                done += rc == 0 ? static_cast<unsigned>(got) : 0;
            }
        }
        if (rc != 0)
            return rc;
        out.push_back(std::move(part));
    }
    return 0;
}

}  // namespace camera
