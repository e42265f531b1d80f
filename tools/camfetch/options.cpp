#include "options.h"

#include <time.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace camfetch_tool {

const char kUsage[] =
    "usage:\n"
    "  camfetch fetch URL [options]     fetch a camera stream into a directory\n"
    "  camfetch probe URL [options]     print one JSON object: connect code, formats, "
    "bandwidth\n"
    "  camfetch demo                    run the embedded sample camera and fetch it\n"
    "  camfetch --version               the library's version and the live555 it runs on\n"
    "\n"
    "URL: rtsp://[user[:password]@]host[:port][/path]   RTSP\n"
    "     http://[user[:password]@]host[:port][/path]   HTTP multipart (--kind mp4: "
    "fragmented MP4)\n"
    "     mobile://ID                                    mobile push receiver ID\n"
    "\n"
    "options:\n"
    "  --kind rtsp|multipart|mp4|mobile   --mode N (stream mode; multipart 1, mp4 3)\n"
    "  -o, --output DIR   --duration SEC   --frames N\n"
    "  --transport udp|tcp|http|auto   --http-port P   --keepalive none|options|get_parameter\n"
    "  --timeout SEC   --no-audio   --meta   --start ISO8601   --end ISO8601\n"
    "  --user-agent TEXT   -v (more log) / --log-level N   --json\n"
    "  --reconnect        reconnect a dropped session until --duration / --frames\n"
    "  --no-socket-batch  (live555 reads the RTSP connection unbuffered)\n";

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string PercentDecode(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && HexDigit(text[i + 1]) >= 0 &&
            HexDigit(text[i + 2]) >= 0) {
            out += static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

bool ParseNumber(const std::string& text, double& value) {
    char* end = nullptr;
    value = strtod(text.c_str(), &end);
    return !text.empty() && end && *end == 0 && value >= 0;
}

bool ParseInt(const std::string& text, long long& value) {
    char* end = nullptr;
    value = strtoll(text.c_str(), &end, 10);
    return !text.empty() && end && *end == 0 && value >= 0;
}

}  // namespace

bool ParseUrl(const std::string& text, Url& url, std::string& error) {
    url = Url();
    size_t sep = text.find("://");
    if (sep == std::string::npos || sep == 0) {
        error = "not a URL: " + text;
        return false;
    }
    url.scheme = text.substr(0, sep);
    for (char& c : url.scheme)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (url.scheme != "rtsp" && url.scheme != "http" && url.scheme != "https" &&
        url.scheme != "mobile") {
        error = "unknown URL scheme: " + url.scheme;
        return false;
    }
    std::string rest = text.substr(sep + 3);
    size_t slash = rest.find('/');
    std::string authority = rest.substr(0, slash);
    if (slash != std::string::npos)
        url.path = rest.substr(slash);
    size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        std::string userinfo = authority.substr(0, at);
        authority = authority.substr(at + 1);
        size_t colon = userinfo.find(':');
        url.user = PercentDecode(userinfo.substr(0, colon));
        if (colon != std::string::npos)
            url.password = PercentDecode(userinfo.substr(colon + 1));
    }
    std::string portText;
    if (!authority.empty() && authority[0] == '[') {  // [::1]:554
        size_t close = authority.find(']');
        if (close == std::string::npos) {
            error = "bad IPv6 address in URL";
            return false;
        }
        url.host = authority.substr(1, close - 1);
        if (close + 1 < authority.size() && authority[close + 1] == ':')
            portText = authority.substr(close + 2);
    } else {
        size_t colon = authority.rfind(':');
        url.host = authority.substr(0, colon);
        if (colon != std::string::npos)
            portText = authority.substr(colon + 1);
    }
    if (url.host.empty()) {
        error = "the URL names no host";
        return false;
    }
    if (!portText.empty()) {
        long long port = 0;
        if (!ParseInt(portText, port) || port < 1 || port > 65535) {
            error = "bad port in URL: " + portText;
            return false;
        }
        url.port = static_cast<int>(port);
    }
    return true;
}

