// Command line of the camfetch tool: what to fetch, how, and where to write it.
#pragma once

#include <string>
#include <vector>

#include "core/fetcher.h"

namespace camfetch_tool {

enum class Command { kFetch, kProbe, kDemo, kHelp, kVersion };
enum class Kind { kRtsp, kMultipart, kMp4, kMobile };

struct Url {
    std::string scheme;  // "rtsp", "http", "https", "mobile"
    std::string user;
    std::string password;
    std::string host;  // mobile: the receiver id
    int port = 0;      // 0 when the URL names none
    std::string path;  // from the first '/' on (query included), or empty
};

struct Options {
    Command command = Command::kHelp;
    Url url;
    Kind kind = Kind::kRtsp;
    int mode = -1;  // iStreamMode; -1 = the kind's default
    std::string outputDir = "camfetch-out";
    double durationSec = 0;  // 0 = until the stream ends
    long long frames = 0;    // 0 = no limit
    int protocol = 4;        // 1 udp, 2 tcp, 3 http tunnelling, 4 auto
    int httpPort = 0;
    int keepAlive = 1;  // 0 none, 1 OPTIONS, 2 GET_PARAMETER
    int timeoutSec = 10;
    bool audio = true;
    bool meta = false;
    bool socketBatch = true;  // false: FETCH_FLAG_NO_SOCKET_BATCH
    long long startUs = 0;    // playback start/end, us since 1970 UTC
    long long endUs = 0;
    std::string userAgent = "camfetch";
    int logLevel = 3;
    bool json = false;
    bool reconnect = false;  // reconnect a dropped session until the duration or frames
};

// Parses argv; on failure returns false with a message for the user.
bool ParseArgs(const std::vector<std::string>& args, Options& options, std::string& error);
// scheme://[user[:password]@]host[:port][/path]; user and password are percent-decoded.
bool ParseUrl(const std::string& text, Url& url, std::string& error);
// An ISO 8601 UTC time ("2024-05-01T12:00:00Z", fractions allowed) in us since 1970.
bool ParseIsoTime(const std::string& text, long long& us);
// The URL as it may be shown: the password is never printed.
std::string RedactedUrl(const Url& url);
// The library's fetcher type and parameters for these options.
int FetcherType(Kind kind);
FETCH_PARAM MakeFetchParam(const Options& options);
const char* KindName(Kind kind);

extern const char kUsage[];

}  // namespace camfetch_tool
