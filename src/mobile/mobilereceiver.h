// MobileReceiver: offers a Unix-domain socket under /tmp to a mobile client (the host relays a
// JSON "startStream" notice to the client), accepts one connection, reads the client's
// header-framed payloads and hands each to its MobileReceiverCtrler, then sends "stopStream"
// and removes the socket file. The receiver owns its buffer and sockets; the controller and
// the notice handler are borrowed.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "core/bufferalloc.h"
#include "core/fetcher.h"
#include "mobile/mobilereceiverctrler.h"

// The host side of the start and stop notices; the host's MediaDataHandler is one.
using TransNotice2MobileHandler = MediaDataHandler;

struct __tag_MOBILE_RECV_PARAM {
    MobileReceiverCtrler* pReceiverCtrler = nullptr;  // receives the payloads; not null
    std::string strPath;                              // recorded stream path; empty = live
    long long llAbsStartTime = 0;                     // sent as "stmAbsStartTm" with a path
    long long llReserved = 0;                         // carried, not used by the receiver
    int iTimeout = 5;                                 // idle seconds that end the loop
    int iReceiverId = 0;                              // part of the socket name
};
typedef __tag_MOBILE_RECV_PARAM MOBILE_RECV_PARAM;

class MobileReceiver {
public:
    // The buffer holds at most this much data so that a terminating zero always fits.
    static constexpr uint32_t kRecvBufSize = 0x400000;
    static constexpr uint32_t kMaxFill = kRecvBufSize - 1;

    // Throws std::bad_alloc, as a failed new would, when the receive buffer cannot be had.
    MobileReceiver();
    virtual ~MobileReceiver();
    MobileReceiver(const MobileReceiver&) = delete;
    MobileReceiver& operator=(const MobileReceiver&) = delete;

    void Init(const MOBILE_RECV_PARAM& param);
    // Runs the whole exchange on the calling thread and returns when it has ended.
    void DoRecvLoop(TransNotice2MobileHandler* handler);
    // From any thread: the loop notices within one poll period (1 s).
    void StopRecvLoop();
    // The answer to a loop asked for while one runs: logged, and the running loop is made to
    // end as by StopRecvLoop (hosts restart the exchange that way).
    void RefuseRecvLoop();
    // Delivers every complete payload in the buffer. 1 when it stopped for want of data,
    // 0 after a malformed header (which stays in the buffer and stalls parsing).
    int ParseDataAndCallBack();

    // "kv_mobile_receiver_<id>_<path>", path "live" for the live stream.
    std::string SocketName() const;
    // "/tmp/" + SocketName() + ".sock".
    std::string SocketPath() const;

private:
    friend struct MobileReceiverInspector;  // tests fill the buffer directly
    void Deliver(uint32_t length);
    void Compact();

    MobileReceiverCtrler* m_pReceiverCtrler;
    std::string m_strPath;
    long long m_llAbsStartTime;
    long long m_llReserved;
    int m_iTimeout;
    int m_iReceiverId;
    std::string m_strContentType;  // of the payload being delivered or pending
    std::atomic<bool> m_bRunning;
    std::unique_ptr<char, camfetch::FreeDeleter> m_pRecvBuf;  // kRecvBufSize bytes
    uint32_t m_uParseOft;                                     // start of the unparsed data
    uint32_t m_uFillLen;                                      // bytes in the buffer
    uint32_t m_uPendingLen;  // length of a payload still arriving; 0 = none
    timeval m_tvTimestamp;   // of the payload being delivered or pending
    uint32_t m_uScanOft;     // header search resumes here (no terminator before)
    bool m_bStalled;         // a malformed header blocks the rest of the stream
};
