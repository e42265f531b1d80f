// The parameters of one RTSP receiver: where to connect, as whom, what to play and how.
#pragma once

#include <string>

struct __tag_RTSP_RECV_PARAM {
    std::string Host;            // must not be empty
    std::string User;            // for the DESCRIBE authenticator; may be empty
    std::string Password;        // plain, not MD5
    std::string Path;            // path part of the URL; may be empty
    std::string UserAgent;       // set as the client's User-Agent when not empty
    long long AbsStartTime = 0;  // us since 1970 UTC; 0 = a normal relative PLAY
    long long AbsEndTime = 0;    // us since 1970 UTC, only with a start time; 0 = open-ended
    int Port = 0;                // must be 0 or more
    int HttpPort = 0;            // RTSP-over-HTTP tunnelling port; low 16 bits used
    int Timeout = 10;            // setup timeout in seconds
    int Protocol = 4;            // 1 UDP, 2 TCP interleaved, 3 HTTP tunnelling, 4 auto
    int KeepAlive = 0;           // 0 none, 1 OPTIONS, 2 GET_PARAMETER
    bool SocketBatch = true;     // batch the reads of the RTSP connection (socketbatch.h)
};
typedef __tag_RTSP_RECV_PARAM RTSP_RECV_PARAM;

// Transport and keep-alive values of RTSP_RECV_PARAM.
constexpr int RTSP_PROTOCOL_UDP = 1;
constexpr int RTSP_PROTOCOL_TCP = 2;
constexpr int RTSP_PROTOCOL_HTTP = 3;
constexpr int RTSP_PROTOCOL_AUTO = 4;
constexpr int RTSP_KEEPALIVE_NONE = 0;
constexpr int RTSP_KEEPALIVE_OPTIONS = 1;
constexpr int RTSP_KEEPALIVE_GET_PARAMETER = 2;
