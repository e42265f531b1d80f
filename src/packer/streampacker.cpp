#include "packer/streampacker.h"

#include <cstring>
#include <new>

#include "core/clock.h"
#include "core/log.h"
#include "packetizer/mpeg4audiopacket.h"
#include "packetizer/mpeg4videopacket.h"

namespace {
constexpr int kPackThreadStack = 0x200000;
constexpr int kPackPeriodUs = 15000;
// Video frames in a row without any packetized output after which the stream is given up.
constexpr int kMaxPendingVideo = 51;
// Until its first output, an H.264 stream joined mid-GOP yields nothing before its next key
// picture, and cameras with "smart" codecs send one every 4 to 10 seconds. So before the
// first output the frames without output must also span this much input time...
constexpr long long kFirstOutputWaitUs = 12000000;
// ...unless there are this many of them: 12 s at 60 pictures a second of 8 NAL units each.
// It bounds a stream whose times stand still.
constexpr int kMaxPendingBeforeFirstOutput = 6000;
// A step of the input times counts for at most this much: a clock that jumps (a camera's,
// or the receiver's switch to sender-synchronised times) must not spend the wait at once.
constexpr long long kMaxCountedStepUs = 1000000;
constexpr long long kPtsMask = 0x00FFFFFFFFFFFFFFLL;
constexpr uint32_t kFlagMarked = 2;
const unsigned char kAnnexBStartCode[4] = {0x00, 0x00, 0x00, 0x01};

inline bool IsPassThroughType(int videoType) {
    return (videoType & ~4) == 1;
}

void DeleteBlocks(std::list<MediaBlock*>& blocks) {
    for (MediaBlock* b : blocks)
        delete b;
    blocks.clear();
}
}  // namespace

StreamPacker::StreamPacker(const FETCH_PARAM& param)
    : m_threadId(),
      m_pVideoPacketizer(nullptr),
      m_pAudioPacketizer(nullptr),
      m_pDataHandler(nullptr),
      m_llAbsStartTime(param.llAbsStartTime),
      m_iVideoType(param.iStreamMode),
      m_iVdoOft(param.iVdoOft),
      m_bHasAudio(param.bHasAudio),
      m_uFlags(param.uFlags),
      m_bPassThrough(IsPassThroughType(param.iStreamMode)),
      m_bMetaMode(m_bPassThrough ? false : param.bMetaOnly),
      m_iVideoPending(0),
      m_iAudioPending(0),
      m_bThreadCreated(false),
      m_bActivated(false),
      m_bThreadJoinable(false),
      m_bAudioRefused(false),
      m_bVideoProduced(false),
      m_llVideoWaitUs(0),
      m_llVideoLastPts(0),
      // Bit value 2 of the start time switches to arrival times from the start; an odd
      // seed kept for the hosts that rely on it.
      m_bUseTmstmp((param.llAbsStartTime & 2) != 0),
      m_iSamePtsCount(0),
      m_llLastPts(0) {}

StreamPacker::~StreamPacker() {
    Free();
}

void StreamPacker::InitPackers(const ESFormat& video, const ESFormat& audio) {
    Free();
    m_iVideoPending = 0;
    m_bVideoProduced = false;
    ESFormatCopy(m_fmtVideo, video);
    PackStreamInit(&m_videoStream);
    ESFormatCopy(m_videoStream.fmt, video);
    ReconfigVdoPacketizeParam();
    if (!m_bPassThrough) {
        m_pVideoPacketizer = new Mpeg4VideoPacketizer(m_uFlags);
        m_pVideoPacketizer->InitPacket(&m_videoStream);
    }
    m_bAudioRefused = false;
    if (m_bHasAudio) {
        ESFormatCopy(m_fmtAudio, audio);
        PackStreamInit(&m_audioStream);
        ESFormatCopy(m_audioStream.fmt, audio);
        if (!m_bPassThrough) {
            m_pAudioPacketizer = new Mpeg4AudioPacketizer();
            if (m_pAudioPacketizer->InitPacket(&m_audioStream) != 0)
                RefuseAudio();
        }
    }
    if (m_pDataHandler) {
        ESFormat noAudio;
        noAudio.Reset(AUDIO_ES, 0);
        m_pDataHandler->InitHandler(video, m_bAudioRefused ? noAudio : audio);
    }
    StartPackThread();
}

