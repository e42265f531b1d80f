// StreamPacker: between a push-style fetcher and the host's MediaDataHandler. It wraps each
// raw frame in a block, cuts it into access units with the video or audio packetizer,
// repairs the timestamps and delivers every block with its stream format. Depending on the
// fetch parameters it works on the caller's thread, on a packetize thread of its own (meta
// mode), or passes frames through untouched (JPEG, MxPEG).
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <list>
#include <mutex>

#include "core/fetcher.h"
#include "packetizer/packetizer.h"

class StreamPacker {
public:
    explicit StreamPacker(const FETCH_PARAM& param);
    ~StreamPacker();
    StreamPacker(const StreamPacker&) = delete;
    StreamPacker& operator=(const StreamPacker&) = delete;

    // Sets up the packetizers for a new session's formats, tells the handler and starts the
    // packetize thread in meta mode.
    void InitPackers(const ESFormat& video, const ESFormat& audio);
    void ReconfigVdoPacketizeParam();
    // One raw frame from the fetcher (copied). 0 on success, FETCH_CONN_CLOSED to stop.
    int Process(MediaES es, unsigned char* data, unsigned int size, timeval time,
                unsigned char amrHeader, bool flagged);
    // Takes ownership of block.
    int ProcessDemuxBlock(ESFormat& format, MediaBlock* block);
    static int ProcessFunc(void* packer, ESFormat& format, MediaBlock* block);
    // Queues block for the packetize thread; 0 when the thread exists, else 1.
    int PushMetaBlock(std::list<MediaBlock*>& list, MediaBlock* block);
    void StartPackThread();
    void StopPackThread();
    static void* PacketizeThreadFunc(void* packer);
    int DoPacketize(PACK_STREAM& stream, Packetizer* packetizer, MediaBlock* block, int& pending);
    // Patches the timestamps and hands the block (ownership included) to the handler.
    int HandlerProcess(ESFormat& format, MediaBlock* block);
    void SetDataHandler(MediaDataHandler* handler) { m_pDataHandler = handler; }
    void SetActivatedFlag(bool activated) { m_bActivated.exchange(activated); }
    bool GetActivatedFlag() const { return m_bActivated.load(); }
    void CleanupBlockList();
    // At the end of a session (call it when the receive loop has ended, before Free): stops
    // the packetize thread, packetizes what it left, and delivers what the packetizers still
    // hold complete (the last pictures wait for a start code that will not come).
    void Flush();
    // Stops the thread, drops queued frames and frees the packetizers.
    void Free();

    // Timestamp repair (playback from an absolute start, live with the camera's PTS, live
    // with the arrival time).
    void PatchTimestamp(ESFormat& format, MediaBlock* block);
    bool UseTmstmpAsPts(MediaES es, long long pts);

    // For inspection by tests and the tool.
    bool IsPassThrough() const { return m_bPassThrough; }
    bool IsMetaMode() const { return m_bMetaMode; }
    bool IsThreadCreated() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_bThreadCreated;
    }
    const ESFormat& VideoFormat() const { return m_videoStream.fmt; }
    const ESFormat& AudioFormat() const { return m_audioStream.fmt; }
    Packetizer* VideoPacketizer() const { return m_pVideoPacketizer; }
    Packetizer* AudioPacketizer() const { return m_pAudioPacketizer; }

private:
    friend struct StreamPackerInspector;  // tests look at the waiting lists
    void PacketizeThreadMain();
    // HandlerProcess, releasing the block when there is no handler to take it.
    int Deliver(ESFormat& format, MediaBlock* block);
    // The audio packetizer refused its format: it is freed and audio is dropped quietly.
    void RefuseAudio();
    // Video has gone too long without output: the fetcher is told to stop.
    bool VideoGivenUp() const;
    // Delivers each block of a drained chain until the handler refuses one; the rest is
    // released. Returns the first refusal or 0.
    int DeliverChain(ESFormat& format, MediaBlock* chain, int result);

    std::list<MediaBlock*> m_lstVideo;
    std::list<MediaBlock*> m_lstAudio;
    std::mutex m_mutex;  // guards the two lists only
    pthread_t m_threadId;
    PACK_STREAM m_videoStream;
    PACK_STREAM m_audioStream;
    ESFormat m_fmtVideo;
    ESFormat m_fmtAudio;
    Packetizer* m_pVideoPacketizer;
    Packetizer* m_pAudioPacketizer;
    MediaDataHandler* m_pDataHandler;
    long long m_llAbsStartTime;
    int m_iVideoType;
    int m_iVdoOft;
    bool m_bHasAudio;
    uint32_t m_uFlags;
    bool m_bPassThrough;
    bool m_bMetaMode;
    int m_iVideoPending;
    int m_iAudioPending;
    bool m_bThreadCreated;
    std::atomic<bool> m_bActivated;
    bool m_bThreadJoinable;      // created and not yet joined
    bool m_bAudioRefused;        // the audio packetizer refused this session's format
    bool m_bVideoProduced;       // the video packetizer has had output in this session
    long long m_llVideoWaitUs;   // input time spanned by the video frames since the last output
    long long m_llVideoLastPts;  // input time of the last video frame
    bool m_bUseTmstmp;
    int m_iSamePtsCount;
    long long m_llLastPts;
};

// Microseconds to a timeval, truncating (negative input gives a negative tv_usec).
timeval Tmstmp2Tmval(long long us);
