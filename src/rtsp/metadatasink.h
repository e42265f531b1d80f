// MetaDataSink: the live555 sink of one set-up subsession. It reads whole frames into the
// buffer its controller lends and hands each one, uncopied, to the controller's
// RecvMetaData; the next frame is requested only after that call returned, so the
// controller may reuse the one buffer for every frame. The sink never frees the buffer.
// A controller that lends none still gets one call per frame, with size 0.
#pragma once

#include <liveMedia.hh>

class ReceiverCtrler;
class RtspReceiver;

class MetaDataSink : public MediaSink {
public:
    static MetaDataSink* CreateNew(UsageEnvironment& env, MediaSubsession& subsession,
                                   RtspReceiver& receiver);

    static void AfterGettingFrame(void* clientData, unsigned frameSize, unsigned numTruncatedBytes,
                                  timeval presentationTime, unsigned durationInMicroseconds);
    void AfterGettingFrame(unsigned frameSize, unsigned numTruncatedBytes, timeval presentationTime,
                           unsigned durationInMicroseconds);

protected:
    MetaDataSink(UsageEnvironment& env, MediaSubsession& subsession, RtspReceiver& receiver);
    ~MetaDataSink() override;

private:
    Boolean continuePlaying() override;

    MediaSubsession* m_pSubsession;
    RtspReceiver* m_pReceiver;
    ReceiverCtrler* m_pCtrler;
    unsigned char* m_pBuffer;  // the controller's
    unsigned int m_uBufferSize;
    // live555 completes a frame only once it holds at least one byte, so a sink without a
    // lent buffer reads into this and reports empty frames.
    unsigned char m_scratch[16];
};
