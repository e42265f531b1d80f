// The interface through which a MobileReceiver hands on every payload it read from the mobile
// client's socket. Implemented by MobileFetch.
#pragma once

#include <sys/time.h>

#include <string>

class MobileReceiverCtrler {
public:
    virtual ~MobileReceiverCtrler() = default;
    // data points into the receiver's buffer and is valid only during the call; it is not
    // NUL-terminated at size. timestamp is the message's "TimeStamp", or its arrival time.
    virtual void RecvData(char* data, unsigned int size, std::string contentType,
                          timeval timestamp) = 0;
};
