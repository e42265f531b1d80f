#include "packetizer/latmconfig.h"

#include <cstddef>
#include <cstring>

#include "packetizer/mpeg4audioconfig.h"

uint32_t LatmGetValue(BIT_STREAM* s) {
    const int bytes = static_cast<int>(BitStreamRead(s, 2)) + 1;
    uint32_t value = 0;
    for (int i = 0; i < bytes; ++i)
        value = (value << 8) | static_cast<uint32_t>(BitStreamRead(s, 8));
    return value;
}

namespace {

// One stream's AudioSpecificConfig: as is in version 0, behind its length in version 1.
int ReadStreamConfig(latm_mux_t* mux, mpeg4_cfg_t* cfg, BIT_STREAM* s) {
    if (mux->i_version == 0)
        return Mpeg4ReadAudioSpecificInfo(cfg, s, -1) < 0 ? -1 : 0;
    const uint32_t length = LatmGetValue(s);
    if (length > static_cast<uint32_t>(BitStreamRemain(s)))
        return -1;
    const int bits = Mpeg4ReadAudioSpecificInfo(cfg, s, static_cast<int>(length));
    if (bits < 0 || static_cast<uint32_t>(bits) > length)
        return -1;
    BitStreamSkip(s, static_cast<int>(length) - bits);  // fillBits
    return 0;
}

}  // namespace

void LatmCopyStreamMuxConfiguration(latm_mux_t* dst, const latm_mux_t* src) {
    memcpy(dst, src, offsetof(latm_mux_t, stream));
    memcpy(dst->stream, src->stream, sizeof(src->stream[0]) * size_t(src->i_streams));
    dst->i_other_data = src->i_other_data;
    dst->i_crc = src->i_crc;
}

int LatmReadStreamMuxConfiguration(latm_mux_t* mux, BIT_STREAM* s) {
    // Stream entries are cleared as they are read: the record is large and mostly unused.
    memset(mux, 0, offsetof(latm_mux_t, stream));
    mux->i_other_data = 0;
    mux->i_crc = -1;
    mux->i_version = static_cast<int>(BitStreamRead1(s));
    // audioMuxVersionA 1 has no syntax defined yet.
    if (mux->i_version == 1 && BitStreamRead1(s))
        return -1;
    if (mux->i_version == 1)
        LatmGetValue(s);  // taraBufferFullness

    mux->b_same_time_framing = static_cast<int>(BitStreamRead1(s));
    mux->i_sub_frames = static_cast<int>(BitStreamRead(s, 6)) + 1;
    mux->i_programs = static_cast<int>(BitStreamRead(s, 4)) + 1;
    for (int prog = 0; prog < mux->i_programs; ++prog) {
        mux->pi_layers[prog] = static_cast<int>(BitStreamRead(s, 3)) + 1;
        for (int lay = 0; lay < mux->pi_layers[prog]; ++lay) {
            if (mux->i_streams >= kLatmMaxStreams)
                return -1;
            const int index = mux->i_streams;
            auto& st = mux->stream[index];
            memset(&st, 0, sizeof(st));
            mux->pi_stream[prog][lay] = index;

            const bool useSameConfig = (prog != 0 || lay != 0) && BitStreamRead1(s);
            if (useSameConfig)
                st.cfg = mux->stream[index - 1].cfg;
            else if (ReadStreamConfig(mux, &st.cfg, s) < 0)
                return -1;

            st.i_frame_length_type = static_cast<int>(BitStreamRead(s, 3));
            switch (st.i_frame_length_type) {
                case 0: {
                    BitStreamSkip(s, 8);  // latmBufferFullness
                    const int type = st.cfg.i_object_type;
                    const int below = index > 0 ? mux->stream[index - 1].cfg.i_object_type : 0;
                    if (!mux->b_same_time_framing && (type == 6 || type == 20) &&
                        (below == 8 || below == 24))
                        BitStreamSkip(s, 6);  // coreFrameOffset
                    break;
                }
                case 1:
                    st.i_frame_length = static_cast<int>(BitStreamRead(s, 9));
                    break;
                case 3:
                case 4:
                case 5:
                    st.i_frame_length_index = static_cast<int>(BitStreamRead(s, 6));  // CELP
                    break;
                case 6:
                case 7:
                    st.i_frame_length_index = static_cast<int>(BitStreamRead1(s));  // HVXC
                    break;
                default:
                    return -1;  // reserved
            }
            ++mux->i_streams;
        }
    }

    if (BitStreamRead1(s)) {  // otherDataPresent
        if (mux->i_version == 1) {
            mux->i_other_data = LatmGetValue(s);
        } else {
            // Escaped 8-bit groups; past the data's end the reads give 0 and end the loop.
            bool more = true;
            while (more) {
                more = BitStreamRead1(s) != 0;
                mux->i_other_data = (mux->i_other_data << 8) + uint32_t(BitStreamRead(s, 8));
            }
        }
    }
    if (BitStreamRead1(s))  // crcCheckPresent
        mux->i_crc = static_cast<int16_t>(BitStreamRead(s, 8));
    return 0;
}
