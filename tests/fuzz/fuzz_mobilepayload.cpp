// The mobile push stream: header-framed payloads arriving in reads of any size, parsed by
// the receiver and handed to the mobile fetcher, which collects parameter sets and ADTS
// parameters from them. Every payload byte handed on is read back to catch overreads.
#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstring>

#include "fuzz_quiet.h"
#include "mobile/mobilefetch.h"
#include "mobile/mobilereceiver.h"

// Fills the receiver's buffer as the socket loop does.
struct MobileReceiverInspector {
    static uint32_t Room(const MobileReceiver& r) {
        return MobileReceiver::kMaxFill - r.m_uFillLen;
    }
    static void Append(MobileReceiver& r, const uint8_t* data, uint32_t size) {
        memcpy(r.m_pRecvBuf.get() + r.m_uFillLen, data, size);
        r.m_uFillLen += size;
    }
};

namespace {

// Reads every byte it gets, then passes the payload on to the fetcher.
class TouchingCtrler : public MobileReceiverCtrler {
public:
    explicit TouchingCtrler(MobileFetch& fetch) : m_fetch(fetch) {}
    void RecvData(char* data, unsigned int size, std::string contentType,
                  timeval timestamp) override {
        volatile unsigned sum = 0;
        for (unsigned int i = 0; i < size; ++i)
            sum = sum + static_cast<unsigned char>(data[i]);
        m_fetch.RecvData(data, size, contentType, timestamp);
    }

private:
    MobileFetch& m_fetch;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    // First byte: the size of the reads the rest arrives in.
    const size_t readSize = 1 + data[0] * 17;
    data += 1;
    size -= 1;

    FETCH_PARAM param;
    param.bHasAudio = true;
    MobileFetch fetch(param);
    TouchingCtrler ctrler(fetch);
    MobileReceiver receiver;
    MOBILE_RECV_PARAM recv;
    recv.pReceiverCtrler = &ctrler;
    receiver.Init(recv);
    while (size > 0) {
        const uint32_t room = MobileReceiverInspector::Room(receiver);
        if (room == 0)
            break;  // the loop ends here too: the buffer is full
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>({readSize, size, room}));
        MobileReceiverInspector::Append(receiver, data, n);
        data += n;
        size -= n;
        receiver.ParseDataAndCallBack();
    }
    return 0;
}
