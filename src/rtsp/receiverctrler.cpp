#include "rtsp/receiverctrler.h"

#include <liveMedia.hh>

// The base bodies do what skipping the call would do, so the receiver may call them freely.
bool ReceiverCtrler::IsValidSubsession(MediaSubsession*) {
    return true;
}

void ReceiverCtrler::AfterSetupSubsession(RTSPClient*, MediaSubsession*) {}

void ReceiverCtrler::BeforePlayStart(RTSPClient*) {}

int ReceiverCtrler::GetPollingTmSec() {
    return 0;
}

void ReceiverCtrler::PollingTask(RtspReceiver*) {}

const char* SubsessionMediumName(const MediaSubsession* subsession) {
    if (!subsession || !subsession->mediumName())
        return "";
    return subsession->mediumName();
}

const char* SubsessionCodecName(const MediaSubsession* subsession) {
    if (!subsession || !subsession->codecName())
        return "";
    return subsession->codecName();
}
