// ReceiverCtrler: what steers one run of RtspReceiver::DoRecvLoop. It filters subsessions,
// lends the receive buffers, gets every frame and may poll and stop the loop. Every
// operation is called on the receiver's event-loop thread, one call at a time.
#pragma once

#include <sys/time.h>

class MediaSubsession;
class RTSPClient;
class RtspReceiver;

class ReceiverCtrler {
public:
    virtual ~ReceiverCtrler() = default;
    virtual bool IsValidSubsession(MediaSubsession* subsession);
    virtual void AfterSetupSubsession(RTSPClient* client, MediaSubsession* subsession);
    virtual void BeforePlayStart(RTSPClient* client);
    // The buffer the subsession's frames are read into, and its size. The controller owns it
    // and keeps it alive for the whole session; null with size 0 lends nothing.
    virtual unsigned char* GetSubsessionRecvBuf(MediaSubsession* subsession,
                                                unsigned int& size) = 0;
    // One frame, in the lent buffer; valid only until the call returns.
    virtual void RecvMetaData(RtspReceiver* receiver, MediaSubsession* subsession,
                              unsigned char* data, unsigned int size, timeval pts) = 0;
    // Seconds between PollingTask calls; below 1 means no polling.
    virtual int GetPollingTmSec();
    virtual void PollingTask(RtspReceiver* receiver);
};

// The subsession's medium ("video", "audio", ...) and SDP codec names, for controllers that
// do not look into live555 themselves. Empty text for a null subsession.
const char* SubsessionMediumName(const MediaSubsession* subsession);
const char* SubsessionCodecName(const MediaSubsession* subsession);
