// What a push-style fetcher can tell its host about its latest fetch loop: why it ended and
// whether calling DoFetchLoop again may bring the stream back. It sits beside FetcherBase,
// whose virtual table hosts are built against, and is asked through one exported function.
// The record is plain data that only grows at its end: the caller states the size it knows,
// the library fills no more than that.
#pragma once

#include <cstdint>

class FetcherBase;

// How the latest DoFetchLoop ended.
enum FETCH_END_REASON : int32_t {
    FETCH_END_NONE = 0,            // no loop has ended since the latest one began
    FETCH_END_STOPPED = 1,         // StopFetchLoop or SetReconnect
    FETCH_END_STREAM_END = 2,      // the camera ended the stream: RTCP BYE, end of the play range
    FETCH_END_DROPPED = 3,         // the session was lost: connection closed, no media in time
    FETCH_END_REFUSED = 4,         // the camera answered a request with an error status
    FETCH_END_UNREACHABLE = 5,     // no connection could be made
    FETCH_END_TIMEOUT = 6,         // the camera did not answer a request within the time-out
    FETCH_END_NOT_UNDERSTOOD = 7,  // the camera answered in a form that could not be read
    FETCH_END_FAILED = 8,          // anything else (an unusable session description, ...)
};

constexpr uint32_t FETCH_REASON_TEXT_SIZE = 128;

struct __tag_FETCH_STATUS {
    // Set by the caller to sizeof(FETCH_STATUS) as it was built; the library fills at most
    // that many bytes and sets it to the number it filled.
    uint32_t uSize = sizeof(__tag_FETCH_STATUS);
    int32_t iEndReason = FETCH_END_NONE;
    // The camera's status code when it refused a request (461, 404, ...), else 0.
    int32_t iStatusCode = 0;
    // 1 when calling DoFetchLoop again may bring the stream back (a dropped session, a camera
    // out of reach or busy); 0 for an end of stream, a refusal, a stop.
    int32_t bMayReconnect = 0;
    // The reason as one line for people, NUL-terminated: "461 Unsupported Transport",
    // "RTSP response not understood", "session dropped by the camera", ...
    char szReason[FETCH_REASON_TEXT_SIZE] = {};
};
typedef __tag_FETCH_STATUS FETCH_STATUS;

// Fills `status` for `fetcher`; safe from any thread. 0 on success; -1 when the fetcher keeps
// no status (the pull-style fetchers, null) or `status` is null or smaller than its first
// four fields.
extern "C" int GetFetchStatus(FetcherBase* fetcher, FETCH_STATUS* status);

// Implemented by the fetchers that keep a status, beside FetcherBase.
class FetchStatusSource {
public:
    // Fills the whole record (uSize aside).
    virtual void FillFetchStatus(FETCH_STATUS& status) = 0;

protected:
    ~FetchStatusSource() = default;
};