void StreamPacker::RefuseAudio() {
    // A configuration the packetizer cannot use (an AudioSpecificConfig without a sampling
    // rate, a codec it does not know) would fail on every frame: the session goes on
    // without audio, and says so once.
    const ESFormat& fmt = m_audioStream.fmt;
    CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_WARNING,
           "Audio codec[%s] cannot be packetized; audio dropped for this session.\n",
           fmt.i_codec ? GetCodec(fmt.i_codec).c_str() : fmt.strDescription.c_str());
    m_pAudioPacketizer->FreePacket(&m_audioStream);
    delete m_pAudioPacketizer;
    m_pAudioPacketizer = nullptr;
    m_bAudioRefused = true;
}

void StreamPacker::ReconfigVdoPacketizeParam() {
    m_iVideoType = Codec2VideoType(static_cast<int>(m_fmtVideo.i_codec));
    if (m_iVideoType == 0)
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_NOTICE, "Unknown video codec[%s].\n",
               GetCodec(m_fmtVideo.i_codec).c_str());
    m_bPassThrough = IsPassThroughType(m_iVideoType);
    if (m_bPassThrough)
        m_bMetaMode = false;
}

int StreamPacker::Process(MediaES es, unsigned char* data, unsigned int size, timeval time,
                          unsigned char amrHeader, bool flagged) {
    PACK_STREAM* stream;
    Packetizer* packetizer;
    std::list<MediaBlock*>* waiting;
    int* pending;
    uint32_t codec;
    if (es == VIDEO_ES) {
        stream = &m_videoStream;
        packetizer = m_pVideoPacketizer;
        waiting = &m_lstVideo;
        pending = &m_iVideoPending;
        codec = m_fmtVideo.i_codec;
    } else if (es == AUDIO_ES && m_bHasAudio) {
        if (m_bAudioRefused)
            return 0;
        stream = &m_audioStream;
        packetizer = m_pAudioPacketizer;
        waiting = &m_lstAudio;
        pending = &m_iAudioPending;
        codec = m_fmtAudio.i_codec;
    } else {
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_NOTICE, "Unused medium type[%d], skip it.\n",
               static_cast<int>(es));
        return 0;
    }

    MediaBlock* block;
    if (codec == kCodecH264 || codec == kCodecHevc) {
        // Fetchers hand over NAL units without start code; the packetizers cut Annex B.
        block = new MediaBlock(static_cast<int>(size + 4), nullptr);
        memcpy(block->GetBuffer(), kAnnexBStartCode, 4);
        if (size)
            memcpy(block->GetBuffer() + 4, data, size);
    } else if (codec == kCodecSamr || codec == kCodecSawb) {
        block = new MediaBlock(static_cast<int>(size + 1), nullptr);
        block->GetBuffer()[0] = amrHeader;
        if (size)
            memcpy(block->GetBuffer() + 1, data, size);
    } else {
        block = new MediaBlock(static_cast<int>(size), data);
    }
    const long long pts = (time.tv_sec * 1000000LL + time.tv_usec) & kPtsMask;
    block->SetPTS(pts);
    block->SetDTS(pts);
    block->SetTimestamp(camfetch::WallNowUs());
    if (flagged)
        block->SetFlags(kFlagMarked);

    if (m_bPassThrough)
        return Deliver(stream->fmt, block);
    if (m_bMetaMode)
        return PushMetaBlock(*waiting, block);
    return DoPacketize(*stream, packetizer, block, *pending);
}

