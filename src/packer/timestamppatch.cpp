// Cameras send timestamps that jump, stall or repeat; this turns them into a smooth time
// line before a block reaches the host.
#include "core/clock.h"
#include "core/log.h"
#include "packer/streampacker.h"

namespace {
// Playback: a step back or forward by more than this re-bases the time line.
constexpr long long kPlaybackMaxStepUs = 30000000;
constexpr long long kPlaybackPatchStepUs = 100000;
// Live: steps up to this are trusted (when the average is small enough).
constexpr unsigned long long kLiveMaxStepUs = 2000000;
constexpr uint32_t kLiveMaxAverageUs = 200000;
// Repeats of one video PTS after which arrival times replace it for good.
constexpr int kMaxSamePts = 11;
constexpr int kVideoTypeJpeg = 1;
}  // namespace

timeval Tmstmp2Tmval(long long us) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(us / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(us % 1000000);
    return tv;
}

bool StreamPacker::UseTmstmpAsPts(MediaES es, long long pts) {
    // The audio clock follows arrival, and JPEG cameras rarely send usable times.
    if (es == AUDIO_ES || m_iVideoType == kVideoTypeJpeg)
        return true;
    if (m_bUseTmstmp)
        return true;
    if (pts == m_llLastPts) {
        ++m_iSamePtsCount;
        if (m_iSamePtsCount < kMaxSamePts)
            return false;
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_WARNING,
               "Receive consecutively the same PTS [%lld] over [%d] times; use current time as "
               "PTS from now on\n",
               pts, m_iSamePtsCount);
        m_bUseTmstmp = true;
        return true;
    }
    m_iSamePtsCount = 0;
    m_llLastPts = pts;
    return false;
}

void StreamPacker::PatchTimestamp(ESFormat& format, MediaBlock* block) {
    const long long pts = block->GetPTS();
    const long long now = camfetch::WallNowUs();
    long long out;

    if (m_llAbsStartTime >= 1) {
        if (format.llFirstPTS == 0) {
            // An input PTS of 0 leaves this unset, so the next block seeds it again.
            format.llFirstPTS = pts;
            format.llLastPTS = m_llAbsStartTime;
            format.llPrevPTS = m_llAbsStartTime - pts;
        }
        long long t = pts + format.llPrevPTS;
        if (t < format.llLastPTS || t - format.llLastPTS > kPlaybackMaxStepUs) {
            out = format.llLastPTS + kPlaybackPatchStepUs;
            format.llPrevPTS += out - t;
        } else {
            out = t;
        }
        format.llLastPTS = out;
        block->SetPTS(out);
        block->SetDTS(out);
        block->SetTimestamp(out);
    } else if (UseTmstmpAsPts(static_cast<MediaES>(format.i_cat), pts)) {
        out = block->GetTimestamp();
        CF_LOG(LOG_CATEG_PACKER, LOG_LEVEL_DEBUG,
               "MediaES[%d]: BlockTime: %lld, CurTime: %lld, TmDiff: %lld, cur-prev: %lld.\n",
               format.i_cat, out, now, now - out, (out - format.llLastPTS) / 1000);
        format.llLastPTS = out;
        block->SetPTS(out);
        block->SetDTS(out);
        block->SetTimestamp(now);
    } else {
        long long diff = pts - format.llPrevPTS;
        CF_LOG_AS("PatchFramePTS", LOG_CATEG_PACKER, LOG_LEVEL_DEBUG,
                  "MediaES[%d]: Avg: %u, Diff: %lld, cur-prev: %lld.\n", format.i_cat,
                  format.uAvgDiff / 1000, diff / 1000, (now - format.llLastPTS) / 1000);
        if (diff == 0) {
            out = format.llLastPTS;
        } else if (static_cast<unsigned long long>(diff) <= kLiveMaxStepUs) {
            format.uAvgDiff = (format.uAvgDiff + static_cast<uint32_t>(diff)) >> 1;
            out = format.uAvgDiff < kLiveMaxAverageUs ? format.llLastPTS + diff : now;
        } else {
            CF_LOG_AS("PatchFramePTS", LOG_CATEG_PACKER, LOG_LEVEL_NOTICE,
                      "MediaES[%d]: Patch with current, diff[%lld].\n", format.i_cat, diff);
            out = now;
        }
        format.llLastPTS = out;
        format.llPrevPTS = pts;
        block->SetPTS(out);
        block->SetDTS(out);
        block->SetTimestamp(now);
    }
    block->SetMonoTimestamp(static_cast<unsigned long long>(camfetch::MonoNowUs()));
}