bool ParseIsoTime(const std::string& text, long long& us) {
    struct tm parts;
    memset(&parts, 0, sizeof(parts));
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!rest)
        rest = strptime(text.c_str(), "%Y%m%dT%H%M%S", &parts);
    if (!rest)
        return false;
    long long fraction = 0;
    if (*rest == '.') {
        long long scale = 100000;
        for (++rest; isdigit(static_cast<unsigned char>(*rest)); ++rest, scale /= 10)
            fraction += (*rest - '0') * scale;
    }
    if (*rest == 'Z')
        ++rest;
    if (*rest)
        return false;
    us = static_cast<long long>(timegm(&parts)) * 1000000 + fraction;
    return true;
}

std::string RedactedUrl(const Url& url) {
    std::string out = url.scheme + "://";
    if (!url.user.empty())
        out += url.user + (url.password.empty() ? "@" : ":***@");
    out += url.host.find(':') != std::string::npos ? "[" + url.host + "]" : url.host;
    if (url.port)
        out += ":" + std::to_string(url.port);
    return out + url.path;
}

const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::kRtsp:
            return "rtsp";
        case Kind::kMultipart:
            return "multipart";
        case Kind::kMp4:
            return "mp4";
        case Kind::kMobile:
            return "mobile";
    }
    return "?";
}

int FetcherType(Kind kind) {
    switch (kind) {
        case Kind::kRtsp:
            return 1;
        case Kind::kMp4:
            return 2;
        case Kind::kMultipart:
            return 3;
        case Kind::kMobile:
            return 6;
    }
    return 0;
}

FETCH_PARAM MakeFetchParam(const Options& o) {
    FETCH_PARAM p;
    p.strHost = o.url.host;
    p.strUser = o.url.user;
    p.strPassword = o.url.password;
    p.strPath = o.url.path;
    p.strUserAgent = o.userAgent;
    p.llAbsStartTime = o.startUs;
    p.llAbsEndTime = o.endUs;
    p.iPort = o.url.port;
    if (!p.iPort)
        p.iPort = o.url.scheme == "rtsp" ? 554 : o.url.scheme == "https" ? 443 : 80;
    p.iHttpPort = o.httpPort ? o.httpPort : 80;
    p.iTimeout = o.timeoutSec;
    p.iProtocol = o.protocol;
    p.iKeepAlive = o.keepAlive;
    p.iStreamMode = o.mode;
    if (p.iStreamMode < 0)
        p.iStreamMode = o.kind == Kind::kMultipart ? 1 : o.kind == Kind::kMp4 ? 3 : 0;
    p.bHasAudio = o.audio;
    p.bMetaOnly = o.meta;
    if (!o.socketBatch)
        p.uFlags |= FETCH_FLAG_NO_SOCKET_BATCH;
    if (o.kind == Kind::kMobile) {
        p.iMobileOpt = atoi(o.url.host.c_str());
        p.strPath = o.url.path.empty() ? "camfetch" : o.url.path.substr(1);
        p.iPort = 0;
    }
    return p;
}