int StreamPacker::ProcessDemuxBlock(ESFormat& format, MediaBlock* block) {
    int rc = Process(static_cast<MediaES>(format.i_cat), block->GetFrame(),
                     static_cast<unsigned int>(block->GetFrameSize()),
                     Tmstmp2Tmval(block->GetTimestamp()), 0, (block->GetFlags() & 2) != 0);
    delete block;
    return rc;
}

int StreamPacker::ProcessFunc(void* packer, ESFormat& format, MediaBlock* block) {
    if (!packer) {
        delete block;
        return FETCH_CONN_CLOSED;
    }
    return static_cast<StreamPacker*>(packer)->ProcessDemuxBlock(format, block);
}

int StreamPacker::PushMetaBlock(std::list<MediaBlock*>& list, MediaBlock* block) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (block)
        list.push_back(block);
    return m_bThreadCreated ? 0 : 1;
}

void StreamPacker::StartPackThread() {
    if (!m_bMetaMode)
        return;
    SetActivatedFlag(true);
    bool created = CreateThread(PacketizeThreadFunc, this, kPackThreadStack, false, m_threadId);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bThreadCreated = created;
    }
    m_bThreadJoinable = created;
    if (!created)
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_ERROR, "Failed to create packetize thread.\n");
}

void StreamPacker::StopPackThread() {
    if (!m_bMetaMode)
        return;
    SetActivatedFlag(false);
    // Joined even when the thread has already given up, so its resources are returned.
    if (m_bThreadJoinable) {
        pthread_join(m_threadId, nullptr);
        m_bThreadJoinable = false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bThreadCreated = false;
}

void* StreamPacker::PacketizeThreadFunc(void* packer) {
    static_cast<StreamPacker*>(packer)->PacketizeThreadMain();
    return nullptr;
}

void StreamPacker::PacketizeThreadMain() {
    DelayTimer timer(kPackPeriodUs);
    timer.BeginTiming();
    std::list<MediaBlock*> video;
    std::list<MediaBlock*> audio;
    while (GetActivatedFlag()) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            video.splice(video.end(), m_lstVideo);
            audio.splice(audio.end(), m_lstAudio);
        }
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_TRACE, "Unpacketize video num[%d], audio num[%d].\n",
               static_cast<int>(video.size()), static_cast<int>(audio.size()));
        bool failed = false;
        while (!failed && !video.empty()) {
            MediaBlock* b = video.front();
            video.pop_front();
            failed = DoPacketize(m_videoStream, m_pVideoPacketizer, b, m_iVideoPending) != 0;
        }
        while (!failed && !audio.empty()) {
            MediaBlock* b = audio.front();
            audio.pop_front();
            failed = DoPacketize(m_audioStream, m_pAudioPacketizer, b, m_iAudioPending) != 0;
        }
        if (failed)
            break;
        timer.Delay();
    }
    DeleteBlocks(video);
    DeleteBlocks(audio);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bThreadCreated = false;
}

int StreamPacker::DoPacketize(PACK_STREAM& stream, Packetizer* packetizer, MediaBlock* block,
                              int& pending) {
    if (!packetizer) {
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_ERROR, "NULL Packetizer, ES[%d].\n", stream.fmt.i_cat);
        delete block;
        return FETCH_CONN_CLOSED;
    }
    const bool video = &pending == &m_iVideoPending;
    if (video && block) {
        const long long step = block->GetPTS() - m_llVideoLastPts;
        if (pending == 0)
            m_llVideoWaitUs = 0;
        else if (step > 0)
            m_llVideoWaitUs += step < kMaxCountedStepUs ? step : kMaxCountedStepUs;
        m_llVideoLastPts = block->GetPTS();
    }
    ++pending;
    int result = 0;
    // The packetizer owns block from the first call; later calls drain what it holds.
    while (MediaBlock* out = packetizer->Packetize(&stream, &block)) {
        pending = 0;
        if (video)
            m_bVideoProduced = true;
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_TRACE, "Get packetized block.\n");
        if (result == 0)
            result = Deliver(stream.fmt, out);
        else
            delete out;  // after a refused delivery the rest of this round is dropped
    }
    // Checked on the video counter for both streams: a video stream that has stopped
    // producing pictures ends the whole fetch.
    if (VideoGivenUp())
        return FETCH_CONN_CLOSED;
    return result;
}

