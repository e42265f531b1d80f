// MobileFetch: the push-style fetcher for H.264 video and AAC audio that a mobile client
// pushes through a MobileReceiver's Unix socket. It learns the announced streams from the
// "media-info" message, gathers the H.264 parameter sets and the AAC rate and channels from
// the first frames, starts the StreamPacker once all announced parts were seen and from then
// on hands every frame to it. It owns its receiver, its packer and its formats.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "core/fetcher.h"
#include "mobile/mobilereceiver.h"
#include "mobile/mobilereceiverctrler.h"
#include "packer/streampacker.h"

// Which parts of the stream description have arrived or were announced.
constexpr uint8_t kMobileMaskSps = 0x07;
constexpr uint8_t kMobileMaskPps = 0x08;
constexpr uint8_t kMobileMaskVideo = 0x0F;
constexpr uint8_t kMobileMaskAudio = 0x10;

class MobileFetch : public MobileReceiverCtrler, public FetcherBase {
public:
    explicit MobileFetch(const FETCH_PARAM& param);
    ~MobileFetch() override;
    MobileFetch(const MobileFetch&) = delete;
    MobileFetch& operator=(const MobileFetch&) = delete;

    // One payload from the receiver, on the fetch loop's thread.
    void RecvData(char* data, unsigned int size, std::string contentType, timeval pts) override;
    bool IsExpectedAudio() const;

    // Blocks in the receiver's loop; packetized frames reach handler, which also relays the
    // start and stop notices to the mobile client.
    void DoFetchLoop(MediaDataHandler* handler) override;
    void StopFetchLoop() override;
    int SetReconnect() override;
    int GetVideoFormat(ESFormat& format) override;
    int GetAudioFormat(ESFormat& format) override;
    // The client connects to us: there is nothing to probe or measure beforehand.
    int TestConnect() override { return 0; }
    int GetBandwidth() override { return 4000000; }

private:
    struct MobilePriv;

    // Starts a new session: nothing announced, nothing collected.
    void ResetSession();
    void ParseMediaInfo(const char* data, unsigned int size);
    // Gathers parameter sets while the video description is incomplete; false drops the frame.
    bool CollectVideoInfo(const char* data, unsigned int size);
    void CollectAudioInfo(const unsigned char* data, unsigned int size);
    // Sets up the packer when everything announced has been seen.
    void InitPackersIfComplete();

    std::unique_ptr<MobilePriv> m_pPriv;
    std::unique_ptr<StreamPacker> m_pPacker;
    std::unique_ptr<MobileReceiver> m_pReceiver;
    MOBILE_RECV_PARAM m_recvParam;
    uint8_t receivedMask;
    uint8_t expectedMask;
    bool m_bPackerReady;                     // InitPackers ran in this session
    std::atomic<bool> m_bLoopActive{false};  // a DoFetchLoop owns the session state
};
