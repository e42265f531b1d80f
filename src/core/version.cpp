#include "core/version.h"

#include "core/hostapi.h"

const char* CamfetchVersion() {
    return CAMFETCH_VERSION;
}

int CamfetchHostApiVersion() {
    return CAMFETCH_HOSTAPI_VERSION;
}