bool StreamPacker::VideoGivenUp() const {
    if (m_iVideoPending < kMaxPendingVideo)
        return false;
    if (m_bVideoProduced || m_iVideoPending >= kMaxPendingBeforeFirstOutput)
        return true;
    return m_llVideoWaitUs > kFirstOutputWaitUs;
}

int StreamPacker::Deliver(ESFormat& format, MediaBlock* block) {
    // HandlerProcess leaves a block it could not deliver with its caller.
    const bool undeliverable = !m_pDataHandler;
    int rc = HandlerProcess(format, block);
    if (undeliverable)
        delete block;
    return rc;
}

int StreamPacker::HandlerProcess(ESFormat& format, MediaBlock* block) {
    if (!block || !m_pDataHandler) {
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_ERROR,
               "pBlock[%p] m_pDataHandler[%p], FETCH_CONN_CLOSED\n", static_cast<void*>(block),
               static_cast<void*>(m_pDataHandler));
        return FETCH_CONN_CLOSED;
    }
    PatchTimestamp(format, block);
    block->SetVdoOft(m_iVdoOft);
    // The handler owns the block from here.
    return m_pDataHandler->ProcessMediaBlock(format, block);
}

void StreamPacker::CleanupBlockList() {
    std::lock_guard<std::mutex> lock(m_mutex);
    DeleteBlocks(m_lstVideo);
    DeleteBlocks(m_lstAudio);
}

void StreamPacker::Flush() {
    // A packetize thread that never ran or gave up leaves nothing worth delivering.
    int result = m_bMetaMode && !IsThreadCreated() ? FETCH_CONN_CLOSED : 0;
    StopPackThread();
    std::list<MediaBlock*> video;
    std::list<MediaBlock*> audio;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        video.splice(video.end(), m_lstVideo);
        audio.splice(audio.end(), m_lstAudio);
    }
    try {
        // Each block leaves the list before the packetizer takes it.
        while (result == 0 && !video.empty()) {
            MediaBlock* b = video.front();
            video.pop_front();
            result = DoPacketize(m_videoStream, m_pVideoPacketizer, b, m_iVideoPending);
        }
        while (result == 0 && !audio.empty()) {
            MediaBlock* b = audio.front();
            audio.pop_front();
            result = DoPacketize(m_audioStream, m_pAudioPacketizer, b, m_iAudioPending);
        }
        if (m_pVideoPacketizer)
            result =
                DeliverChain(m_videoStream.fmt, m_pVideoPacketizer->Drain(&m_videoStream), result);
        if (m_pAudioPacketizer)
            DeliverChain(m_audioStream.fmt, m_pAudioPacketizer->Drain(&m_audioStream), result);
    } catch (const std::bad_alloc&) {
        // Called on the way out of a fetch loop: nothing may escape to the host from here.
        // What the packetizers still hold is released by Free.
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_ERROR,
               "Out of memory, the frames held at the end are dropped.\n");
    }
    DeleteBlocks(video);
    DeleteBlocks(audio);
}

int StreamPacker::DeliverChain(ESFormat& format, MediaBlock* chain, int result) {
    while (chain) {
        MediaBlock* next = chain->GetNext();
        chain->SetNext(nullptr);
        if (result == 0)
            result = Deliver(format, chain);
        else
            delete chain;
        chain = next;
    }
    return result;
}

void StreamPacker::Free() {
    StopPackThread();
    CleanupBlockList();
    if (m_pVideoPacketizer) {
        m_pVideoPacketizer->FreePacket(&m_videoStream);
        delete m_pVideoPacketizer;
        m_pVideoPacketizer = nullptr;
    }
    if (m_pAudioPacketizer) {
        m_pAudioPacketizer->FreePacket(&m_audioStream);
        delete m_pAudioPacketizer;
        m_pAudioPacketizer = nullptr;
    }
}
