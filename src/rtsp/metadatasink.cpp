#include "rtsp/metadatasink.h"

#include "core/log.h"
#include "rtsp/rtspreceiver.h"

MetaDataSink* MetaDataSink::CreateNew(UsageEnvironment& env, MediaSubsession& subsession,
                                      RtspReceiver& receiver) {
    return new MetaDataSink(env, subsession, receiver);
}

MetaDataSink::MetaDataSink(UsageEnvironment& env, MediaSubsession& subsession,
                           RtspReceiver& receiver)
    : MediaSink(env),
      m_pSubsession(&subsession),
      m_pReceiver(&receiver),
      m_pCtrler(receiver.GetRecvCtrler()),
      m_pBuffer(nullptr),
      m_uBufferSize(0),
      m_scratch() {
    if (m_pCtrler) {
        m_pBuffer = m_pCtrler->GetSubsessionRecvBuf(&subsession, m_uBufferSize);
        if (!m_pBuffer)
            m_uBufferSize = 0;
    }
}

MetaDataSink::~MetaDataSink() = default;

Boolean MetaDataSink::continuePlaying() {
    if (!fSource)
        return False;
    if (m_pBuffer && m_uBufferSize > 0)
        fSource->getNextFrame(m_pBuffer, m_uBufferSize, AfterGettingFrame, this, onSourceClosure,
                              this);
    else
        fSource->getNextFrame(m_scratch, sizeof m_scratch, AfterGettingFrame, this, onSourceClosure,
                              this);
    return True;
}

void MetaDataSink::AfterGettingFrame(void* clientData, unsigned frameSize,
                                     unsigned numTruncatedBytes, timeval presentationTime,
                                     unsigned durationInMicroseconds) {
    static_cast<MetaDataSink*>(clientData)
        ->AfterGettingFrame(frameSize, numTruncatedBytes, presentationTime, durationInMicroseconds);
}

void MetaDataSink::AfterGettingFrame(unsigned frameSize, unsigned, timeval presentationTime,
                                     unsigned) {
    if (!m_pBuffer || m_uBufferSize == 0)
        frameSize = 0;  // the scratch bytes are not the controller's to see
    CF_LOG(LOG_CATEG_RTSP, LOG_LEVEL_DEBUG, "Recv meta data, type[%s], size[%u].\n",
           m_pSubsession->mediumName(), frameSize);
    m_pReceiver->NoteFrame();
    // A frame larger than the buffer arrives cut to the buffer and goes on as it is; the
    // truncated count and the duration are of no use downstream.
    if (m_pCtrler)
        m_pCtrler->RecvMetaData(m_pReceiver, m_pSubsession, m_pBuffer, frameSize, presentationTime);
    continuePlaying();
}