bool ParseArgs(const std::vector<std::string>& args, Options& o, std::string& error) {
    o = Options();
    if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
        o.command = Command::kHelp;
        return true;
    }
    if (args[0] == "--version") {
        o.command = Command::kVersion;
        if (args.size() > 1) {
            error = "unexpected argument: " + args[1];
            return false;
        }
        return true;
    }
    if (args[0] == "fetch") {
        o.command = Command::kFetch;
    } else if (args[0] == "probe") {
        o.command = Command::kProbe;
    } else if (args[0] == "demo") {
        o.command = Command::kDemo;
    } else {
        error = "unknown command: " + args[0];
        return false;
    }

    bool haveUrl = false, haveKind = false;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) {
                error = "option " + a + " needs a value";
                return false;
            }
            out = args[++i];
            return true;
        };
        std::string v;
        double number = 0;
        long long integer = 0;
        if (a == "--kind") {
            if (!value(v))
                return false;
            if (v == "rtsp")
                o.kind = Kind::kRtsp;
            else if (v == "multipart")
                o.kind = Kind::kMultipart;
            else if (v == "mp4")
                o.kind = Kind::kMp4;
            else if (v == "mobile")
                o.kind = Kind::kMobile;
            else {
                error = "unknown kind: " + v;
                return false;
            }
            haveKind = true;
        } else if (a == "--mode") {
            if (!value(v))
                return false;
            if (!ParseInt(v, integer)) {
                error = "bad --mode: " + v;
                return false;
            }
            o.mode = static_cast<int>(integer);
        } else if (a == "-o" || a == "--output") {
            if (!value(o.outputDir))
                return false;
        } else if (a == "--duration") {
            if (!value(v))
                return false;
            if (!ParseNumber(v, o.durationSec)) {
                error = "bad --duration: " + v;
                return false;
            }
        } else if (a == "--frames") {
            if (!value(v))
                return false;
            if (!ParseInt(v, o.frames)) {
                error = "bad --frames: " + v;
                return false;
            }
        } else if (a == "--transport") {
            if (!value(v))
                return false;
            if (v == "udp")
                o.protocol = 1;
            else if (v == "tcp")
                o.protocol = 2;
            else if (v == "http")
                o.protocol = 3;
            else if (v == "auto")
                o.protocol = 4;
            else {
                error = "unknown transport: " + v;
                return false;
            }
        } else if (a == "--http-port") {
            if (!value(v))
                return false;
            if (!ParseInt(v, integer) || integer < 1 || integer > 65535) {
                error = "bad --http-port: " + v;
                return false;
            }
            o.httpPort = static_cast<int>(integer);
        } else if (a == "--keepalive") {
            if (!value(v))
                return false;
            if (v == "none")
                o.keepAlive = 0;
            else if (v == "options")
                o.keepAlive = 1;
            else if (v == "get_parameter")
                o.keepAlive = 2;
            else {
                error = "unknown keep-alive method: " + v;
                return false;
            }
        } else if (a == "--timeout") {
            if (!value(v))
                return false;
            if (!ParseNumber(v, number) || number < 1) {
                error = "bad --timeout: " + v;
                return false;
            }
            o.timeoutSec = static_cast<int>(number);
        } else if (a == "--no-audio") {
            o.audio = false;
        } else if (a == "--meta") {
            o.meta = true;
        } else if (a == "--no-socket-batch") {
            o.socketBatch = false;
        } else if (a == "--start" || a == "--end") {
            if (!value(v))
                return false;
            long long us = 0;
            if (!ParseIsoTime(v, us)) {
                error = "bad time for " + a + ": " + v;
                return false;
            }
            (a == "--start" ? o.startUs : o.endUs) = us;
        } else if (a == "--user-agent") {
            if (!value(o.userAgent))
                return false;
        } else if (a == "-v" || a == "--verbose") {
            o.logLevel += 2;
        } else if (a == "--log-level") {
            if (!value(v))
                return false;
            if (!ParseInt(v, integer) || integer > 7) {
                error = "bad --log-level: " + v;
                return false;
            }
            o.logLevel = static_cast<int>(integer);
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--reconnect") {
            o.reconnect = true;
        } else if (!a.empty() && a[0] == '-') {
            error = "unknown option: " + a;
            return false;
        } else if (!haveUrl && o.command != Command::kDemo) {
            if (!ParseUrl(a, o.url, error))
                return false;
            haveUrl = true;
        } else {
            error = "unexpected argument: " + a;
            return false;
        }
    }
    if (o.command == Command::kDemo)
        return true;
    if (!haveUrl) {
        error = "missing URL";
        return false;
    }
    if (!haveKind) {
        if (o.url.scheme == "rtsp")
            o.kind = Kind::kRtsp;
        else if (o.url.scheme == "mobile")
            o.kind = Kind::kMobile;
        else
            o.kind = Kind::kMultipart;
    }
    bool schemeFits = (o.kind == Kind::kRtsp && o.url.scheme == "rtsp") ||
                      (o.kind == Kind::kMobile && o.url.scheme == "mobile") ||
                      ((o.kind == Kind::kMultipart || o.kind == Kind::kMp4) &&
                       (o.url.scheme == "http" || o.url.scheme == "https"));
    if (!schemeFits) {
        error =
            std::string("kind ") + KindName(o.kind) + " does not fit a " + o.url.scheme + " URL";
        return false;
    }
    return true;
}

}  // namespace camfetch_tool
